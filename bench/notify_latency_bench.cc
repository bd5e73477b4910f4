// Notification delivery between processes: a writer process changes one
// entry; reader processes (shadow fronts on their own event loops) get the
// change callback. Prints the change-to-callback latency (median, p99) with
// one reader, and the sustained changes per second with one and four
// readers.
//
//   notify_latency_bench [samples]
//
// Each value carries the monotonic time of its write; a reader computes the
// latency when its callback runs and sends its figures back over a pipe.
//
// The paced latency is measured with the writer blocked in its event loop
// between changes (a timer paces it), as a real writer waits for work, and,
// for comparison, with the writer busy-polling its loop: on a loaded
// two-core machine that keeps a core busy and the reader's wake-up then waits
// for the scheduler, which shows in the tail.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/loop/timer.h"
#include "mroute/table/brume_map.h"
#include "mroute/table/engine/value_wrapper.h"

namespace {

struct Stamp {
  uint64_t key = 0;
  uint64_t writtenNs = 0;
  uint64_t seq = 0;
  uint64_t pad = 0;
};
using StampValue = KivBrume::KivBrumeMapValueWrapper<Stamp, uint64_t, &Stamp::key>;
using StampMap = Brume::BrumeMap<uint64_t, StampValue>;

constexpr const char* kMount = "bench";
constexpr const char* kName = "latency";

uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

Brume::BrumeMapOptions options() {
  Brume::BrumeMapOptions o;
  o.table.initialSize = 1024;
  o.systemLog = nullptr;
  return o;
}

// A reader process: records latencies until `stopKey` is seen, then writes
// {count, latencies...} to fd.
void reader(int fd, size_t expected) {
  Mroute::Loop::EventLoop loop;
  StampMap map(loop, kMount, kName, Brume::BrumeType::shadow, options());
  std::vector<uint64_t> lat;
  lat.reserve(expected);
  bool done = false;
  map.onChangeIs([&](const uint64_t& k) {
    const uint64_t now = nowNs();
    if (k == ~uint64_t{0}) {
      done = true;
      return;
    }
    if (const auto v = map.lookup(k)) lat.push_back(now - v->value.writtenNs);
  });
  const char ready = 'r';
  ssize_t ignored = ::write(fd, &ready, 1);
  while (!done) loop.runOnce(std::chrono::milliseconds(50));
  const uint64_t n = lat.size();
  ignored = ::write(fd, &n, sizeof n);
  if (n > 0) ignored = ::write(fd, lat.data(), n * sizeof(uint64_t));
  (void)ignored;
  ::_exit(0);
}

bool readAll(int fd, void* buf, size_t size) {
  auto* p = static_cast<char*>(buf);
  while (size > 0) {
    const ssize_t n = ::read(fd, p, size);
    if (n <= 0) return false;
    p += n;
    size -= size_t(n);
  }
  return true;
}

struct Result {
  std::vector<std::vector<uint64_t>> latencies;  // per reader
  double writerSeconds = 0;
  uint64_t changes = 0;
};

// How the writer waits between paced changes.
enum class Pacing {
  loop,      // blocked in its event loop on a timer, as a writer waiting for work is
  busyPoll,  // polling its loop without blocking (keeps a core busy)
};

// paced (gapUs > 0): one change, then wait `gapUs` before the next, serving
// acknowledgements meanwhile; otherwise back to back.
Result run(int readers, uint64_t changes, int gapUs, Pacing pacing = Pacing::loop) {
  Mroute::Loop::EventLoop loop;
  StampMap writer(loop, kMount, kName, Brume::BrumeType::writer, options());
  std::vector<int> fds;
  std::vector<pid_t> pids;
  for (int r = 0; r < readers; ++r) {
    int p[2];
    if (::pipe(p) != 0) std::abort();
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(p[0]);
      reader(p[1], changes);
    }
    ::close(p[1]);
    fds.push_back(p[0]);
    pids.push_back(pid);
  }
  for (int fd : fds) {
    char c;
    readAll(fd, &c, 1);
  }
  while (writer.numReaders() < uint32_t(readers) || writer.writer()->conquer()->waitingForReaders()) {
    loop.runOnce(std::chrono::milliseconds(1));
  }
  bool due = false;
  Mroute::Loop::Timer pace(loop, [&] { due = true; });
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < changes; ++i) {
    Stamp s;
    s.key = i % 512;
    s.seq = i;
    s.writtenNs = nowNs();
    writer.write(StampValue(s));
    if (gapUs > 0 && pacing == Pacing::loop) {
      due = false;
      pace.startOneShot(std::chrono::microseconds(gapUs));
      while (!due) loop.runOnce(std::chrono::milliseconds(10));
    } else if (gapUs > 0) {
      const uint64_t until = nowNs() + uint64_t(gapUs) * 1000;
      while (nowNs() < until) loop.runOnce(std::chrono::milliseconds(0));
    } else if (i % 64 == 0) {
      loop.runOnce(std::chrono::milliseconds(0));
    }
  }
  Result res;
  res.writerSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  res.changes = changes;
  Stamp stop;
  stop.key = ~uint64_t{0};
  writer.write(StampValue(stop));
  for (size_t r = 0; r < fds.size(); ++r) {
    uint64_t n = 0;
    // Serve acknowledgements while the readers finish.
    bool got = false;
    while (!got) {
      loop.runOnce(std::chrono::milliseconds(1));
      fd_set set;
      FD_ZERO(&set);
      FD_SET(fds[r], &set);
      timeval tv{0, 0};
      got = ::select(fds[r] + 1, &set, nullptr, nullptr, &tv) > 0;
    }
    readAll(fds[r], &n, sizeof n);
    std::vector<uint64_t> lat(n);
    if (n > 0) readAll(fds[r], lat.data(), n * sizeof(uint64_t));
    res.latencies.push_back(std::move(lat));
    ::close(fds[r]);
  }
  for (pid_t p : pids) ::waitpid(p, nullptr, 0);
  writer.cleanup();
  return res;
}

double percentile(std::vector<uint64_t> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return double(v[std::min(v.size() - 1, size_t(p * double(v.size())))]) / 1000.0;
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t samples = argc > 1 ? std::stoull(argv[1]) : 20000;
  const std::string root = "/dev/shm/mroute-bench-" + std::to_string(::getpid());
  ::setenv("MROUTE_SHM_ROOT", root.c_str(), 1);

  std::printf("notification delivery, writer process -> reader process (shadow front), %llu changes\n",
              static_cast<unsigned long long>(samples));
  for (Pacing pacing : {Pacing::loop, Pacing::busyPoll}) {
    const Result paced = run(1, samples, 100, pacing);
    const auto& l = paced.latencies[0];
    std::printf(
        "1 reader, one change every 100 us, writer %s: delivered %zu/%llu  median %.1f us  p90 %.1f us  "
        "p99 %.1f us  p99.9 %.1f us  max %.1f us\n",
        pacing == Pacing::loop ? "waiting in its event loop" : "busy-polling its event loop (comparison)",
        l.size(), static_cast<unsigned long long>(samples), percentile(l, 0.5), percentile(l, 0.9),
        percentile(l, 0.99), percentile(l, 0.999), percentile(l, 1.0));
  }
  for (int readers : {1, 4}) {
    const Result burst = run(readers, samples * 10, 0);
    uint64_t delivered = 0;
    std::vector<uint64_t> all;
    for (const auto& v : burst.latencies) {
      delivered += v.size();
      all.insert(all.end(), v.begin(), v.end());
    }
    std::printf(
        "%d reader%s, back-to-back: %.0f changes/s written, %.0f callbacks/s per reader (%.1f%% of changes; "
        "repeated changes of a key between walks are folded), latency median %.1f us p99 %.1f us\n",
        readers, readers == 1 ? "" : "s", double(burst.changes) / burst.writerSeconds,
        double(delivered) / readers / burst.writerSeconds,
        100.0 * double(delivered) / readers / double(burst.changes), percentile(all, 0.5),
        percentile(all, 0.99));
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return 0;
}
