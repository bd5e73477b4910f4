// KivBrume::KivBrumeMap<K, V>: an entity collection whose storage is a
// shared-memory table, reached through the table front (Brume::BrumeMap).
// V is a trivially copyable record that carries its own key (V::key()); a
// table slot is the record itself.
//
// The collection is created with its table name and initial capacity and is
// mounted by path later (mount()); until then it reads as empty and writing
// is a programming error. Entity members (table_collection.h) add the
// notification; this class only stores, and counts the delete calls and the
// direct commits of its owner.
//
// Corruption met while writing is handed to the table's corruption handler
// (onCorruptionIs; by default an error trace on "Mroute::Brume"): the owner
// decides whether to re-format, and the caller goes on as if the write had
// been made.
//
// Iteration walks a copy of the entries taken by begin(): the table may
// change under it (other processes read it, the owner may delete while
// walking), and the walk sees the table as it was.
//
// Thread-safety: the event loop given to mount(), like the front.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/brume_map.h"
#include "mroute/table/brume_type.h"
#include "mroute/table/engine/value_wrapper.h"
#include "mroute/table/survey/value_codec.h"

namespace KivBrume {

template <class K, class V>
class KivBrumeMap {
  static_assert(std::is_trivially_copyable_v<V>, "a table stores records byte for byte");

 public:
  using key_type = K;
  using mapped_type = V;
  using Stored = KivBrumeMapValueWrapper<V, K, &V::key>;
  using Front = Brume::BrumeMap<K, Stored>;
  using Changed = std::function<void(const K&)>;
  using Ready = std::function<void()>;
  using Corruption = std::function<void(const std::string& what)>;
  using MountWatch = std::function<void()>;

  class const_iterator {
   public:
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    const_iterator() = default;
    const V& operator*() const { return (*entries_)[index_]; }
    const V* operator->() const { return &(*entries_)[index_]; }
    const_iterator& operator++() {
      ++index_;
      return *this;
    }
    bool atEnd() const { return entries_ == nullptr || index_ >= entries_->size(); }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      if (a.atEnd() || b.atEnd()) return a.atEnd() == b.atEnd();
      return a.entries_ == b.entries_ && a.index_ == b.index_;
    }

   private:
    friend class KivBrumeMap;
    explicit const_iterator(std::shared_ptr<const std::vector<V>> entries) : entries_(std::move(entries)) {}
    std::shared_ptr<const std::vector<V>> entries_;
    size_t index_ = 0;
  };

  // Naming the registration makes every table type of the system known to
  // the table survey (mroutectl dumps, looks up and follows it by type).
  KivBrumeMap(std::string name, uint32_t capacity) : name_(std::move(name)), capacity_(capacity) {
    (void)Brume::Survey::kStoredTypeRegistered<Stored>;
  }
  KivBrumeMap(const KivBrumeMap&) = delete;
  KivBrumeMap& operator=(const KivBrumeMap&) = delete;

  const std::string& name() const { return name_; }
  uint32_t capacity() const { return capacity_; }
  bool mounted() const { return front_ != nullptr; }
  Front* front() const { return front_.get(); }

  // Opens table name() under mountPath as `type` (a writer creates it with
  // capacity() slots). A reader kind reports each changed key to `changed`
  // and its readiness to `ready`. Mounting again first unmounts.
  void mount(Mroute::Loop::EventLoop& loop, std::string_view mountPath, Brume::BrumeType type, Changed changed,
             Ready ready) {
    drop();
    Brume::BrumeMapOptions options;
    options.table.initialSize = capacity_;
    front_ = std::make_unique<Front>(loop, mountPath, name_, type, options);
    if (type != Brume::BrumeType::writer) {
      front_->onChangeIs(std::move(changed));
      front_->onReadyIs([ready](bool on) {
        if (on && ready) ready();
      });
      // A table that is there already attaches while the front is built.
      if (front_->ready() && ready) ready();
    }
    mountChanged();
  }
  void unmount() {
    if (!front_) return;
    drop();
    mountChanged();
  }
  // Told after every mount and unmount, one watcher a token (an adapter that
  // replicates the mount path); a null `f` removes the token's watcher.
  void mountWatchIs(const void* token, MountWatch f) {
    std::erase_if(mountWatches_, [token](const auto& w) { return w.first == token; });
    if (f) mountWatches_.emplace_back(token, std::move(f));
  }

  std::optional<V> find(const K& k) const {
    if (!front_) return std::nullopt;
    std::optional<Stored> s = front_->lookup(k);
    return s ? std::optional<V>(s->value) : std::nullopt;
  }
  // The record under k, or V() when there is none.
  V lookup(const K& k) const { return find(k).value_or(V()); }
  uint32_t size() const { return front_ ? front_->members() : 0; }
  bool empty() const { return size() == 0; }

  const_iterator begin() const {
    auto entries = std::make_shared<std::vector<V>>();
    if (front_) front_->forEach([&](const Stored& s) { entries->push_back(s.value); });
    return const_iterator(std::move(entries));
  }
  const_iterator end() const { return const_iterator(); }

  // Writer only. Stores v under v.key(); Brume::TableFullException when no
  // slot can be had.
  void write(const V& v) { requireMounted()->write(Stored(v)); }
  // Removes the record under k and returns it; nullopt when there was none.
  std::optional<V> remove(const K& k) {
    std::optional<V> old = find(k);
    if (old) requireMounted()->remove(k);
    return old;
  }

  // Direct mode: the record under k (a default record with k's slot when
  // new) to change in place; directCommit() publishes it.
  V* directWrite(const K& k) {
    Stored* s = requireMounted()->writer()->directWrite(k);
    direct_ = true;
    return &s->value;
  }
  // REQUIRES: a slot opened by directWrite (asserted:
  // "BrumeMap::directCommit() in no man's land").
  void directCommit() {
    if (!direct_ || !front_) Mroute::assertFailed("BrumeMap::directCommit() in no man's land", __FILE__, __LINE__);
    direct_ = false;
    ++commitCount_;
    try {
      front_->writer()->directCommit();
    } catch (const Pavo::CorruptionDetectedException& e) {
      corruptionFound(e.what());
    }
  }

  void onCorruptionIs(Corruption handler) { onCorruption_ = std::move(handler); }

  // Every delete call, whether or not a record was there, and every commit.
  uint64_t delCount() const { return delCount_; }
  uint64_t commitCount() const { return commitCount_; }
  void delCounted() { ++delCount_; }

 private:
  Front* requireMounted() const {
    MROUTE_ASSERT(front_ != nullptr && "table not mounted");
    return front_.get();
  }

  void corruptionFound(const std::string& what) {
    if (onCorruption_) {
      onCorruption_(what);
      return;
    }
    static Mroute::Trace::Facility& fac = Mroute::Trace::facility("Mroute::Brume");
    MROUTE_TRACE(fac, 1, "KivBrumeMap " << name_ << " corruption: " << what);
  }

  void drop() {
    direct_ = false;
    front_.reset();
  }
  void mountChanged() {
    // A copy: a watcher may remove itself or another.
    const auto watches = mountWatches_;
    for (const auto& [token, f] : watches) f();
  }

  std::string name_;
  uint32_t capacity_;
  std::unique_ptr<Front> front_;
  std::vector<std::pair<const void*, MountWatch>> mountWatches_;
  bool direct_ = false;
  uint64_t delCount_ = 0;
  uint64_t commitCount_ = 0;
  Corruption onCorruption_;
};

}  // namespace KivBrume
