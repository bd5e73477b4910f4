// Mounting a VrfConfig and a Hardware::Status tree across processes: one
// writer changing both as fast as it can, two readers (one slowed so that
// its channels block) and one reader killed midway. Both live readers must end with exactly the writer's
// state, their notifiees having seen the final values; the writer is then
// killed and restarted with a smaller, different state, and the readers must
// converge again, deleting what is gone.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mroute/entities/fib/vrf_config.h"
#include "mroute/entities/hardware/hardware_status.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/runtime/net/prefix.h"
#include "testing/shm_root_scope.h"

namespace {

using Mroute::Loop::EventLoop;
using namespace Routing::Multicast::Fib;
using Clock = std::chrono::steady_clock;
constexpr const char* kPath = "routing/multicast/vrf/config";
constexpr const char* kHwPath = "routing/hardware/multicast/status";
#if defined(__SANITIZE_THREAD__)
constexpr int kChanges = 60000;  // ten times slower: still enough to fill the slow reader's channels
#else
constexpr int kChanges = 300000;
#endif
namespace Hw = Routing::Multicast::Fib::Hardware;

// The whole tree as text, every attribute its attribute-log table carries,
// members in the order of their wire keys (the tables iterate in no fixed order).
std::string digest(const Kiv::Entity& e, const Kiv::AttrLogType& type) {
  std::ostringstream os;
  os << e.name() << " (" << type.name << ")\n";
  std::vector<std::string> keys;
  for (const Kiv::AttrLogAttr& a : type.attrs) {
    if (a.kind == Kiv::AttrLogKind::scalar) os << a.name << ' ' << a.valueText(e) << '\n';
    if (a.kind != Kiv::AttrLogKind::collection && a.kind != Kiv::AttrLogKind::children) continue;
    keys.clear();
    a.keys(e, keys);
    std::sort(keys.begin(), keys.end());
    for (const std::string& k : keys) {
      if (a.kind == Kiv::AttrLogKind::collection) {
        os << a.name << '[' << a.keyText(k) << "] " << a.memberText(e, k) << '\n';
      } else if (const Kiv::Entity* child = a.child(e, k)) {
        os << digest(*child, a.childType());
      }
    }
  }
  return os.str();
}

std::string digest(const VrfConfig& root, const Hw::Status& hw) {
  return digest(root, VrfConfig::KivNboAttrLogSa::logType()) + digest(hw, Hw::Status::KivNboAttrLogSa::logType());
}

// What the hardware reader's agent learns of dirty LAGs through its notifiee.
class LagMirror : public Hw::Status::Notifiee {
 public:
  void onDirtyLag(const Orvet::IntfId& k) override {
    if (notifier()->dirtyLag().count(k)) {
      lags[Kiv::textOf(k)] = notifier()->dirtyLag(k);
    } else {
      lags.erase(Kiv::textOf(k));
    }
  }
  using Hw::Status::NotifieeConst::onDirtyLag;
  bool matches(const Hw::Status& s) const {
    std::map<std::string, uint32_t> now;
    for (const auto& [k, n] : s.dirtyLag()) now[Kiv::textOf(k)] = n;
    return now == lags;
  }
  std::map<std::string, uint32_t> lags;
};

// What a reader's agent learns through its notifiee alone.
class Mirror : public VrfConfig::Notifiee {
 public:
  explicit Mirror(bool slow) : slow_(slow) {}
  void onRouting() override { routing = notifier()->routing(); pace(); }
  void onActivityPollingInterval() override { poll = notifier()->activityPollingInterval(); pace(); }
  void onConfig(const Kiv::Name& k) override {
    if (notifier()->config(k)) {
      configs.insert(k.stdString());
    } else {
      configs.erase(k.stdString());
    }
    pace();
  }
  using VrfConfig::NotifieeConst::onConfig;
  bool matches(const VrfConfig& v) const {
    std::set<std::string> names;
    for (const auto& [k, c] : v.config()) names.insert(k.stdString());
    return routing == v.routing() && poll == v.activityPollingInterval() && names == configs;
  }
  bool routing = false;
  uint8_t poll = 60;
  std::set<std::string> configs{"default"};

 private:
  // The slow reader spends a while on every change, so that its channel fills.
  void pace() {
    if (!slow_) return;
    const auto until = Clock::now() + std::chrono::microseconds(20);
    while (Clock::now() < until) {
    }
  }
  bool slow_;
};

IpGenRouteKey routeKey(unsigned i) {
  return makeRouteKeyMroute(Orvet::Prefix::fromText("10.0.0.1/32"),
                            Orvet::Prefix::fromText(("239.1.0." + std::to_string(i)).c_str()));
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path + ".tmp") << content;
  std::filesystem::rename(path + ".tmp", path);
}

std::string readFile(const std::string& path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// The writer: `changes` random changes over `vrfs` VRFs, as fast as it can,
// serving its readers between bursts; then publishes its digest and serves on.
[[noreturn]] void writer(const std::string& dir, int gen, unsigned seed, int changes, unsigned vrfs) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  EventLoop loop;
  Kiv::Ptr<VrfConfig> root = VrfConfigIs("config");
  Kiv::NboAttrLog::WriterMount mount(loop, kPath, root, VrfConfig::KivNboAttrLogSa::logType());
  Kiv::Ptr<Hw::Status> hw = Hw::StatusIs("status");
  Kiv::NboAttrLog::WriterMount hwMount(loop, kHwPath, hw, Hw::Status::KivNboAttrLogSa::logType());
  std::mt19937 rng(seed);
  auto vrf = [&] { return Kiv::Name("vrf" + std::to_string(rng() % vrfs)); };
  auto hwVrf = [&] { return hw->vrfStatusIs(L3::VrfName("vrf" + std::to_string(rng() % vrfs))); };
  auto lag = [&] { return Orvet::IntfId("Port-Channel" + std::to_string(1 + rng() % 8)); };
  for (int i = 0; i < changes; ++i) {
    switch (rng() % 16) {
      case 10: hw->pollingIntervalIs(static_cast<uint8_t>(rng())); break;
      case 11: hw->dirtyLagIs(lag(), rng() % 100); hw->anyDirtyLagIs(!hw->dirtyLag().empty()); break;
      case 12: hw->dirtyLagDel(lag()); hw->anyDirtyLagIs(!hw->dirtyLag().empty()); break;
      case 13: {
        Kiv::Ptr<Hw::RouteStatus> r = hwVrf()->routeIs(routeKey(rng() % 32));
        Hw::HwFlags f;
        f.noRouteIs(rng() & 1);
        r->hwFlagsIs(f);
        r->lastPollTimeIs(i);
        break;
      }
      case 14: hwVrf()->routeDel(routeKey(rng() % 32)); break;
      case 15: if (rng() % 16 == 0) hw->vrfStatusDel(L3::VrfName("vrf" + std::to_string(rng() % vrfs))); else hwVrf()->fastdropCountIs(rng() % 100); break;
      case 0: root->routingIs(rng() & 1); break;
      case 1: root->activityPollingIntervalIs(static_cast<uint8_t>(rng())); break;
      case 2: root->configIs(vrf()); break;
      case 3: root->configIs(vrf())->maxFastdropsIs(rng() % 5000); break;
      case 4: root->configIs(vrf())->counterRouteIs(routeKey(rng() % 64), rng() & 1); break;
      case 5: root->configIs(vrf())->counterRouteDel(routeKey(rng() % 64)); break;
      case 6: root->intfConfigIs(Kiv::Name("Ethernet" + std::to_string(rng() % 16)))->noFastdropIs(rng() & 1); break;
      case 7: root->intfConfigDel(Kiv::Name("Ethernet" + std::to_string(rng() % 16))); break;
      case 8: if (rng() % 8 == 0) root->configDel(vrf()); break;
      default: root->configIs(vrf())->routingIs(rng() & 1); break;
    }
    if (i % 256 == 0) loop.runOnce(std::chrono::milliseconds(0));
  }
  writeFile(dir + "/blocked." + std::to_string(gen), std::to_string(mount.timesBlocked()));
  writeFile(dir + "/expected." + std::to_string(gen), digest(*root, *hw));
  for (;;) loop.runOnce(std::chrono::milliseconds(100));
}

// A reader: follows the tree until it matches each generation's digest.
[[noreturn]] void reader(const std::string& dir, const std::string& name, bool slow, int gens) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  EventLoop loop;
  Kiv::Ptr<VrfConfig> root = VrfConfigIs("config");
  Mirror mirror(slow);
  mirror.notifierIs(root);
  Kiv::NboAttrLog::ReaderMount mount(loop, kPath, root, VrfConfig::KivNboAttrLogSa::logType(),
                                     std::chrono::milliseconds(20));
  Kiv::Ptr<Hw::Status> hw = Hw::StatusIs("status");
  LagMirror lags;
  lags.notifierIs(hw);
  Kiv::NboAttrLog::ReaderMount hwMount(loop, kHwPath, hw, Hw::Status::KivNboAttrLogSa::logType(),
                                       std::chrono::milliseconds(20));
  const auto deadline = Clock::now() + std::chrono::seconds(90);
  for (int gen = 1; gen <= gens;) {
    loop.runOnce(std::chrono::milliseconds(5));
    if (Clock::now() > deadline) _exit(2);
    const std::string expected = readFile(dir + "/expected." + std::to_string(gen));
    // The slow reader also reads nothing until the first writer is done, so
    // that its channel surely fills.
    for (auto* m : {&mount, &hwMount}) {
      if (slow && m->in()) m->in()->readingIs(gen > 1 || !expected.empty());
    }
    if (expected.empty() || !mount.synced() || !hwMount.synced() || digest(*root, *hw) != expected) continue;
    if (!mirror.matches(*root) || !lags.matches(*hw)) _exit(3);
    writeFile(dir + "/ok." + name + "." + std::to_string(gen), std::to_string(mount.connections()));
    ++gen;
  }
  _exit(0);
}

template <class F>
pid_t spawn(F&& f) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    try {
      f();
    } catch (...) {
      _exit(4);
    }
  }
  return pid;
}

bool waitForFiles(const std::vector<std::string>& paths, std::chrono::seconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    bool all = true;
    for (const auto& p : paths) all = all && std::filesystem::exists(p);
    if (all) return true;
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int exitCode(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(MountProcessTest, ReadersConvergeOnTheWriterAndOnItsRestart) {
  Testing::ShmRootScope shm("mount");
  const std::string dir = std::filesystem::temp_directory_path() / ("mroute-mount-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  // The readers start first: they connect when the writer appears.
  const pid_t a = spawn([&] { reader(dir, "a", false, 2); });
  const pid_t b = spawn([&] { reader(dir, "b", true, 2); });
  const pid_t doomed = spawn([&] { reader(dir, "c", false, 2); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const pid_t w1 = spawn([&] { writer(dir, 1, 1, kChanges, 8); });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  ::kill(doomed, SIGKILL);  // a reader that dies does not disturb the writer
  EXPECT_EQ(exitCode(doomed), 128 + SIGKILL);
  EXPECT_TRUE(waitForFiles({dir + "/ok.a.1", dir + "/ok.b.1"}, std::chrono::seconds(60)));
  EXPECT_GT(std::stoi(readFile(dir + "/blocked.1")), 0);  // the slow reader's channel blocked
  ::kill(w1, SIGKILL);
  EXPECT_EQ(exitCode(w1), 128 + SIGKILL);  // it was still serving: nothing killed it but us
  const pid_t w2 = spawn([&] { writer(dir, 2, 2, 20000, 4); });
  EXPECT_TRUE(waitForFiles({dir + "/ok.a.2", dir + "/ok.b.2"}, std::chrono::seconds(60)));
  EXPECT_EQ(exitCode(a), 0);
  EXPECT_EQ(exitCode(b), 0);
  ::kill(w2, SIGKILL);
  exitCode(w2);
  // Each reader followed the first writer on one connection, then reconnected
  // (a reader may also reach the dying writer's backlog once before it closes).
  for (const char* r : {"a", "b"}) {
    EXPECT_EQ(readFile(dir + "/ok." + r + ".1"), "1");
    EXPECT_GE(std::stoi(readFile(dir + "/ok." + r + ".2")), 2);
  }
  EXPECT_NE(readFile(dir + "/expected.1"), readFile(dir + "/expected.2"));
  std::filesystem::remove_all(dir);
}

}  // namespace
