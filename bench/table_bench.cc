// Shared-memory table against the peers a user would pick instead, in one
// run on one machine, on the route table's shape (48-byte key, 168-byte
// value) at 12,000 and 1,000,000 entries:
//   ours      BrumeWriter + BrumeReader (notifications posted on every write)
//   std       a private std::unordered_map (no sharing at all)
//   boost     a Boost.Interprocess unordered_map in shared memory under an
//             interprocess_sharable_mutex (readers share, the writer excludes)
//   lmdb      LMDB (one writer, lock-free readers; one transaction per
//             write, a renewed read transaction per lookup)
//   floor     two dependent random loads over the same working set (bucket
//             word, then slot): what a lookup cannot beat; and a bare chained
//             table on our chains (lookup, update, iteration)
// Prints ns per operation and each peer's time divided by ours. Also: memory
// per entry when full, and reader scaling for ours and Boost: aggregate
// lookups per second of 1 and 2 reader processes while the writer churns
// in-place updates.
//
// The machine's speed moves by half or more for seconds at a time, so that a
// peer measured after another may land in a slow spell the other missed.
// Updates, lookups and iterations are therefore timed in short passes (a
// millisecond or two for ours; whole iterations), pass k of every
// peer in turn, then pass k+1: a slow spell covers the same pass of every
// peer. A figure is the median pass (ns per operation), a ratio the median
// over passes of the ratio of the same pass, printed with its quartiles.
// Before its timed pass k a peer replays its pass k-1 untimed, so that the
// timed pass finds the caches as its own loop leaves them (see interleave).
// Times are the thread's CPU time (a pass the scheduler interrupts is not
// charged for another process). Inserts, removes, memory and reader scaling
// are taken once per run.
//
// Phases, each peer in turn: inserts, update passes, readers opened and every
// entry read once (lookups are timed warm: a long-lived reader has its
// mapping faulted in), lookup passes, iteration passes, reader scaling,
// removes. Every peer's updates run before any lookup: our reader lives in
// this process under a second mapping of the same pages, and on this machine
// a store through the writer's mapping to a line last read through the
// reader's costs 30-50 ns more (measured): a cost of one process holding two
// addresses of a line, which no peer here pays (each reads and writes through
// one address).
//
// --benchmark_repetitions=N repeats the whole run N times: the passes of all
// runs make the timed figures, the one-shot figures are medians of the runs.
//
// Boost and LMDB are optional: without them their columns read "-".
#include <malloc.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "table_bench_peer.h"

namespace {

using namespace TableBench;

// ---- Passes ------------------------------------------------------------------

using Round = std::map<std::string, double>;  // peer -> ns per operation in one pass
using Rounds = std::vector<Round>;

// Runs `passes` passes of one figure, interleaved: pass k of every peer that
// has the figure, in the peers' order, then pass k+1. pass(peer, k) runs the
// peer's pass k and returns the operations it made. The other peers' passes
// leave the caches full of their own lines, so a peer's pass k-1 is replayed
// untimed right before its timed pass k: that pass finds the caches as the
// peer's own uninterrupted loop would leave them. Pass 0 is preceded by
// itself where the figure only reads (replayFirst), and by nothing for
// updates: their first pass follows the inserts, and a run of one update
// pass (the callgrind recipe's) writes no more than it says.
template <typename Pass>
void interleave(std::vector<std::unique_ptr<Peer>>& peers, Figure figure, uint64_t passes, bool replayFirst,
                Rounds& out, Pass pass) {
  for (uint64_t k = 0; k < passes; ++k) {
    Round round;
    for (auto& p : peers) {
      if (!p->has(figure)) continue;
      if (k > 0 || replayFirst) {
        p->setReplaying(true);
        pass(*p, k > 0 ? k - 1 : 0);
        p->setReplaying(false);
      }
      const auto t = Clock::now();
      const uint64_t ops = pass(*p, k);
      if (ops > 0) round[p->name()] = nsSince(t, ops);
    }
    out.push_back(std::move(round));
  }
}

// The slice of `order` pass k covers.
std::pair<const uint32_t*, const uint32_t*> slice(const std::vector<uint32_t>& order, uint64_t perPass,
                                                  uint64_t k) {
  const uint64_t begin = k * perPass;
  return {order.data() + begin, order.data() + std::min<uint64_t>(order.size(), begin + perPass)};
}
uint64_t passesOf(uint64_t ops, uint64_t perPass) { return (ops + perPass - 1) / perPass; }

struct Results {
  Rounds update, lookup, iterate;
  std::map<std::string, std::vector<OneShot>> shots;  // one per run
};

void runOnce(const Run& run, const std::string& picked, Results& res) {
  std::vector<std::unique_ptr<Peer>> peers;
  auto add = [&](std::unique_ptr<Peer> p) {
    if (p) peers.push_back(std::move(p));
  };
  add(makeOurs(run));
  if (picked.find("std") != std::string::npos) add(makeStd(run));
  if (picked.find("boost") != std::string::npos) add(makeBoost(run));
  if (picked.find("lmdb") != std::string::npos) add(makeLmdb(run));
  add(makeFloor(run, false));
  add(makeFloor(run, true));
  add(makeBareChained(run));
  add(makeBareUpdate(run, false));
  add(makeBareUpdate(run, true));

  // Inserts, each peer in turn; a peer that cannot run leaves.
  std::vector<std::unique_ptr<Peer>> running;
  for (auto& p : peers) {
    if (p->insertAll()) running.push_back(std::move(p));
  }
  peers = std::move(running);
  interleave(peers, kUpdate, passesOf(run.updates, run.updatesPerPass), false, res.update,
             [&](Peer& p, uint64_t k) {
               const auto [begin, end] = slice(run.updateOrder, run.updatesPerPass, k);
               p.updates(begin, end);
               return static_cast<uint64_t>(end - begin);
             });
  for (auto& p : peers) {
    if (!p->startReading()) p->leave(kLookup | kIterate);
  }
  interleave(peers, kLookup, passesOf(run.lookups, run.lookupsPerPass), true, res.lookup,
             [&](Peer& p, uint64_t k) {
               const auto [begin, end] = slice(run.order, run.lookupsPerPass, k);
               p.lookups(begin, end);
               return static_cast<uint64_t>(end - begin);
             });
  interleave(peers, kIterate, passesOf(run.passes, run.iterationsPerPass), true, res.iterate,
             [&](Peer& p, uint64_t k) {
               const uint64_t first = k * run.iterationsPerPass;
               const uint64_t last = std::min<uint64_t>(run.passes, first + run.iterationsPerPass);
               uint64_t entries = 0;
               for (uint64_t i = first; i < last; ++i) entries += p.iteratePass();
               return entries;
             });
  if (run.scaling) {
    for (auto& p : peers) p->scaling();
  }
  for (auto& p : peers) p->removeAll();
  for (auto& p : peers) res.shots[p->name()].push_back(p->oneShot());
}

// ---- Statistics ----------------------------------------------------------------

struct Spread {
  double median = -1, q1 = -1, q3 = -1;
};

Spread spreadOf(std::vector<double> v) {
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  auto at = [&](double q) {
    return v[static_cast<size_t>(std::lround(q * static_cast<double>(v.size() - 1)))];
  };
  return {at(0.5), at(0.25), at(0.75)};
}

// A peer's ns per operation over its passes.
Spread timeOf(const Rounds& rounds, const std::string& peer) {
  std::vector<double> v;
  for (const Round& r : rounds) {
    if (auto it = r.find(peer); it != r.end()) v.push_back(it->second);
  }
  return spreadOf(v);
}

// num / den of the same pass, over passes.
Spread ratioOf(const Rounds& rounds, const std::string& num, const std::string& den) {
  std::vector<double> v;
  for (const Round& r : rounds) {
    auto a = r.find(num), b = r.find(den);
    if (a != r.end() && b != r.end() && b->second > 0) v.push_back(a->second / b->second);
  }
  return spreadOf(v);
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? -1 : v[v.size() / 2];
}

// The median of each one-shot figure over the runs (all -1 for a peer that never ran).
OneShot medianOf(const std::vector<OneShot>& runs) {
  OneShot m;
  for (double OneShot::*f : {&OneShot::insert, &OneShot::remove, &OneShot::bytesPerEntry, &OneShot::lookups1,
                             &OneShot::lookups2, &OneShot::writes1, &OneShot::writes2}) {
    std::vector<double> v;
    for (const OneShot& r : runs) v.push_back(r.*f);
    m.*f = median(v);
  }
  return m;
}

// ---- Printing ------------------------------------------------------------------

// A peer's figure and its ratio to ours; spread: the ratio's quartiles over passes.
struct Cell {
  double value = -1;
  Spread ratio;
  bool spread = false;
};

std::string quartiles(const Spread& s) {
  char text[48];
  std::snprintf(text, sizeof text, "(%.2f-%.2f)", s.q1, s.q3);
  return text;
}

// Small rates (a starved reader's millions per second) keep two digits
// instead of printing as 0.0.
std::string number(double v, int width) {
  char text[32];
  std::snprintf(text, sizeof text, v > 0 && v < 0.1 ? "%*.2g" : "%*.1f", width, v);
  return text;
}

void printRow(const char* what, double ours, const std::vector<Cell>& cells) {
  if (ours < 0) {
    std::printf("  %-22s %9s", what, "-");
  } else {
    std::printf("  %-22s %s", what, number(ours, 9).c_str());
  }
  for (const Cell& c : cells) {
    if (c.value < 0) {
      std::printf(" %10s %7s %-13s", "-", "", "");
      continue;
    }
    char ratio[24] = "";
    if (c.ratio.median > 0) std::snprintf(ratio, sizeof ratio, "%.2fx", c.ratio.median);
    const std::string spread = c.spread && c.ratio.median > 0 ? quartiles(c.ratio) : "";
    std::printf(" %s %7s %-13s", number(c.value, 10).c_str(), ratio, spread.c_str());
  }
  std::printf("\n");
}

// Peer / ours, over passes.
Cell passCell(const Rounds& rounds, const std::string& peer) {
  return {timeOf(rounds, peer).median, ratioOf(rounds, peer, "ours"), true};
}
// Peer / ours, or ours / peer for rates (higherIsBetter).
Cell shotCell(double peer, double ours, bool higherIsBetter = false) {
  Cell c{peer, {}, false};
  if (peer > 0 && ours > 0) c.ratio.median = higherIsBetter ? ours / peer : peer / ours;
  return c;
}

void print(const Run& run, const Results& res) {
  auto shots = [&](const std::string& peer) {
    auto it = res.shots.find(peer);
    return it == res.shots.end() ? OneShot{} : medianOf(it->second);
  };
  const OneShot ours = shots("ours");
  const std::vector<std::string> peers = {"std", "boost", "lmdb"};
  std::printf(
      "\n%u entries (%llu lookups in passes of %llu, %llu updates in passes of %llu, %u iterations in passes "
      "of "
      "%u)\n",
      run.n, static_cast<unsigned long long>(run.lookups),
      static_cast<unsigned long long>(run.lookupsPerPass), static_cast<unsigned long long>(run.updates),
      static_cast<unsigned long long>(run.updatesPerPass), run.passes, run.iterationsPerPass);
  std::printf("  %-22s %9s", "operation", "ours");
  for (const std::string& p : peers) std::printf(" %10s %21s", p.c_str(), "");
  std::printf("\n");
  auto passRow = [&](const char* what, const Rounds& rounds) {
    std::vector<Cell> cells;
    for (const std::string& p : peers) cells.push_back(passCell(rounds, p));
    printRow(what, timeOf(rounds, "ours").median, cells);
  };
  auto shotRow = [&](const char* what, double OneShot::*f) {
    std::vector<Cell> cells;
    for (const std::string& p : peers) cells.push_back(shotCell(shots(p).*f, ours.*f));
    printRow(what, ours.*f, cells);
  };
  passRow("lookup+copy", res.lookup);
  shotRow("insert", &OneShot::insert);
  passRow("in-place update", res.update);
  shotRow("remove", &OneShot::remove);
  passRow("iteration (per entry)", res.iterate);
  shotRow("memory per entry (B)", &OneShot::bytesPerEntry);

  // Ours / the floor, over passes.
  auto floorLine = [&](const char* text, const Rounds& rounds, const std::string& floor) {
    const Spread r = ratioOf(rounds, "ours", floor);
    std::printf("  %s: %.1f ns; ours / that = %.2fx %s\n", text, timeOf(rounds, floor).median, r.median,
                quartiles(r).c_str());
  };
  floorLine("two dependent loads (floor)", res.lookup, "floor");
  floorLine("the same plus copying the 168-byte value", res.lookup, "floor+copy");
  floorLine("a bare chained table on our chains, plus the copy", res.lookup, "bare");
  const Spread bareNotify = ratioOf(res.update, "ours", "bare+notify");
  std::printf(
      "  the bare chained table's update: %.1f ns; with a notification (append, tombstone): %.1f ns; "
      "ours / that = %.2fx %s\n",
      timeOf(res.update, "bare update").median, timeOf(res.update, "bare+notify").median, bareNotify.median,
      quartiles(bareNotify).c_str());
  floorLine("the bare chained table's iteration in our order, copying each value (per entry)", res.iterate,
            "bare");

  std::printf("  reader scaling while the writer updates (millions per second; ours / boost):\n");
  const OneShot boost = shots("boost");
  auto mps = [](double v) { return v < 0 ? -1.0 : v / 1e6; };
  auto scalingRow = [&](const char* what, double OneShot::*f) {
    printRow(what, mps(ours.*f), {shotCell(mps(boost.*f), mps(ours.*f), true)});
  };
  scalingRow("lookups, 1 reader", &OneShot::lookups1);
  scalingRow("lookups, 2 readers", &OneShot::lookups2);
  scalingRow("writes, 1 reader", &OneShot::writes1);
  scalingRow("writes, 2 readers", &OneShot::writes2);
  // Under chrt -f on one core the writer never yields to its readers.
  if (ours.lookups1 >= 0 && ours.lookups1 < 1e5) {
    std::printf("  (the readers had almost no CPU time: run without chrt and taskset for reader scaling)\n");
  }
}

}  // namespace

// The allocator keeps the heap pages it was given instead of handing freed
// ones back at once, so that a peer that fills its map a second time (timed
// warm) does not fault its pages in again.
void keepHeapPages() { ::mallopt(M_TRIM_THRESHOLD, 1 << 30); }

int main(int argc, char** argv) {
  keepHeapPages();
  std::vector<uint32_t> sizes;
  int repetitions = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--benchmark_repetitions=", 0) == 0) {
      repetitions = std::max(1, std::stoi(arg.substr(arg.find('=') + 1)));
    } else {
      sizes.push_back(static_cast<uint32_t>(std::stoul(arg)));
    }
  }
  if (sizes.empty()) sizes = {12000, 1000000};
  std::printf(
      "Shared-memory table vs peers: 48-byte key, 168-byte value; ns per operation (the thread's CPU time), "
      "and peer / ours\n");
  std::printf(
      "Lookups, updates and iterations in passes, a pass of every peer in turn: the median pass, and the\n"
      "median over passes of the same pass's ratio (its quartiles in brackets)\n");
  if (repetitions > 1)
    std::printf("%d runs: their passes together; inserts, removes, memory, scaling: medians\n", repetitions);
  // MROUTE_BENCH_PEERS=std,boost,lmdb (the default) picks the peers.
  const char* env = std::getenv("MROUTE_BENCH_PEERS");
  const std::string picked = env != nullptr ? env : "std,boost,lmdb";
  for (uint32_t n : sizes) {
    const Run run = makeRun(n);
    Results res;
    for (int rep = 0; rep < repetitions; ++rep) runOnce(run, picked, res);
    print(run, res);
  }
  return 0;
}
