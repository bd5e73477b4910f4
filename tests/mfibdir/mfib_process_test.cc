// Routing applications in separate processes publish routes for overlapping
// keys in two VRFs; this process, the forwarding agent, opens their table
// sets by mount path and checks, for every key, the winner, the next best
// after the winner withdraws, the interfaces of the winning route, and the
// ordered view. An application that deletes its table set leaves selection;
// one that starts later is picked up; one killed with SIGKILL and restarted
// loses nothing, and meanwhile its tables keep answering.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mfib_test_util.h"
#include "mroute/mfibdir/merged_route_iterator.h"
#include "mroute/mfibdir/mfib_dir_writer.h"
#include "mroute/mfibdir/order_route_sm.h"
#include "mroute/route/route_intf_iterator.h"

namespace {

using namespace MfibTest;
using Brume::Multicast::Fib::MfibBrumeColl;
using Brume::Multicast::Fib::MfibBrumeDir;
using Brume::Multicast::Fib::MfibDirWriter;
using Brume::Multicast::Fib::MfibEntityManager;
using Brume::Multicast::Fib::OifIndex;
using Brume::Multicast::Fib::OifIndexIntf;
using Brume::Multicast::Fib::RouteIntfIteratorConst;

const L3::VrfName kVrfs[] = {L3::VrfName("default"), L3::VrfName("red")};

IpGenRouteKey keyN(int n) { return key("10.0.0.1/32", ("232.0.0." + std::to_string(n) + "/32").c_str()); }

// An application: its number (1..), the priority of its routes and the
// keys it publishes in every VRF.
struct App {
  std::string name;
  uint8_t priority;
  std::vector<int> keys;
};

// The application process: publishes, then obeys one-letter commands on its
// pipe: 'w'<n> withdraws key n, 'd' deletes its red table set, 'q' quits.
void runApp(const App& app, int commands) {
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager(loop);
  MfibDirWriter writer(app.name, Brume::Multicast::Fib::MfibDirDirectoryIs("directory"),
                       Brume::Multicast::Fib::MfibBrumeDirIs(app.name), manager);
  writer.handleInitialized();
  for (const L3::VrfName& vrf : kVrfs) {
    Kiv::Ptr<Status> s = writer.doAddBrume(vrf, app.name);
    // oif 1 and 2 are this application's own interfaces.
    for (uint16_t i : {1, 2}) {
      s->oifIndexIntfIs(OifIndexIntf(OifIndex(i), Orvet::IntfId("Ethernet" + std::to_string(app.priority * 10 + i)), 1));
    }
    for (int n : app.keys) {
      Route r = route(keyN(n), app.priority, 1);
      r.iifIs(Orvet::IntfId("Vlan" + std::to_string(10 + app.priority)));
      r.oifIs(OifIndex(1), true);
      r.oifIs(OifIndex(2), true);
      r.maxOifIndexIs(OifIndex(2));
      if (s->route(keyN(n)) == Route()) s->routeIs(r);  // a restart keeps what is there
    }
  }
  ::fcntl(commands, F_SETFL, O_NONBLOCK);
  for (;;) {
    loop.runOnce(std::chrono::milliseconds(5));
    char cmd[2];
    const ssize_t got = ::read(commands, cmd, sizeof cmd);
    if (got == 0) return;
    if (got != 2) continue;
    if (cmd[0] == 'q') return;
    if (cmd[0] == 'w') {
      for (const L3::VrfName& vrf : kVrfs) writer.mfibBrume(app.name, vrf)->routeDel(keyN(cmd[1] - '0'));
    }
    if (cmd[0] == 'd') writer.doDelBrume(L3::VrfName("red"), app.name);
  }
}

struct Child {
  pid_t pid = -1;
  int commands = -1;
};

Child spawnApp(const App& app) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a failed test
    ::close(fds[1]);
    int code = 0;
    try {
      runApp(app, fds[0]);
    } catch (...) {
      code = 3;
    }
    ::_exit(code);
  }
  ::close(fds[0]);
  return {pid, fds[1]};
}

void send(const Child& c, char cmd, char arg = '0') {
  const char buf[2] = {cmd, arg};
  ASSERT_EQ(::write(c.commands, buf, 2), 2);
}

// Stops the child: with a signal, or by its quit command (its pipe may be
// held open by children forked later, so closing it is not enough).
int finish(Child& c, int sig = 0) {
  if (c.pid <= 0) return -1;
  if (sig != 0) {
    ::kill(c.pid, sig);
  } else {
    send(c, 'q');
  }
  if (c.commands >= 0) ::close(c.commands);
  c.commands = -1;
  int status = 0;
  ::waitpid(c.pid, &status, 0);
  c.pid = -1;
  return status;
}

class MfibProcessTest : public testing::Test {
 protected:
  // The forwarding process opens app's table sets (whether or not they
  // exist yet) under table-set number `number` in every VRF.
  void follow(const App& app, uint32_t number) {
    for (const L3::VrfName& vrf : kVrfs) {
      const std::string path = Status::mountPath(Orvet::AddressFamily(1), vrf, Kiv::Name(app.name));
      colls[vrf]->brumePtrIs(number, manager.mountStatus(path, Brume::BrumeType::reader,
                                                          Brume::Multicast::Fib::TableInfo::mfibMountInfo(
                                                              Status::type().name)));
    }
  }
  bool waitFor(const std::function<bool()>& pred) {
    return Testing::runUntil(loop, pred, std::chrono::milliseconds(10000));
  }
  // Every table of every followed table set is attached (a route may be
  // visible before its oif-index table is).
  bool allAttached() {
    for (const auto& [vrf, coll] : colls) {
      for (const auto& [n, s] : coll->brumePtr()) {
        if (!s->route().front()->ready() || !s->oifIndexIntf().front()->ready()) return false;
      }
    }
    return true;
  }
  // Every VRF answers `number` as the winner of key n.
  bool winnerIs(int n, uint32_t number) {
    for (const auto& [vrf, coll] : colls) {
      if (coll->brumeKey(keyN(n)) != number) return false;
    }
    return true;
  }

  Testing::ShmRootScope root{"mfibproc"};
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager{loop};
  std::map<L3::VrfName, Kiv::Ptr<MfibBrumeColl>> colls{
      {kVrfs[0], Brume::Multicast::Fib::MfibBrumeCollIs("default")},
      {kVrfs[1], Brume::Multicast::Fib::MfibBrumeCollIs("red")}};
  const App low{"low", 1, {0, 1, 2, 3}};
  const App high{"high", 2, {1, 2, 3}};
  const App zero{"zero", 0, {2, 3, 4}};
  const App late{"late", 3, {5}};
};

TEST_F(MfibProcessTest, ForwardingFollowsApplicationsInOtherProcesses) {
  Child apps[] = {spawnApp(low), spawnApp(high), spawnApp(zero)};
  follow(low, 1);
  follow(high, 2);
  follow(zero, 3);
  ASSERT_TRUE(waitFor([&] {
    return allAttached() && winnerIs(0, 1) && winnerIs(3, 2) && colls[kVrfs[1]]->routes() == 4 &&
           colls[kVrfs[1]]->brumePtr(2)->oifIndexIntf().size() == 2 && colls[kVrfs[0]]->brumePtr(2)->oifIndexIntf().size() == 2;
  }));

  for (const auto& [vrf, coll] : colls) {
    SCOPED_TRACE(vrf.str());
    EXPECT_EQ(coll->brumeKey(keyN(0)), 1u);
    for (int n : {1, 2, 3}) {
      EXPECT_EQ(coll->brumeKey(keyN(n)), 2u);
      EXPECT_EQ(coll->nextBestBrume(2, keyN(n)), coll->brumePtr(1));
    }
    EXPECT_EQ(coll->brumeKey(keyN(4)), 0u);  // only a priority-0 route
    // The winner's interfaces, named through its own oif-index table.
    std::vector<std::string> names;
    RouteIntfIteratorConst it(coll->route(keyN(2)), *coll->mfibBrume(keyN(2)));
    for (it.next(); !it.atEnd(); it.next()) names.push_back(it.intf().name());
    EXPECT_EQ(names, (std::vector<std::string>{"Vlan12", "Ethernet21", "Ethernet22"}));
    std::vector<IpGenRouteKey> order;
    for (Brume::Multicast::Fib::MfibBrumeCollRouteIteratorConst m(*coll); !m.atEnd(); m.updateToBestRouteIterators()) {
      order.push_back(m.route().key());
    }
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, (std::vector<IpGenRouteKey>{keyN(0), keyN(1), keyN(2), keyN(3)}));
  }
  // The ordered view of the red VRF, kept by its reactor.
  Kiv::Ptr<Brume::Multicast::Fib::RouteOrderedCollection> view =
      Brume::Multicast::Fib::RouteOrderedCollectionIs("red");
  Brume::Multicast::Fib::OrderRouteSm orderSm(colls[kVrfs[1]], view);
  orderSm.handleInitialized();
  ASSERT_EQ(view->route().size(), 4u);
  EXPECT_EQ(view->route().begin()->first, keyN(0));

  // The winner withdraws key 1: the next best takes it.
  send(apps[1], 'w', '1');
  ASSERT_TRUE(waitFor([&] { return winnerIs(1, 1); }));
  // low deletes its red table set: it leaves red's selection only.
  send(apps[0], 'd');
  ASSERT_TRUE(waitFor([&] { return colls[kVrfs[1]]->brumeKey(keyN(0)) == 0; }));
  EXPECT_EQ(colls[kVrfs[0]]->brumeKey(keyN(0)), 1u);
  // What the directory's reactor does when the path is withdrawn (the
  // directory itself reaches this process once entities are replicated).
  colls[kVrfs[1]]->brumePtrDel(1);
  EXPECT_EQ(view->route().count(keyN(0)), 0u);

  // An application that starts while the forwarding process runs.
  follow(late, 4);
  Child lateApp = spawnApp(late);
  ASSERT_TRUE(waitFor([&] { return winnerIs(5, 4); }));

  // high killed: its tables outlive it and keep answering.
  EXPECT_EQ(WTERMSIG(finish(apps[1], SIGKILL)), SIGKILL);
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(5));
  EXPECT_TRUE(winnerIs(2, 2));
  // Restarted, it finds what it had and its changes are followed again.
  apps[1] = spawnApp(high);
  send(apps[1], 'w', '3');
  // (red has lost low's table set: nothing else can win key 3 there.)
  ASSERT_TRUE(waitFor([&] { return colls[kVrfs[0]]->brumeKey(keyN(3)) == 1 && colls[kVrfs[1]]->brumeKey(keyN(3)) == 0; }));
  EXPECT_TRUE(winnerIs(2, 2));

  for (Child& c : apps) EXPECT_EQ(finish(c), 0);
  EXPECT_EQ(finish(lateApp), 0);
}

}  // namespace
