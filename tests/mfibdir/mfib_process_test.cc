// Routing applications in separate processes publish routes for overlapping
// keys in VRFs default and red, each announcing its table sets in its own
// directory tree. This process, the forwarding agent, names no application:
// MfibDirWatch finds the trees, MfibDirSm mounts what they announce, and
// selection, the interface walk and the ordered view answer from the
// mounted tables. Run once per address family.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "mfib_test_util.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/mfibdir/mfib_dir_sm.h"
#include "mroute/mfibdir/mfib_dir_watch.h"
#include "mroute/mfibdir/mfib_dir_writer.h"
#include "mroute/mfibdir/order_route_sm.h"
#include "mroute/route/route_intf_iterator.h"
#include "mroute/table/shm_root.h"

namespace {

using namespace MfibTest;
using namespace Brume::Multicast::Fib;
using Names = std::vector<std::string>;

const L3::VrfName kVrfs[] = {L3::VrfName("default"), L3::VrfName("red")};
const L3::VrfName kRed("red");

// An application: its name, the priority of its routes and the keys it
// publishes in every VRF.
struct App {
  std::string name;
  uint8_t priority;
  std::vector<int> keys;
};
const App kLow{"low", 1, {0, 1, 2, 3}}, kHigh{"high", 2, {1, 2, 3}}, kZero{"zero", 0, {2, 3, 4}}, kLate{"late", 3, {5}};

IpGenRouteKey keyN(Orvet::AddressFamily af, int n) {
  const std::string g = af.value() == 1 ? "232.0.0." : "ff3e::8000:";
  return af.value() == 1 ? key("10.0.0.1/32", (g + std::to_string(n) + "/32").c_str())
                         : key("2001:db8::1/128", (g + std::to_string(n) + "/128").c_str());
}

// The application process: publishes its directory tree and routes (a
// restart keeps what is there), then obeys two-byte commands on its pipe:
// 'w'<n> withdraws key n everywhere, 'd' deletes its red table set, 'q' quits.
void runApp(Orvet::AddressFamily af, const App& app, int commands) {
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager(loop);
  MfibDirWriter writer(app.name, MfibDirDirectoryIs("directory"), MfibBrumeDirIs(app.name), manager, af);
  writer.handleInitialized();
  Kiv::NboAttrLog::WriterMount tree(loop, MfibDir::mountPath(af) + "/" + app.name, writer.mfibDir(),
                                    MfibDir::KivNboAttrLogSa::logType());
  for (const L3::VrfName& vrf : kVrfs) {
    Kiv::Ptr<Status> s = writer.doAddBrume(vrf, app.name);
    for (uint16_t i : {1, 2}) {  // oif 1 and 2 name this application's own interfaces
      s->oifIndexIntfIs(OifIndexIntf(OifIndex(i), Orvet::IntfId("Ethernet" + std::to_string(app.priority * 10 + i)), 1));
    }
    for (int n : app.keys) {
      Route r = route(keyN(af, n), app.priority);
      r.iifIs(Orvet::IntfId("Vlan" + std::to_string(10 + app.priority)));
      r.oifIs(OifIndex(1), true);
      r.oifIs(OifIndex(2), true);
      r.maxOifIndexIs(OifIndex(2));
      if (s->route(r.key()) == Route()) s->routeIs(r);
    }
  }
  ::fcntl(commands, F_SETFL, O_NONBLOCK);
  for (;;) {
    loop.runOnce(std::chrono::milliseconds(5));
    char cmd[2];
    const ssize_t got = ::read(commands, cmd, 2);
    if (got == 0 || (got == 2 && cmd[0] == 'q')) return;
    if (got == 2 && cmd[0] == 'w') {
      for (const L3::VrfName& vrf : kVrfs) writer.mfibBrume(app.name, vrf)->routeDel(keyN(af, cmd[1] - '0'));
    }
    if (got == 2 && cmd[0] == 'd') writer.doDelBrume(kRed, app.name);
  }
}

struct Child {
  pid_t pid = -1;
  int commands = -1;

  void send(char cmd, char arg = '0') {
    const char buf[2] = {cmd, arg};
    ASSERT_EQ(::write(commands, buf, 2), 2);
  }
  // With a signal, or by the quit command (children forked later hold the
  // pipe too, so closing it is not enough). Returns the wait status.
  int stop(int sig = 0) {
    if (sig != 0) ::kill(pid, sig);
    if (sig == 0) send('q');
    ::close(commands);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
  }
};

Child spawn(Orvet::AddressFamily af, const App& app) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a failed test
    ::close(fds[1]);
    int code = 0;
    try {
      runApp(af, app, fds[0]);
    } catch (...) {
      code = 3;
    }
    ::_exit(code);
  }
  ::close(fds[0]);
  return {pid, fds[1]};
}

class MfibProcessTest : public testing::TestWithParam<int> {
 protected:
  bool waitFor(const std::function<bool()>& pred) { return Testing::runUntil(loop, pred, std::chrono::seconds(10)); }
  Kiv::Ptr<MfibBrumeColl> coll(const L3::VrfName& vrf) { return brumeDir->brumeColl(vrf); }
  // The application whose route wins key n in vrf; "" for none.
  std::string winner(const L3::VrfName& vrf, int n) {
    const Kiv::Ptr<Status> s = coll(vrf) ? coll(vrf)->mfibBrume(keyN(af, n)) : nullptr;
    return s ? s->name().stdString() : "";
  }
  bool winnerIs(int n, const std::string& app) { return winner(kVrfs[0], n) == app && winner(kVrfs[1], n) == app; }
  // Every VRF holds `sets` table sets, each with its oif-index table read.
  bool ready(size_t sets) {
    for (const L3::VrfName& vrf : kVrfs) {
      if (!coll(vrf) || coll(vrf)->brumePtr().size() != sets) return false;
      for (const auto& [n, s] : coll(vrf)->brumePtr()) {
        if (!s->route().front()->ready() || s->oifIndexIntf().size() != 2) return false;
      }
    }
    return true;
  }

  const Orvet::AddressFamily af{static_cast<uint8_t>(GetParam())};
  Testing::ShmRootScope root{"mfibproc"};
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager{loop};
  Mroute::Trace::CaptureSink sink{"Mroute::MfibBrume"};
  Kiv::Ptr<MfibDirDirectory> directory = MfibDirDirectoryIs("directory");
  Kiv::Ptr<MfibBrumeDir> brumeDir = MfibBrumeDirIs("forwarding");
  MfibDirSm sm{directory, brumeDir, manager};
};

TEST_P(MfibProcessTest, ForwardingFollowsApplicationsInOtherProcesses) {
  MfibDirWatch watch(loop, af, directory, MfibDirWatch::kSettle, std::chrono::milliseconds(20));
  Child low = spawn(af, kLow), high = spawn(af, kHigh), zero = spawn(af, kZero);
  ASSERT_TRUE(waitFor([&] { return ready(3) && coll(kRed)->routes() == 4; }));
  EXPECT_TRUE(sink.contains("Mroute::MfibBrume", "Created Mfib directory high"));

  for (const L3::VrfName& vrf : kVrfs) {
    SCOPED_TRACE(vrf.str());
    const Kiv::Ptr<MfibBrumeColl> c = coll(vrf);
    EXPECT_EQ(winner(vrf, 0), "low");
    for (int n : {1, 2, 3}) {
      EXPECT_EQ(winner(vrf, n), "high");
      EXPECT_EQ(c->nextBestBrume(c->brumeKey(keyN(af, n)), keyN(af, n))->name().stdString(), "low");
    }
    EXPECT_EQ(winner(vrf, 4), "");  // only a priority-0 route
    // The winner's interfaces, named through its own oif-index table.
    Names names;
    RouteIntfIteratorConst it(c->route(keyN(af, 2)), *c->mfibBrume(keyN(af, 2)));
    for (it.next(); !it.atEnd(); it.next()) names.push_back(it.intf().name());
    EXPECT_EQ(names, (Names{"Vlan12", "Ethernet21", "Ethernet22"}));
  }
  // The ordered view of red, in key order, follows the directory's changes.
  Kiv::Ptr<RouteOrderedCollection> view = RouteOrderedCollectionIs("red");
  OrderRouteSm orderSm(coll(kRed), view);
  orderSm.handleInitialized();
  auto viewKeys = [&] {
    std::vector<IpGenRouteKey> keys;
    for (const auto& [k, number] : view->route()) keys.push_back(k);
    return keys;
  };
  EXPECT_EQ(viewKeys(), (std::vector<IpGenRouteKey>{keyN(af, 0), keyN(af, 1), keyN(af, 2), keyN(af, 3)}));

  high.send('w', '1');  // the winner withdraws: the next best takes over
  ASSERT_TRUE(waitFor([&] { return winnerIs(1, "low"); }));
  low.send('d');  // low deletes its red table set: it leaves red only, and red's view
  waitFor([&] { return coll(kRed)->brumePtr().size() == 2 && view->route().size() == 2; });
  EXPECT_EQ(coll(kRed)->brumePtr().size(), 2u);
  EXPECT_EQ(viewKeys(), (std::vector<IpGenRouteKey>{keyN(af, 2), keyN(af, 3)}));
  EXPECT_EQ(winner(kRed, 0), "");
  EXPECT_EQ(winner(kVrfs[0], 0), "low");

  Child late = spawn(af, kLate);  // starts while the forwarding process runs
  ASSERT_TRUE(waitFor([&] { return winnerIs(5, "late"); }));

  // Killed, high keeps its directory and its tables keep answering.
  EXPECT_EQ(WTERMSIG(high.stop(SIGKILL)), SIGKILL);
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(5));
  EXPECT_TRUE(winnerIs(2, "high"));
  EXPECT_FALSE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory high"));
  {  // a watch started while trees are there enters them at once
    Kiv::Ptr<MfibDirDirectory> other = MfibDirDirectoryIs("other");
    MfibDirWatch otherWatch(loop, af, other);
    EXPECT_EQ(other->mfibDir().size(), 4u);
  }
  // Restarted, it finds what it had, publishes key 1 again and is followed.
  high = spawn(af, kHigh);
  ASSERT_TRUE(waitFor([&] { return winnerIs(1, "high"); }));
  high.send('w', '3');
  ASSERT_TRUE(waitFor([&] { return winner(kVrfs[0], 3) == "low" && winner(kRed, 3).empty(); }));
  EXPECT_TRUE(winnerIs(2, "high"));
  EXPECT_FALSE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory high"));

  // Stopped cleanly, the applications' trees go and their table sets with
  // them; one killed for good stays until its tree is removed.
  for (Child* c : {&low, &zero, &late}) EXPECT_EQ(c->stop(), 0);
  EXPECT_EQ(WTERMSIG(high.stop(SIGKILL)), SIGKILL);
  ASSERT_TRUE(waitFor([&] { return watch.trees() == 1 && coll(kRed) && coll(kRed)->brumePtr().size() == 1; }));
  EXPECT_TRUE(winnerIs(2, "high"));
  std::filesystem::remove_all(Brume::shmRootDirectory() + "/" + MfibDir::mountPath(af) + "/high");
  ASSERT_TRUE(waitFor([&] { return watch.trees() == 0 && coll(kVrfs[0]) == nullptr && coll(kRed) == nullptr; }));
  EXPECT_EQ(sm.appDirSm(Kiv::Name("high")), nullptr);
  EXPECT_TRUE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory high"));
  EXPECT_TRUE(view->route().empty());
  // The fib directory itself removed: it is made and watched again.
  std::filesystem::remove_all(Brume::shmRootDirectory() + "/" + MfibDir::mountPath(af));
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(5));
  late = spawn(af, kLate);
  ASSERT_TRUE(waitFor([&] { return winnerIs(5, "late"); }));
  EXPECT_EQ(late.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Families, MfibProcessTest, testing::Values(1, 2),
                         [](const auto& info) { return info.param == 1 ? "Ipv4" : "Ipv6"; });

}  // namespace
