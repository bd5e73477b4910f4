// table_bench's own peer: BrumeWriter and a BrumeReader in this process (a
// second mapping of the same files), notifications posted on every write.
#include <cstdio>
#include <filesystem>
#include <optional>
#include <tuple>

#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/value_wrapper.h"
#include "table_bench_peer.h"

namespace TableBench {
namespace {

using Stored = KivBrume::KivBrumeMapValueWrapper<Value, Key, &Value::key>;
using Ops = Brume::DefaultOps<Key, Stored>;
static_assert(sizeof(Stored) + 16 == 184);

// Functions of their own, so that a run under callgrind can count the
// instructions of the timed lookups and of the timed iterations (inclusive
// cost summed over the passes, divided by lookups or entries): the reader's
// fast paths are inlined.
[[gnu::noinline]] uint64_t lookupOurs(Brume::BrumeReader<Ops>& r, const uint32_t* begin,
                                      const uint32_t* end) {
  Stored out;
  uint64_t sum = 0;
  for (const uint32_t* i = begin; i != end; ++i) {
    if (r.lookup(makeKey(*i), out)) sum += out.value.payload[3];
  }
  return sum;
}
[[gnu::noinline]] uint64_t iterateOurs(Brume::BrumeReader<Ops>& r, uint64_t* sum) {
  uint64_t count = 0;
  r.forEach([&](const Stored& e) {
    *sum += e.value.payload[0];
    ++count;
  });
  return count;
}

class Ours final : public Peer {
 public:
  explicit Ours(const Run& run) : Peer("ours", run, kUpdate | kLookup | kIterate), dir_(benchDir("ours")) {}
  ~Ours() override {
    if (attached_) writer_->cleanup();
    reader_.reset();
    writer_.reset();
    std::filesystem::remove_all(dir_);
  }

  bool insertAll() override {
    Brume::TableConfig c;
    c.name = "bench";
    c.initialSize = run_.n;
    c.maxSize = run_.n;
    auto& w = writer_.emplace(Mem::RootPath(dir_), c);
    if (!w.attach()) {
      std::fprintf(stderr, "ours: attach failed\n");
      return false;
    }
    attached_ = true;
    w.conquer()->updateNumReaders(0);  // no reader connected: prune what fills
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) w.write(Stored(makeValue(i, 1)));
    shot_.insert = nsSince(t, run_.n);
    shot_.bytesPerEntry = dirBytes(dir_) / run_.n;
    return true;
  }

  void updates(const uint32_t* begin, const uint32_t* end) override {
    auto& w = *writer_;
    uint64_t version = version_;
    for (const uint32_t* i = begin; i != end; ++i) w.write(Stored(makeValue(*i, version++)));
    version_ = version;
  }

  bool startReading() override {
    auto& r = reader_.emplace(Mem::RootPath(dir_));
    if (!r.initialize()) {
      std::fprintf(stderr, "ours: reader initialize failed\n");
      return false;
    }
    Stored out;
    uint64_t sum = 0;
    // A long-lived reader has every page of its mapping faulted in.
    for (uint32_t i = 0; i < run_.n; ++i) sum += r.lookup(makeKey(i), out);
    sum_ += sum;
    return true;
  }

  // A replayed pass runs outside lookupOurs and iterateOurs, which count the
  // timed operations alone.
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    if (!replaying_) {
      sum_ += lookupOurs(*reader_, begin, end);
      return;
    }
    Stored out;
    uint64_t sum = 0;
    for (const uint32_t* i = begin; i != end; ++i) {
      if (reader_->lookup(makeKey(*i), out)) sum += out.value.payload[3];
    }
    sum_ += sum;
  }

  uint64_t iteratePass() override {
    uint64_t sum = 0, count = 0;
    if (!replaying_) {
      count = iterateOurs(*reader_, &sum);
    } else {
      reader_->forEach([&](const Stored& e) {
        sum += e.value.payload[0];
        ++count;
      });
    }
    sum_ += sum;
    return count;
  }

  void scaling() override {
    auto& w = *writer_;
    auto readerLoop = [&](ScalingShared& sh) -> uint64_t {
      Brume::BrumeReader<Ops> pr{Mem::RootPath(dir_)};
      if (!pr.initialize()) return 0;
      Stored o;
      uint64_t s = 0;
      const uint64_t n = readUntilStopped(sh, run_, [&](uint32_t i) {
        if (pr.lookup(makeKey(i), o)) s += o.value.payload[3];
      });
      gSink = s;
      return n;
    };
    auto writeOne = [&](uint64_t k) {
      w.write(Stored(makeValue(run_.updateOrder[k % run_.updates], version_++)));
    };
    std::tie(shot_.lookups1, shot_.writes1) = TableBench::scaling(1, readerLoop, writeOne);
    std::tie(shot_.lookups2, shot_.writes2) = TableBench::scaling(2, readerLoop, writeOne);
  }

  void removeAll() override {
    auto& w = *writer_;
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) w.remove(makeKey(i));
    shot_.remove = nsSince(t, run_.n);
  }

 private:
  const std::string dir_;
  std::optional<Brume::BrumeWriter<Ops>> writer_;
  std::optional<Brume::BrumeReader<Ops>> reader_;
  bool attached_ = false;
};

}  // namespace

std::unique_ptr<Peer> makeOurs(const Run& run) { return std::make_unique<Ours>(run); }

}  // namespace TableBench
