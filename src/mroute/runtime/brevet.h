// Brevet: a ring-buffer trace of per-event records.
//
// Hot paths (one record per kernel upcall, say) cannot afford formatting a
// trace line. A Brevet keeps the last `capacity` events as small fixed
// records - a timestamp, the event kind, four numeric arguments and a short
// text - and formats them only when the ring is dumped. An event kind is a
// static BrevetEvent whose optional formatter turns the record into text
// ("NoCacheMessage on intf:Ethernet1 for src: 10.0.0.1 and grp: 239.1.1.1").
//
// Thread-safety: one writer at a time (the agent's event loop), without locks.
// Readers (snapshot(), dump()) may run on any thread concurrently with the
// writer; they never block it and skip a record the writer is rewriting.
//
// Ordering invariants, per slot (no fences: every payload word is itself a
// release store / acquire load, which costs nothing more than a plain move
// on x86 and keeps ThreadSanitizer able to check the protocol):
//   1. The writer stores the slot's sequence word as 2*n+1 (odd: being
//      written) before it touches the payload of record number n; each
//      payload store is a release, so a reader that loads any new payload
//      word also sees the odd sequence word.
//   2. The writer stores 2*n+2 with release order after the payload.
//   3. A reader loads the sequence word (acquire), then every payload word
//      (acquire, so the re-check below cannot move before them), then the
//      sequence word again; the copy is valid only when both loads saw the
//      same even value.
//   4. `written_` (records ever written) is stored with release order after
//      the record's sequence word, so a reader that sees n records finds each
//      of the last `capacity` of them published or being overwritten.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Mroute {

struct BrevetRecord;

// An event kind. Define each one once with static storage duration: records
// keep a pointer to it.
struct BrevetEvent {
  using Format = void (*)(std::ostream& os, const BrevetRecord& record);
  uint32_t code;
  const char* name;
  // Writes the record's text; null writes the name, the text and the
  // arguments.
  Format format = nullptr;
};

// One record as a reader sees it.
struct BrevetRecord {
  static constexpr size_t kArgs = 4;
  static constexpr size_t kTextBytes = 40;

  uint64_t seqNo = 0;  // 0 for the first event ever written
  uint64_t timeNs = 0;
  const BrevetEvent* event = nullptr;
  uint64_t args[kArgs] = {};
  char text[kTextBytes] = {};
  uint8_t textLen = 0;

  std::string_view textView() const { return {text, textLen}; }
};

class Brevet {
 public:
  using Clock = uint64_t (*)();  // nanoseconds since the epoch

  // REQUIRES: capacity is a power of two.
  explicit Brevet(std::string name, size_t capacity = 4096, Clock clock = realtimeNs);
  ~Brevet();
  Brevet(const Brevet&) = delete;
  Brevet& operator=(const Brevet&) = delete;

  // Appends one record, overwriting the oldest when full. `text` longer than
  // BrevetRecord::kTextBytes is cut. Writer only.
  void record(const BrevetEvent& event, std::string_view text = {}, uint64_t a0 = 0, uint64_t a1 = 0,
              uint64_t a2 = 0, uint64_t a3 = 0);

  // The records still in the ring, oldest first; records overwritten while
  // being copied are left out.
  std::vector<BrevetRecord> snapshot() const;
  // One line per record of snapshot():
  //   "<UTC time with microseconds> <name> #<seqNo> <formatted event>"
  void dump(std::ostream& os) const;
  std::string dumpText() const;

  const std::string& name() const { return name_; }
  size_t capacity() const { return mask_ + 1; }
  // Records ever written (acquire: see invariant 4).
  uint64_t written() const { return written_.load(std::memory_order_acquire); }

  // The ring shared by the agent's components, 4096 records.
  static Brevet& process();
  static uint64_t realtimeNs();

  // Packs a double into an argument and back (e.g. seconds of a pass).
  static uint64_t fromDouble(double d);
  static double toDouble(uint64_t a);

 private:
  struct Slot;
  bool copySlot(const Slot& slot, BrevetRecord& out) const;

  std::string name_;
  size_t mask_;
  Clock clock_;
  std::unique_ptr<Slot[]> slots_;
  uint64_t next_ = 0;  // writer only
  std::atomic<uint64_t> written_{0};
};

// Writes the default form of a record: the event name, the text, the
// arguments that are not zero.
void formatBrevetDefault(std::ostream& os, const BrevetRecord& record);

}  // namespace Mroute
