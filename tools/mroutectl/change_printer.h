// ChangePrinter: turns a table's change reports into lines for a person. It
// remembers the last value seen for each key so that it can say whether a
// key was added ('+'), changed ('~') or removed ('-'); a change report only
// gives the value after the change.
//
//   + (10.0.0.1,239.1.1.1)  iif Ethernet1  oifs 3,7  flags valid  prio 1  ver 4
//   ~ (10.0.0.1,239.1.1.1)  iif Ethernet1  oifs 3,7,12  flags valid  prio 1  ver 9   [oif +12]
//   - (10.0.0.1,239.1.1.1)
//
// Routes print in their one-line form (route_text.h) with what changed;
// values of other types, and routes with `text` set, in their Value(...)
// text form.
//
// Thread-safety: single-threaded (the follower's event loop).
#pragma once

#include <map>
#include <optional>
#include <string>

#include "mroute/route/route.h"
#include "mroute/table/survey/value_codec.h"

namespace Mroutectl {

using Brume::Survey::ValueBytes;

// The table stores routes (its codec is that of the route table's value).
bool holdsRoutes(const Brume::Survey::ValueCodec& codec);
// The route in the bytes of a route table's value.
Brume::Multicast::Fib::Route routeOf(const ValueBytes& bytes);

class ChangePrinter {
 public:
  ChangePrinter(const Brume::Survey::ValueCodec& codec, bool text)
      : codec_(codec), routes_(holdsRoutes(codec)), text_(text) {}

  // A value already present when following starts: remembered, not printed.
  void seed(const ValueBytes& value) { known_[codec_.keyText(value.data())] = value; }
  struct Change {
    char mark;                        // '+', '~' or '-'
    std::optional<ValueBytes> now;    // after the change
    std::optional<ValueBytes> before;  // the last value seen, if any
    std::string diff;                 // routes, '~': what changed
  };
  // What a change report for `key` meant; `now` is null when it was removed.
  Change classify(const std::string& key, const ValueBytes* now);
  std::string line(const std::string& key, const Change& c) const;
  // The value as a line shows it.
  std::string show(const ValueBytes& value) const;
  size_t entries() const { return known_.size(); }

 private:
  const Brume::Survey::ValueCodec& codec_;
  bool routes_;
  bool text_;
  std::map<std::string, ValueBytes> known_;
};

}  // namespace Mroutectl
