#include "mroute/runtime/brevet.h"

#include <cstring>
#include <ctime>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "mroute/runtime/assert.h"

namespace Mroute {

// Payload as atomic words so that a reader racing the writer copies torn
// data (which it then discards by invariant 3) instead of racing.
struct Brevet::Slot {
  static constexpr size_t kTextWords = BrevetRecord::kTextBytes / 8;
  std::atomic<uint64_t> seq{0};  // 0 = never written
  std::atomic<uint64_t> timeNs{0};
  std::atomic<const BrevetEvent*> event{nullptr};
  std::atomic<uint64_t> args[BrevetRecord::kArgs] = {};
  std::atomic<uint64_t> text[kTextWords] = {};
  std::atomic<uint64_t> textLen{0};
};

static_assert(BrevetRecord::kTextBytes % 8 == 0);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<const BrevetEvent*>::is_always_lock_free);

Brevet::Brevet(std::string name, size_t capacity, Clock clock)
    : name_(std::move(name)), mask_(capacity - 1), clock_(clock) {
  MROUTE_ASSERT(capacity > 0 && (capacity & (capacity - 1)) == 0);
  slots_ = std::make_unique<Slot[]>(capacity);
}

Brevet::~Brevet() = default;

void Brevet::record(const BrevetEvent& event, std::string_view text, uint64_t a0, uint64_t a1, uint64_t a2,
                    uint64_t a3) {
  uint64_t n = next_++;
  Slot& s = slots_[n & mask_];
  s.seq.store(2 * n + 1, std::memory_order_relaxed);  // 1.
  s.timeNs.store(clock_(), std::memory_order_release);
  s.event.store(&event, std::memory_order_release);
  const uint64_t args[BrevetRecord::kArgs] = {a0, a1, a2, a3};
  for (size_t i = 0; i < BrevetRecord::kArgs; ++i) s.args[i].store(args[i], std::memory_order_release);
  size_t len = std::min(text.size(), BrevetRecord::kTextBytes);
  uint64_t words[Slot::kTextWords] = {};
  if (len > 0) std::memcpy(words, text.data(), len);  // an empty view may have a null data()
  for (size_t i = 0; i < Slot::kTextWords; ++i) s.text[i].store(words[i], std::memory_order_release);
  s.textLen.store(len, std::memory_order_release);
  s.seq.store(2 * n + 2, std::memory_order_release);  // 2.
  written_.store(n + 1, std::memory_order_release);   // 4.
}

bool Brevet::copySlot(const Slot& s, BrevetRecord& out) const {
  uint64_t before = s.seq.load(std::memory_order_acquire);  // 3.
  if (before == 0 || (before & 1)) return false;
  out.seqNo = before / 2 - 1;
  out.timeNs = s.timeNs.load(std::memory_order_acquire);
  out.event = s.event.load(std::memory_order_acquire);
  for (size_t i = 0; i < BrevetRecord::kArgs; ++i) out.args[i] = s.args[i].load(std::memory_order_acquire);
  uint64_t words[Slot::kTextWords];
  for (size_t i = 0; i < Slot::kTextWords; ++i) words[i] = s.text[i].load(std::memory_order_acquire);
  std::memcpy(out.text, words, sizeof out.text);
  out.textLen = static_cast<uint8_t>(
      std::min<uint64_t>(s.textLen.load(std::memory_order_acquire), BrevetRecord::kTextBytes));
  return s.seq.load(std::memory_order_relaxed) == before;  // 3.
}

std::vector<BrevetRecord> Brevet::snapshot() const {
  uint64_t end = written();
  uint64_t begin = end > capacity() ? end - capacity() : 0;
  std::vector<BrevetRecord> out;
  out.reserve(end - begin);
  for (uint64_t n = begin; n < end; ++n) {
    BrevetRecord r;
    // A record overwritten meanwhile belongs to a later number: leave it out.
    if (copySlot(slots_[n & mask_], r) && r.seqNo == n) out.push_back(r);
  }
  return out;
}

void formatBrevetDefault(std::ostream& os, const BrevetRecord& r) {
  os << (r.event ? r.event->name : "?");
  if (r.textLen) os << ' ' << r.textView();
  for (uint64_t a : r.args) {
    if (a) os << ' ' << a;
  }
}

void Brevet::dump(std::ostream& os) const {
  for (const BrevetRecord& r : snapshot()) {
    time_t secs = static_cast<time_t>(r.timeNs / 1'000'000'000);
    tm t{};
    gmtime_r(&secs, &t);
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &t);
    os << when << '.' << std::setw(6) << std::setfill('0') << (r.timeNs % 1'000'000'000) / 1000
       << std::setfill(' ') << ' ' << name_ << " #" << r.seqNo << ' ';
    if (r.event && r.event->format) {
      r.event->format(os, r);
    } else {
      formatBrevetDefault(os, r);
    }
    os << '\n';
  }
}

std::string Brevet::dumpText() const {
  std::ostringstream os;
  dump(os);
  return os.str();
}

Brevet& Brevet::process() {
  static Brevet ring("Mroute", 4096);
  return ring;
}

uint64_t Brevet::realtimeNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t Brevet::fromDouble(double d) {
  uint64_t a;
  std::memcpy(&a, &d, sizeof a);
  return a;
}

double Brevet::toDouble(uint64_t a) {
  double d;
  std::memcpy(&d, &a, sizeof d);
  return d;
}

}  // namespace Mroute
