// ChangePrinter: turns a route table's change callbacks into lines for a
// person. It remembers the last route seen for each key so that it can say
// whether a key was added ('+'), changed ('~', with what changed) or removed
// ('-'); a change callback only names the key.
//
//   + (10.0.0.1,239.1.1.1)  iif Ethernet1  oifs 3,7  flags valid  prio 1  ver 4
//   ~ (10.0.0.1,239.1.1.1)  iif Ethernet1  oifs 3,7,12  flags valid  prio 1  ver 9   [oif +12]
//   - (10.0.0.1,239.1.1.1)
//
// With `text` set, routes print in their Value(...) text form instead.
//
// Thread-safety: single-threaded (the follower's event loop).
#pragma once

#include <map>
#include <optional>
#include <string>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route.h"

namespace Mroutectl {

class ChangePrinter {
 public:
  explicit ChangePrinter(bool text) : text_(text) {}

  // A route already present when following starts: remembered, not printed.
  void seed(const Brume::Multicast::Fib::Route& route) { known_[route.key()] = route; }
  // What a change callback for `key` meant; `now` is the key's route after
  // the change, or nothing when it was removed.
  struct Change {
    char mark;                                         // '+', '~' or '-'
    std::optional<Brume::Multicast::Fib::Route> route;  // after the change
    std::string diff;                                  // '~': what changed
    bool unseen = false;                               // '-': a key never seen
  };
  Change classify(const Routing::Multicast::Fib::IpGenRouteKey& key,
                  const std::optional<Brume::Multicast::Fib::Route>& now);
  // The line for a change (classify() and then its line).
  std::string line(const Routing::Multicast::Fib::IpGenRouteKey& key, const Change& c) const;
  std::string change(const Routing::Multicast::Fib::IpGenRouteKey& key,
                     const std::optional<Brume::Multicast::Fib::Route>& now) {
    return line(key, classify(key, now));
  }
  size_t routes() const { return known_.size(); }

 private:
  std::string show(const Brume::Multicast::Fib::Route& route) const;

  bool text_;
  std::map<Routing::Multicast::Fib::IpGenRouteKey, Brume::Multicast::Fib::Route> known_;
};

}  // namespace Mroutectl
