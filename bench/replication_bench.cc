// Entity replication between processes over the attribute log: a writer
// process changes a mounted VrfConfig tree, reader processes mount it
// read-only and apply every change to their own copy. Prints
//
//   - attribute changes per second, written by the writer until its last
//     change was applied by every reader, with one and with four readers;
//   - records sent for those changes (below 1 per change: the writer
//     coalesced changes while a reader's channel was blocked);
//   - change-to-callback latency in one reader (median, p99), the writer
//     paced by a timer so that it waits in its loop as a real writer does.
//
//   replication_bench [changes] [latency samples]
//
// Readers send their figures back over a pipe.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "mroute/entities/fib/vrf_config.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/runtime/loop/timer.h"

namespace {

using Mroute::Loop::EventLoop;
using Routing::Multicast::Fib::Config;
using Routing::Multicast::Fib::VrfConfig;
using Routing::Multicast::Fib::VrfConfigIs;
constexpr const char* kPath = "bench/replication";

uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// The reader's agent: counts changes, notes latencies and the end marker.
class Counter : public Config::Notifiee {
 public:
  void onMaxFastdrops() override { ++changes; }
  void onClearFastdrop() override {
    const double sent = notifier()->clearFastdrop();
    if (sent > 0) latencies.push_back(nowNs() - static_cast<uint64_t>(sent));
  }
  void onRouting() override { done = notifier()->routing(); }
  uint64_t changes = 0;
  bool done = false;
  std::vector<uint64_t> latencies;
};

// A reader process: mounts the tree, reports when the writer's end marker
// arrived: "<changes seen> <latencies...>".
[[noreturn]] void reader(int reportFd) {
  EventLoop loop;
  Kiv::Ptr<VrfConfig> root = VrfConfigIs("bench");
  Kiv::NboAttrLog::ReaderMount mount(loop, kPath, root, VrfConfig::KivNboAttrLogSa::logType(),
                                     std::chrono::milliseconds(5));
  Counter counter;
  while (!root->config("default")) loop.runOnce(std::chrono::milliseconds(5));
  counter.notifierIs(root->config("default"));
  while (!counter.done) loop.runOnce(std::chrono::milliseconds(50));
  std::string line = std::to_string(counter.changes);
  for (uint64_t l : counter.latencies) line += " " + std::to_string(l);
  line += "\n";
  if (::write(reportFd, line.data(), line.size()) < 0) _exit(1);
  _exit(0);
}

struct Report {
  uint64_t changesSeen = 0;
  std::vector<uint64_t> latencies;
};

std::vector<Report> collect(int fd, int readers) {
  std::string all;
  char buf[65536];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) all.append(buf, size_t(n));
  std::vector<Report> out;
  size_t pos = 0;
  for (int i = 0; i < readers && pos < all.size(); ++i) {
    const size_t end = all.find('\n', pos);
    Report r;
    char* p = all.data() + pos;
    r.changesSeen = std::strtoull(p, &p, 10);
    while (p < all.data() + end) r.latencies.push_back(std::strtoull(p, &p, 10));
    out.push_back(std::move(r));
    pos = end + 1;
  }
  return out;
}

struct Run {
  double seconds = 0;
  double changesPerSecond = 0;
  uint64_t records = 0;
  uint64_t changes = 0;
  std::vector<Report> reports;
};

// One writer in this process, `readers` reader processes. `paceUs` > 0: one
// timed change per period (latency); 0: as fast as the loop allows.
Run run(int readers, uint64_t changes, int paceUs) {
  int fds[2];
  if (::pipe(fds) < 0) std::exit(1);
  std::vector<pid_t> pids;
  for (int i = 0; i < readers; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(fds[0]);
      reader(fds[1]);
    }
    pids.push_back(pid);
  }
  ::close(fds[1]);
  EventLoop loop;
  Kiv::Ptr<VrfConfig> root = VrfConfigIs("bench");
  Kiv::NboAttrLog::WriterMount mount(loop, kPath, root, VrfConfig::KivNboAttrLogSa::logType());
  Kiv::Ptr<Config> config = root->config("default");
  while (mount.readers() < size_t(readers)) loop.runOnce(std::chrono::milliseconds(5));
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(5));  // the readers take the tree
  const uint64_t recordsBefore = mount.recordsSent();
  Run r;
  const uint64_t start = nowNs();
  if (paceUs == 0) {
    for (uint64_t i = 1; i <= changes; ++i) {
      config->maxFastdropsIs(static_cast<uint32_t>(i));
      if (i % 512 == 0) loop.runOnce(std::chrono::milliseconds(0));
    }
  } else {
    uint64_t i = 0;
    Mroute::Loop::Timer pace(loop, [&] { config->clearFastdropIs(static_cast<double>(nowNs())); ++i; });
    pace.startPeriodic(std::chrono::microseconds(paceUs));
    while (i < changes) loop.runOnce(std::chrono::milliseconds(10));
  }
  r.records = mount.recordsSent() - recordsBefore;
  root->config("default")->routingIs(true);  // the end marker
  std::vector<pid_t> left = pids;
  std::vector<int> status(pids.size());
  // Serve until every reader has seen the marker and gone.
  while (!left.empty()) {
    loop.runOnce(std::chrono::milliseconds(1));
    std::erase_if(left, [](pid_t p) { return ::waitpid(p, nullptr, WNOHANG) == p; });
  }
  const double seconds = double(nowNs() - start) / 1e9;
  r.changes = changes;
  r.seconds = seconds;
  r.changesPerSecond = double(changes) / seconds;
  r.reports = collect(fds[0], readers);
  ::close(fds[0]);
  return r;
}

uint64_t percentile(std::vector<uint64_t> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t changes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 4'000'000;
  const uint64_t samples = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 5000;
  const std::string root = std::filesystem::temp_directory_path() / ("mroute-bench-" + std::to_string(::getpid()));
  ::setenv("MROUTE_SHM_ROOT", root.c_str(), 1);
  for (int readers : {1, 4}) {
    const Run r = run(readers, changes, 0);
    uint64_t seen = 0;
    for (const Report& rep : r.reports) seen += rep.changesSeen;
    std::printf("%d reader(s): %.0f changes/s written and applied; %llu records for %llu changes (%.3f per change "
                "and reader); %.0f records/s applied per reader\n",
                readers, r.changesPerSecond, (unsigned long long)r.records, (unsigned long long)r.changes,
                double(r.records) / double(r.changes) / readers, double(seen) / readers / r.seconds);
  }
  const Run lat = run(1, samples, 200);
  const std::vector<uint64_t>& l = lat.reports.empty() ? std::vector<uint64_t>{} : lat.reports[0].latencies;
  std::printf("latency, 1 reader, one change every 200 us: median %.1f us, p99 %.1f us (%zu samples)\n",
              double(percentile(l, 0.5)) / 1e3, double(percentile(l, 0.99)) / 1e3, l.size());
  std::filesystem::remove_all(root);
  return 0;
}
