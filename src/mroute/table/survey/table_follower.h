// TableFollower: follows the changes of a table whose value type a surveyor
// learns only from the table's files. It holds a shadow reader front of the
// table (brume_map.h) and reports each change by the key's text and the
// value's bytes, so that a tool shows any registered type (value_codec.h)
// without knowing it at compile time.
//
// Thread-safety: the event loop given at creation, like the front.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mroute/table/brume_map.h"

namespace Brume::Survey {

// Bytes of one stored value (the value wrapper, as in its slot).
using ValueBytes = std::vector<unsigned char>;

class TableFollower {
 public:
  // A changed key, and its value after the change (null: removed).
  using Changed = std::function<void(const std::string& key, const ValueBytes* now)>;

  virtual ~TableFollower() = default;
  virtual bool ready() const = 0;
  virtual void onReadyIs(std::function<void(bool ready)> cb) = 0;
  virtual void onChangeIs(Changed cb) = 0;
  // Every value held now, in no particular order.
  virtual std::vector<ValueBytes> entries() = 0;
  virtual const std::string& tablePath() const = 0;
};

template <typename Stored>
ValueBytes bytesOf(const Stored& s) {
  ValueBytes bytes(sizeof s);
  std::memcpy(bytes.data(), static_cast<const void*>(&s), sizeof s);
  return bytes;
}

// The follower of a table of `Stored` under Ops; `keyText` names a key.
template <typename Ops>
class TypedFollower final : public TableFollower {
 public:
  using Key = typename Ops::Key;
  using Stored = typename Ops::Stored;

  TypedFollower(Mroute::Loop::EventLoop& loop, std::string_view mountPath, std::string_view name,
                const BrumeMapOptions& options, std::function<std::string(const Key&)> keyText)
      : map_(loop, mountPath, name, BrumeType::shadow, options), keyText_(std::move(keyText)) {}

  bool ready() const override { return map_.ready(); }
  void onReadyIs(std::function<void(bool)> cb) override { map_.onReadyIs(std::move(cb)); }
  void onChangeIs(Changed cb) override {
    if (!cb) {
      map_.onChangeIs(nullptr);
      return;
    }
    map_.onChangeIs([this, cb = std::move(cb)](const Key& k) {
      const std::optional<Stored> now = map_.lookup(k);
      if (!now) {
        cb(keyText_(k), nullptr);
        return;
      }
      const ValueBytes bytes = bytesOf(*now);
      cb(keyText_(k), &bytes);
    });
  }
  std::vector<ValueBytes> entries() override {
    std::vector<ValueBytes> out;
    map_.forEach([&out](const Stored& s) { out.push_back(bytesOf(s)); });
    return out;
  }
  const std::string& tablePath() const override { return map_.tablePath(); }

 private:
  BrumeMap<Key, Stored, Ops> map_;
  std::function<std::string(const Key&)> keyText_;
};

}  // namespace Brume::Survey
