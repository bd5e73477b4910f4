// Best-route selection across a VRF's table sets, in one run:
//   select/N     brumeKey() per key over N table sets (N = 1, 2, 4, 8), each
//                holding a route for every key, mounted read-only as a
//                forwarding agent mounts them (in the thread's CPU time)
//   lookups/N    the floor: N plain route lookups per key on the same tables
//   walk         the merged walk (MfibBrumeCollRouteIteratorConst) of 12,000
//                keys over 4 table sets, per walk and per key
//   view         a route change in a table set with OrderRouteSm watching the
//                collection of 4, against the same change with no one watching
// Prints ns per operation and select/lookups ratios (the goal: at most 1.2
// for 4 table sets), and the walk in ms (the goal: under 10 ms), with the
// load average before and after. --benchmark_repetitions=N runs every figure
// N times and prints medians (ratios with their range).
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "mroute/mfibdir/merged_route_iterator.h"
#include "mroute/mfibdir/mfib_entity_manager.h"
#include "mroute/mfibdir/order_route_sm.h"

namespace {

using Brume::Multicast::Fib::MfibBrumeColl;
using Brume::Multicast::Fib::Route;
using Brume::Multicast::Fib::RoutePriority;
using Brume::Multicast::Fib::Status;
using Routing::Multicast::Fib::IpGenRouteKey;
using Clock = std::chrono::steady_clock;

constexpr int kKeys = 12000;
constexpr int kSets = 8;

IpGenRouteKey keyN(int n) {
  const std::string g = "232." + std::to_string(n / 65536) + "." + std::to_string((n / 256) % 256) + "." +
                        std::to_string(n % 256) + "/32";
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.0.0.1/32"), Orvet::IpGenPrefix::fromText(g));
}

double cpuMs() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  int repetitions = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--benchmark_repetitions=", 0) == 0) repetitions = std::max(1, std::stoi(arg.substr(arg.find('=') + 1)));
  }
  const std::string root = std::filesystem::temp_directory_path() / ("mroute-selectbench-" + std::to_string(getpid()));
  setenv("MROUTE_SHM_ROOT", root.c_str(), 1);
  Mroute::Loop::EventLoop loop;
  Brume::Multicast::Fib::MfibEntityManager manager(loop);
  const auto info = Brume::Multicast::Fib::TableInfo::mfibMountInfo(Status::type().name);

  std::vector<IpGenRouteKey> keys;
  for (int n = 0; n < kKeys; ++n) keys.push_back(keyN(n));
  std::vector<Kiv::Ptr<Status>> writers, readers;
  for (int s = 0; s < kSets; ++s) {
    const std::string path = Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("default"), "app" + std::to_string(s));
    writers.push_back(manager.mountStatus(path, Brume::BrumeType::writer, info));
    for (const IpGenRouteKey& k : keys) {
      Route r(k);
      r.routePriorityIs(RoutePriority(static_cast<uint8_t>(1 + (s * 7 + k.hash()) % 5)));
      writers.back()->routeIs(r);
    }
    readers.push_back(manager.mountStatus(path, Brume::BrumeType::reader, info));
  }
  for (int i = 0; i < 200; ++i) loop.runOnce(std::chrono::milliseconds(1));

  // Every figure of one repetition; a ratio is taken within its repetition,
  // where select and lookups ran side by side.
  struct Figures {
    double select[4], lookups[4], ratio[4];
    double walkMs, walkCpuMs, copyMs, bare, viewed;
  };
  volatile uint32_t sink = 0;
  uint32_t visited = 0;
  size_t viewKeys = 0;
  Kiv::Ptr<MfibBrumeColl> four = Brume::Multicast::Fib::MfibBrumeCollIs("default");
  for (int s = 0; s < 4; ++s) four->brumePtrIs(s + 1, readers[s]);
  Kiv::Ptr<MfibBrumeColl> watched = Brume::Multicast::Fib::MfibBrumeCollIs("default");
  for (int s = 0; s < 4; ++s) watched->brumePtrIs(s + 1, writers[s]);
  int version = 10;
  // A change through a writer whose collection of 4 may be watched by the view.
  auto change = [&] {
    ++version;
    const double t0 = cpuMs();
    for (const IpGenRouteKey& k : keys) {
      Route r = writers[0]->route(k);
      r.versionIs(version);
      writers[0]->routeIs(r);
    }
    return (cpuMs() - t0) * 1e6 / kKeys;
  };

  auto measure = [&] {
    Figures f{};
    const int sets[] = {1, 2, 4, 8};
    for (int i = 0; i < 4; ++i) {
      const int n = sets[i];
      Kiv::Ptr<MfibBrumeColl> coll = Brume::Multicast::Fib::MfibBrumeCollIs("default");
      for (int s = 0; s < n; ++s) coll->brumePtrIs(s + 1, readers[s]);
      const int rounds = 10;
      f.select[i] = f.lookups[i] = 1e30;
      // In this thread's CPU time: on a shared machine wall-clock time
      // counts the other processes' turns too.
      const double ops = double(rounds) * kKeys;
      for (int trial = 0; trial < 3; ++trial) {
        const double t0 = cpuMs();
        for (int r = 0; r < rounds; ++r)
          for (const IpGenRouteKey& k : keys) sink = sink + coll->brumeKey(k);
        const double t1 = cpuMs();
        for (int r = 0; r < rounds; ++r)
          for (const IpGenRouteKey& k : keys)
            for (int s = 0; s < n; ++s) sink = sink + (readers[s]->route().find(k) ? 1 : 0);
        const double t2 = cpuMs();
        f.select[i] = std::min(f.select[i], (t1 - t0) * 1e6 / ops);
        f.lookups[i] = std::min(f.lookups[i], (t2 - t1) * 1e6 / ops);
      }
      f.ratio[i] = f.select[i] / f.lookups[i];
    }
    // Best of 10, in wall-clock and in this thread's CPU time (the second is
    // what one core spends when the machine is shared).
    f.walkMs = f.copyMs = f.walkCpuMs = 1e30;
    for (int trial = 0; trial < 10; ++trial) {
      const double c0 = cpuMs();
      auto t0 = Clock::now();
      visited = 0;
      Brume::Multicast::Fib::MfibBrumeCollRouteIteratorConst it(*four);
      auto t1 = Clock::now();
      for (; !it.atEnd(); it.updateToBestRouteIterators()) ++visited;
      f.walkMs = std::min(f.walkMs, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      f.walkCpuMs = std::min(f.walkCpuMs, cpuMs() - c0);
      f.copyMs = std::min(f.copyMs, std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    f.bare = std::min(change(), change());
    Kiv::Ptr<Brume::Multicast::Fib::RouteOrderedCollection> view =
        Brume::Multicast::Fib::RouteOrderedCollectionIs("default");
    Brume::Multicast::Fib::OrderRouteSm sm(watched, view);
    sm.handleInitialized();
    f.viewed = std::min(change(), change());
    viewKeys = view->route().size();
    return f;
  };

  double load[3] = {};
  ::getloadavg(load, 3);
  std::printf("load average at start: %.2f %.2f %.2f\n", load[0], load[1], load[2]);
  std::vector<Figures> reps;
  for (int rep = 0; rep < repetitions; ++rep) reps.push_back(measure());
  auto med = [&](auto field) {
    std::vector<double> v;
    for (const Figures& f : reps) v.push_back(field(f));
    std::sort(v.begin(), v.end());
    return std::make_tuple(v[v.size() / 2], v.front(), v.back());
  };
  if (repetitions > 1) std::printf("medians of %d repetitions (ratio: min..max)\n", repetitions);
  std::printf("%-10s %12s %12s %8s   (CPU time)\n", "table sets", "select ns", "lookups ns", "ratio");
  const int sets[] = {1, 2, 4, 8};
  for (int i = 0; i < 4; ++i) {
    const auto [ratio, lo, hi] = med([i](const Figures& f) { return f.ratio[i]; });
    std::printf("%-10d %12.1f %12.1f %8.2f   (%.2f..%.2f)\n", sets[i],
                std::get<0>(med([i](const Figures& f) { return f.select[i]; })),
                std::get<0>(med([i](const Figures& f) { return f.lookups[i]; })), ratio, lo, hi);
  }
  const double walkMs = std::get<0>(med([](const Figures& f) { return f.walkMs; }));
  std::printf("walk: %u keys over 4 table sets in %.2f ms, %.2f ms CPU (%.0f ns per key; copying and sorting %.2f ms)\n",
              visited, walkMs, std::get<0>(med([](const Figures& f) { return f.walkCpuMs; })), walkMs * 1e6 / visited,
              std::get<0>(med([](const Figures& f) { return f.copyMs; })));
  const double bare = std::get<0>(med([](const Figures& f) { return f.bare; }));
  const double viewed = std::get<0>(med([](const Figures& f) { return f.viewed; }));
  std::printf("view (CPU time): change %.0f ns bare, %.0f ns with the ordered view (%.0f ns for the view, %zu keys)\n", bare,
              viewed, viewed - bare, viewKeys);
  ::getloadavg(load, 3);
  std::printf("load average at end: %.2f %.2f %.2f\n", load[0], load[1], load[2]);

  for (auto& w : writers) w->route().front()->cleanup(), w->oifIndexIntf().front()->cleanup();
  std::filesystem::remove_all(root);
  return sink == 0xffffffffu;
}
