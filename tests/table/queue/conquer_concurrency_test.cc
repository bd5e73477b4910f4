// One writer notifies, shrinks, prunes and compacts without pause while a
// reader in another process or thread (the ThreadSanitizer build runs the
// thread variant) walks the queue of a shared array of slot versions:
// sequences only rise, a slot's version never goes back, and once the writer
// stops the reader has seen every slot's last version. Acknowledgements come
// back over a pipe; now and then the writer drops the reader and prunes
// everything, so that it must resynchronise. Threads map each file at one
// address (OneMappingFs) so that ThreadSanitizer relates the writer's stores
// to the reader's loads. MROUTE_CONQUER_SECONDS=<n> runs longer by hand.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mroute/table/queue/conquer_reader.h"
#include "mroute/table/queue/conquer_writer.h"
#include "table/table_test_util.h"

namespace {

using Brume::ConquerReader;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kSlots = 512;
constexpr uint32_t kEmber = 0x5EED;
constexpr uint64_t kMinCompactions = 200;

struct Shared {
  uint64_t done;
  uint64_t finalSeq;
  uint64_t versions[kSlots];
};
struct AckMsg {
  uint64_t prev, seq;
};

uint64_t loadAcquire(const uint64_t& w) { return __atomic_load_n(&w, __ATOMIC_ACQUIRE); }

// Every mapping of a file is one read-write mapping at one address, reserved
// large enough for any size the test reaches.
class OneMappingFs : public Mem::SystemShmFs {
 public:
  static constexpr size_t kReserve = size_t{16} << 20;
  ~OneMappingFs() override {
    for (const auto& [ino, base] : maps_) SystemShmFs::munmap(base, kReserve);
  }
  void* mmap(size_t length, int, int fd) override {
    struct stat st {};
    if (length > kReserve || SystemShmFs::fstat(fd, &st) < 0) return errno = ENOMEM, MAP_FAILED;
    std::lock_guard<std::mutex> lock(mutex_);
    void*& base = maps_[st.st_ino];
    if (base == nullptr) base = SystemShmFs::mmap(kReserve, PROT_READ | PROT_WRITE, fd);
    return base;
  }
  void* mremap(void* old, size_t, size_t n) override { return n > kReserve ? (errno = ENOMEM, MAP_FAILED) : old; }
  int munmap(void*, size_t) override { return 0; }

 private:
  std::mutex mutex_;
  std::map<ino_t, void*> maps_;
};

// Walks until the writer is done and everything was seen. Returns "ok ..."
// with the reader's counters, or the first fault found.
std::string runReader(Mem::ShmFs& fs, const std::string& dir, int ackFd) {
  ConquerReader reader(dir, fs);
  Mem::ShmFile control(fs);
  if (!reader.initialize(kEmber) || !control.open(Mem::joinPath(dir, "control"), Mem::ShmAccess::readOnly) ||
      !control.map(sizeof(Shared))) {
    return "cannot attach";
  }
  const Shared& shared = *reinterpret_cast<const Shared*>(control.base());
  reader.ackIs([ackFd](uint64_t prev, uint64_t seq) {
    const AckMsg msg{prev, seq};
    if (write(ackFd, &msg, sizeof msg) != sizeof msg) std::abort();
  });
  std::vector<uint64_t> seen(kSlots, 0);
  uint64_t lastSeq = 0;
  std::ostringstream fault;
  const auto consumer = [&](uint32_t slot, uint64_t seq) {
    if (slot >= kSlots || seq <= lastSeq) {
      fault << "slot " << slot << " sequence " << seq << " after " << lastSeq << "; ";
      return;
    }
    lastSeq = seq;
    // The slot was written before it was notified (acquire of currentPos).
    const uint64_t v = loadAcquire(shared.versions[slot]);
    if (v == 0 || v < seen[slot]) fault << "slot " << slot << " version " << v << " after " << seen[slot] << "; ";
    seen[slot] = v;
  };
  Clock::time_point giveUp = Clock::time_point::max();
  try {
    for (;;) {
      const bool done = loadAcquire(shared.done) != 0;
      if (done && giveUp == Clock::time_point::max()) giveUp = Clock::now() + std::chrono::seconds(30);
      if (Clock::now() > giveUp) fault << "stuck at " << reader.lastSequence() << " of " << shared.finalSeq;
      const ConquerReader::Walk walk = reader.conquer(consumer);
      if (!fault.str().empty()) return fault.str();
      if (walk == ConquerReader::Walk::resync) {
        lastSeq = reader.resynchronize();
        for (uint32_t s = 0; s < kSlots; ++s) seen[s] = std::max(seen[s], loadAcquire(shared.versions[s]));
      } else if (done && reader.lastSequence() >= shared.finalSeq) {
        break;
      } else if (walk == ConquerReader::Walk::upToDate) {
        sched_yield();
      }
    }
  } catch (const std::exception& e) {
    return std::string("reader raised: ") + e.what();
  }
  for (uint32_t s = 0; s < kSlots; ++s) {
    if (seen[s] != shared.versions[s]) fault << "slot " << s << " saw " << seen[s] << " of " << shared.versions[s];
  }
  const auto& c = reader.counters();
  fault << (fault.str().empty() ? "ok " : "") << "reader: walks " << c.walks << " delivered " << c.delivered
        << " restarts " << c.restarts << " resyncs " << c.resyncs;
  return fault.str();
}

class ConquerConcurrencyTest : public TableTest::ShmDirTest {
 protected:
  void start(Mem::ShmFs& fs) {
    control_ = Mem::ShmFile(fs);
    bool created;
    ASSERT_TRUE(control_.openOrCreate(Mem::joinPath(dir_, "control"), &created));
    ASSERT_TRUE(control_.truncate(sizeof(Shared)) && control_.map(sizeof(Shared)));
    shared_ = reinterpret_cast<Shared*>(control_.base());
    writer_ = std::make_unique<Brume::ConquerWriter>(dir_, Brume::ConquerConfig{}, fs);
    ASSERT_TRUE(writer_->attachConquer(kSlots, kEmber));
    ASSERT_EQ(pipe(ack_), 0);
    ASSERT_EQ(fcntl(ack_[0], F_SETFL, O_NONBLOCK), 0);
  }
  void TearDown() override {
    writer_.reset();
    control_.close();
    close(ack_[0]);
    close(ack_[1]);
    ShmDirTest::TearDown();
  }

  void drainAcks() {
    AckMsg msg;
    while (read(ack_[0], &msg, sizeof msg) == sizeof msg) {
      writer_->updateSequence(msg.prev, msg.seq);
      lastAck_ = msg.seq;
    }
  }
  void change(uint32_t slot) {
    __atomic_store_n(&shared_->versions[slot], shared_->versions[slot] + 1, __ATOMIC_RELAXED);
    writer_->notify(slot);  // its release store of currentPos publishes the version too
  }
  void runWriter() {
    const char* env = std::getenv("MROUTE_CONQUER_SECONDS");
    const auto end = Clock::now() + std::chrono::duration<double>(env != nullptr ? std::atof(env) : 1.0);
    std::mt19937 rng(42);
    writer_->updateNumReaders(1);
    for (uint64_t i = 1; i % 1024 != 0 || Clock::now() < end || writer_->counters().compactions < kMinCompactions;
         ++i) {
      change(rng() % kSlots);
      if (i % 64 == 0) drainAcks();
      if (i % 4096 == 0) {  // a shrink: its notifications form a corral
        writer_->markShrinkStart();
        for (int k = 0; k < 16; ++k) change(rng() % kSlots);
        writer_->markShrinkEnd();
      }
      if (i % 50000 == 0) {  // the reader is presumed gone: prune everything
        writer_->readerGone(lastAck_);
        writer_->updateNumReaders(0);
        writer_->compact(writer_->prune());
        writer_->updateNumReaders(1);
      }
    }
    shared_->finalSeq = writer_->sequence();
    __atomic_store_n(&shared_->done, 1, __ATOMIC_RELEASE);
  }
  void report(const std::string& reader) {
    const auto& c = writer_->counters();
    std::printf("writer: notifications %llu compactions %llu prunes %llu\n%s\n",
                static_cast<unsigned long long>(c.notifications), static_cast<unsigned long long>(c.compactions),
                static_cast<unsigned long long>(c.prunes), reader.c_str());
  }

  OneMappingFs oneMapping_;  // outlives what maps through it
  Mem::ShmFile control_;
  Shared* shared_ = nullptr;
  std::unique_ptr<Brume::ConquerWriter> writer_;
  int ack_[2] = {-1, -1};
  uint64_t lastAck_ = 0;
};

TEST_F(ConquerConcurrencyTest, ReaderProcessSeesEveryLatestChangeInOrder) {
  start(Mem::systemShmFs());
  int result[2];
  ASSERT_EQ(pipe(result), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string out = runReader(Mem::systemShmFs(), dir_, ack_[1]);
    (void)!write(result[1], out.data(), out.size());
    _exit(0);
  }
  close(result[1]);
  runWriter();
  pollfd pfd{result[0], POLLIN, 0};
  while (poll(&pfd, 1, 1) == 0) drainAcks();  // answer until the reader is done
  std::string out(4096, '\0');
  out.resize(std::max<ssize_t>(0, read(result[0], out.data(), out.size())));
  close(result[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader died, status " << status;
  ASSERT_EQ(out.substr(0, 3), "ok ") << out;
  report(out);
}

TEST_F(ConquerConcurrencyTest, ReaderThreadSeesEveryLatestChangeInOrder) {
  start(oneMapping_);
  std::string out;
  std::atomic<bool> finished{false};
  std::thread reader([&] {
    out = runReader(oneMapping_, dir_, ack_[1]);
    finished.store(true, std::memory_order_release);
  });
  runWriter();
  while (!finished.load(std::memory_order_acquire)) drainAcks();
  reader.join();
  ASSERT_EQ(out.substr(0, 3), "ok ") << out;
  report(out);
}

}  // namespace
