// A table_bench peer: one structure measured beside ours. The driver calls
// its phases in a fixed order (insertAll, update passes, startReading, lookup
// passes, iteration passes, scaling, removeAll) and times the passes itself,
// a pass of every peer in turn, so that a slow spell of the machine falls on
// the same pass of every peer; before a peer's timed pass k it replays the
// peer's pass k-1 untimed (table_bench.cc, interleave). A peer takes part
// only in the figures it has.
#pragma once

#include <cstdint>
#include <memory>

#include "table_bench_shape.h"

namespace TableBench {

// The figures timed in passes.
enum Figure : unsigned { kUpdate = 1, kLookup = 2, kIterate = 4 };

// Figures taken once per run; -1 where a peer has none.
struct OneShot {
  double insert = -1, remove = -1;
  double bytesPerEntry = -1;  // memory in use with every entry present
  // Reader scaling: lookups/s of all readers, and the writer's updates/s.
  double lookups1 = -1, lookups2 = -1, writes1 = -1, writes2 = -1;
};

class Peer {
 public:
  Peer(const char* name, const Run& run, unsigned figures) : name_(name), run_(run), figures_(figures) {}
  virtual ~Peer() { gSink = sum_; }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  const char* name() const { return name_; }
  bool has(Figure f) const { return (figures_ & f) != 0; }
  const OneShot& oneShot() const { return shot_; }
  void leave(unsigned figures) { figures_ &= ~figures; }
  // Set while the driver replays a peer's previous pass untimed, so that its
  // timed pass finds the caches as the peer's own loop would leave them.
  void setReplaying(bool replaying) { replaying_ = replaying; }

  // Fills the structure (timed where it is an insert); false: the peer cannot
  // run and leaves.
  virtual bool insertAll() = 0;
  // Updates in place the entries [begin, end) of the run's update order.
  virtual void updates(const uint32_t* /*begin*/, const uint32_t* /*end*/) {}
  // Opens what lookups need and reads every entry once, untimed: lookups are
  // timed warm. False: the peer leaves the lookup and iteration figures.
  virtual bool startReading() { return true; }
  // Looks up the keys [begin, end) of the run's lookup order, copying each value.
  virtual void lookups(const uint32_t* /*begin*/, const uint32_t* /*end*/) {}
  // One whole iteration, copying each value; the entries visited.
  virtual uint64_t iteratePass() { return 0; }
  virtual void scaling() {}
  virtual void removeAll() {}

 protected:
  const char* const name_;
  const Run& run_;
  unsigned figures_;
  bool replaying_ = false;
  OneShot shot_;
  // What the loops read, kept so that no loop's work can be dropped.
  uint64_t sum_ = 0;
  uint64_t version_ = 2;  // the next update's version (inserts write 1)
};

// Each returns nullptr when the peer was built without its library.
std::unique_ptr<Peer> makeOurs(const Run& run);
std::unique_ptr<Peer> makeStd(const Run& run);
std::unique_ptr<Peer> makeBoost(const Run& run);
std::unique_ptr<Peer> makeLmdb(const Run& run);
// Two dependent random loads per lookup, alone or with the value copied.
std::unique_ptr<Peer> makeFloor(const Run& run, bool withCopy);
// The bare chained table on our chains: lookups and iteration.
std::unique_ptr<Peer> makeBareChained(const Run& run);
// The bare chained table's in-place update, with or without a notification.
std::unique_ptr<Peer> makeBareUpdate(const Run& run, bool notify);

}  // namespace TableBench
