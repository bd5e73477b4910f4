// Brume::BrumeMap<K, V, Ops>: the table front every owner of a shared table
// uses. V is the stored value, which carries its key (usually a
// KivBrume::KivBrumeMapValueWrapper); Ops is the operations bundle
// (brume_ops.h).
//
//   Mroute::Loop::EventLoop loop;
//   Brume::BrumeMap<Key, Value> routes(loop, "routing/multicast/fib", "route", Brume::BrumeType::shadow);
//   routes.onChangeIs([&](const Key& k) { ... routes.lookup(k) ... });
//   loop.run();
//
// The table's files lie in <shared-memory root>/<mount path>/<name>/
// (shm_root.h: MROUTE_SHM_ROOT, "Q9_CHROOT"). Kinds (BrumeType):
//   writer     the one writer: write(), remove(), cleanup(); ready once
//              attached. It wakes readers and learns their acknowledgements
//              through its event loop, which must therefore run.
//   reader     lookups go to the shared files, without locks.
//   shadow     keeps a local copy of every entry; lookups and iteration are
//              served from it (also while the writer is away).
//   keyshadow  keeps a local copy of the keys only; lookups go to the files.
// Reader kinds call the change callback, on the event loop, once for each
// key that was added, updated or removed, in the order the writer made the
// changes (several changes of one key between two walks are reported once).
// When a reader kind (re)attaches or has missed notifications it re-reads the
// whole table: a shadow then reports the keys whose entries differ from its
// copy; a reader or key shadow, which cannot tell, reports every key present
// and every key that left. A writer front does not call back (its owner made
// the change).
//
// Readiness: ready() and the ready callback say when a reader kind is fully
// attached (a writer: attached); a reader kind that loses its writer's files
// re-attaches by itself (reader_mounter.h).
//
// Thread-safety: single-threaded, on the event loop given at construction.
#pragma once

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/table/brume_map_base.h"
#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/queue/conquer_reader.h"
#include "mroute/table/internal/front_index.h"

namespace Brume {

template <typename K, typename V, typename Ops = DefaultOps<K, V>>
class BrumeMap : public BrumeMapBase {
  static_assert(std::is_same_v<typename Ops::Key, K> && std::is_same_v<typename Ops::Stored, V>,
                "the operations bundle is for this key and value");

 public:
  using Key = K;
  using Value = V;
  using ChangeCallback = std::function<void(const K&)>;

  // Opens (writer: attaches, creating the files when missing) the table
  // `name` under `mountPath`. Throws Pavo::InvalidInitializeException for a
  // path or name that would leave the shared-memory root.
  BrumeMap(Mroute::Loop::EventLoop& loop, std::string_view mountPath, std::string_view name, BrumeType type,
           const BrumeMapOptions& options = {})
      : BrumeMapBase(loop, mountPath, name, type, options), index_(type == BrumeType::shadow) {
    if (type == BrumeType::writer) {
      TableConfig config = this->options().table;
      // The slot file names the value type, for the tools.
      if constexpr (requires { V::ValueType::kTypeName; }) {
        if (config.valueType == TableConfig{}.valueType) config.valueType = std::string(V::ValueType::kTypeName);
      }
      writer_.emplace(root(), config);
    } else {
      reader_.emplace(root());
      queue_.emplace(root().dir());
      queue_->ackIs([this](uint64_t, uint64_t seq) { ack(seq); });
    }
    mount();
  }
  ~BrumeMap() override { unmount(); }

  void onChangeIs(ChangeCallback cb) { onChange_ = std::move(cb); }

  // The entry stored under key: from the local copy of a shadow, from the
  // files otherwise.
  std::optional<V> lookup(const K& key) {
    if (mode() == BrumeType::writer) {
      const V* v = writer_->mountStatus() == MountStatus::attached ? writer_->lookup(key) : nullptr;
      return v != nullptr ? std::optional<V>(*v) : std::nullopt;
    }
    if (mode() == BrumeType::shadow) {
      const V* v = index_.value(key);
      return v != nullptr ? std::optional<V>(*v) : std::nullopt;
    }
    if (!reader_->attached()) return std::nullopt;
    try {
      return reader_->retryOnResize([&] { return reader_->lookup(key); });
    } catch (const Pavo::CorruptionDetectedException&) {
      corruptionFound();
      return std::nullopt;
    }
  }

  // Calls f(const V&) for each entry (a shadow: its copy; otherwise the
  // files, in bucket order).
  template <typename F>
  void forEach(F&& f) {
    if (mode() == BrumeType::shadow) {
      index_.forEachValue(f);
      return;
    }
    if (mode() == BrumeType::writer) {
      if (writer_->mountStatus() != MountStatus::attached) return;
      for (const V* v = writer_->first(); v != nullptr; v = writer_->next(Ops::keyOf(*v))) f(*v);
      return;
    }
    if (!reader_->attached()) return;
    try {
      reader_->forEach(f);
    } catch (const Pavo::CorruptionDetectedException&) {
      corruptionFound();
    }
  }
  // Calls f(const K&) for each key a shadow kind holds locally.
  template <typename F>
  void forEachKey(F&& f) const {
    index_.forEachKey(f);
  }
  bool containsKey(const K& key) const { return index_.contains(key); }

  // Entries: the local count of a shadow kind, the header's otherwise.
  uint32_t members() const {
    if (isShadowKind(mode())) return static_cast<uint32_t>(index_.size());
    if (mode() == BrumeType::writer) return writer_->members();
    return reader_->members();
  }
  uint32_t capacity() const { return mode() == BrumeType::writer ? writer_->capacity() : reader_->capacity(); }

  // Writer only. On a writer that is not attached they raise
  // Pavo::InvalidInitializeException with the reason (attachStatus()).
  const V* write(const V& v, bool update = true) {
    if (mode() != BrumeType::writer) throw Pavo::NoPermissionException("write to read-only Brume table");
    return writer_->write(v, update);
  }
  bool remove(const K& key) {
    if (mode() != BrumeType::writer) throw Pavo::NoPermissionException("remove to read-only Brume table");
    return writer_->remove(key);
  }
  // Removes the table's files (and the channel's socket) and unmounts.
  void cleanup() { cleanupBase(); }
  // The header checks of the files; validate() adds the deep check.
  bool validate(std::string* why = nullptr) override {
    if (mode() != BrumeType::writer) throw Pavo::NoPermissionException("validate to read-only Brume table");
    return writer_->validate(why);
  }
  bool validateFiles(std::string* why = nullptr) {
    if (mode() != BrumeType::writer) throw Pavo::NoPermissionException("validateFiles to read-only Brume table");
    return writer_->validateFiles(why);
  }
  // A writer front's reason for not being ready: held by another writer
  // (with its pid when known), no space, no permission, a bad root, or a
  // lock or take-over that failed before the files were tried.
  AttachStatus attachStatus() const { return writer_ ? writer_->attachStatus() : AttachStatus{}; }

  BrumeWriter<Ops>* writer() { return writer_ ? &*writer_ : nullptr; }
  BrumeReader<Ops>* reader() { return reader_ ? &*reader_ : nullptr; }
  ConquerReader* queue() { return queue_ ? &*queue_ : nullptr; }

 private:
  // The whole table, read slot by slot, after skipping the queue to its end
  // (every later change arrives by the queue).
  void rebuild() {
    queue_->resynchronize();
    std::vector<std::pair<uint32_t, V>> entries;
    const uint32_t n = reader_->capacity();
    entries.reserve(reader_->members());
    V v;
    for (uint32_t slot = 0; slot < n; ++slot) {
      if (reader_->safeValue(slot, v)) entries.emplace_back(slot, v);
    }
    index_.rebuild(entries, changedSink());
  }

  typename FrontIndex<Ops>::Changed changedSink() {
    return [this](const K& k) {
      if (onChange_ && notifying()) onChange_(k);
    };
  }

  uint32_t attachFiles() override {
    if (!reader_->initialize()) return 0;
    if (!queue_->initialize(reader_->emberId())) {
      reader_->detach();
      return 0;
    }
    try {
      rebuild();
    } catch (const Pavo::CorruptionDetectedException&) {
      detachFiles();
      return 0;
    }
    return reader_->emberId();
  }
  void detachFiles() override {
    queue_->detach();
    if (reader_->attached()) reader_->detach();
  }
  bool walk() override {
    try {
      const auto sink = changedSink();
      const ConquerReader::Walk w = queue_->conquer([&](uint32_t slot, uint64_t) {
        V v;
        const bool found = reader_->retryOnResize([&] { return reader_->safeValue(slot, v); });
        index_.apply(slot, found ? &v : nullptr, sink);
      });
      if (w == ConquerReader::Walk::resync) {
        rebuild();
        queue_->conquer([&](uint32_t slot, uint64_t) {
          V v;
          const bool found = reader_->retryOnResize([&] { return reader_->safeValue(slot, v); });
          index_.apply(slot, found ? &v : nullptr, sink);
        });
      }
      return true;
    } catch (const Pavo::CorruptionDetectedException&) {
      corruptionFound();
      return false;
    }
  }
  bool missed(uint64_t minSeq) override { return queue_->handleAck(minSeq); }
  void resync() override {
    try {
      rebuild();
    } catch (const Pavo::CorruptionDetectedException&) {
      corruptionFound();
    }
  }
  bool reattachQueue() override {
    queue_->detach();
    if (!queue_->initialize(reader_->emberId())) {
      corruptionFound();
      return false;
    }
    try {
      rebuild();
    } catch (const Pavo::CorruptionDetectedException&) {
      corruptionFound();
      return false;
    }
    return true;
  }
  uint64_t lastSequence() const override { return queue_->lastSequence(); }
  ReaderHealth readerHealth() const override {
    const ReaderCounters& c = reader_->readerCounters();
    return {c.restarts, c.lookasideReads, queue_->counters().resyncs};
  }

  bool writerAttach() override { return writer_->attach(); }
  void writerAttachRefused(const std::string& why) override { writer_->attachRefused(why); }
  void writerDetach() override {
    if (writer_->mountStatus() == MountStatus::attached) writer_->detach();
  }
  void writerCleanup() override { writer_->cleanup(); }
  uint32_t writerEmber() const override { return writer_->emberId(); }
  ConquerWriter* writerQueue() override { return writer_->conquer(); }
  bool writerValidate(std::string* why) override { return writer_->validate(why); }

  std::optional<BrumeWriter<Ops>> writer_;
  std::optional<BrumeReader<Ops>> reader_;
  std::optional<ConquerReader> queue_;
  FrontIndex<Ops> index_;
  ChangeCallback onChange_;
};

}  // namespace Brume
