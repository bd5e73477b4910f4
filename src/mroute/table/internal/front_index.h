// FrontIndex: what a reader-side table front knows locally about the table:
// which key each slot held when it was last read, the slot of each key and,
// for a shadow, a copy of each entry.
//
// A notification names a slot, not a key. Reading the slot gives its new
// entry; the key it held before comes from here, so a removal (the slot is
// free now) or a reuse (another key) is reported for the key that left. A key
// is reported removed only when it was last seen in that very slot: an entry
// that a shrink moved to a lower slot stays known under its new slot.
//
// Thread-safety: single-threaded (the front's event loop).
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mroute/table/engine/brume_ops.h"

namespace Brume {

template <TableOps Ops>
class FrontIndex {
 public:
  using Key = typename Ops::Key;
  using Stored = typename Ops::Stored;
  // A key that changed (added, updated or removed).
  using Changed = std::function<void(const Key&)>;

  explicit FrontIndex(bool keepValues) : keepValues_(keepValues) {}

  // Slot `slot` now holds `now` (null: it is free).
  void apply(uint32_t slot, const Stored* now, const Changed& changed) {
    std::optional<Key> old;
    if (slot < slotKeys_.size()) old = slotKeys_[slot];
    if (now != nullptr) {
      const Key key = Ops::keyOf(*now);
      if (old && !Ops::equal(*old, key)) leave(*old, slot, changed);
      if (slot >= slotKeys_.size()) slotKeys_.resize(slot + 1);
      slotKeys_[slot] = key;
      keySlots_[key] = slot;
      if (keepValues_) values_.insert_or_assign(key, *now);
      if (changed) changed(key);
    } else if (old) {
      slotKeys_[slot].reset();
      leave(*old, slot, changed);
    }
  }

  // Replaces everything with a full read of the table, given as
  // (slot, entry) pairs, and reports what differs: keys that left, keys that
  // came, and (when values are kept) keys whose entry changed. Without
  // values every present key is reported, since a change cannot be told.
  void rebuild(const std::vector<std::pair<uint32_t, Stored>>& entries, const Changed& changed) {
    FrontIndex next(keepValues_);
    for (const auto& [slot, v] : entries) next.apply(slot, &v, nullptr);
    std::vector<Key> report;
    for (const auto& [key, slot] : keySlots_) {
      if (next.keySlots_.find(key) == next.keySlots_.end()) report.push_back(key);
    }
    for (const auto& [key, slot] : next.keySlots_) {
      if (!keepValues_) {
        report.push_back(key);
        continue;
      }
      const auto before = values_.find(key);
      const Stored& after = next.values_.at(key);
      if (before == values_.end() || std::memcmp(&before->second, &after, sizeof(Stored)) != 0) {
        report.push_back(key);
      }
    }
    *this = std::move(next);
    if (changed) {
      for (const Key& k : report) changed(k);
    }
  }

  bool contains(const Key& key) const { return keySlots_.find(key) != keySlots_.end(); }
  const Stored* value(const Key& key) const {
    const auto it = values_.find(key);
    return it == values_.end() ? nullptr : &it->second;
  }
  size_t size() const { return keySlots_.size(); }
  bool keepsValues() const { return keepValues_; }

  template <typename F>
  void forEachKey(F&& f) const {
    for (const auto& [key, slot] : keySlots_) f(key);
  }
  template <typename F>
  void forEachValue(F&& f) const {
    for (const auto& [key, v] : values_) f(v);
  }

 private:
  struct Hash {
    size_t operator()(const Key& k) const { return Ops::hash(k); }
  };
  struct Equal {
    bool operator()(const Key& a, const Key& b) const { return Ops::equal(a, b); }
  };

  // `key` is no longer in `slot`; it is gone unless it lives elsewhere now.
  void leave(const Key& key, uint32_t slot, const Changed& changed) {
    const auto it = keySlots_.find(key);
    if (it == keySlots_.end() || it->second != slot) return;
    keySlots_.erase(it);
    values_.erase(key);
    if (changed) changed(key);
  }

  bool keepValues_;
  std::vector<std::optional<Key>> slotKeys_;
  std::unordered_map<Key, uint32_t, Hash, Equal> keySlots_;
  std::unordered_map<Key, Stored, Hash, Equal> values_;
};

}  // namespace Brume
