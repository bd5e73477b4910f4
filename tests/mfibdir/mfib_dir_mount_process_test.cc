// The directory across processes: an application process publishes its
// MfibDir as a mounted entity tree; the forwarding process (this one) names
// no application: its MfibDirWatch finds the tree when the application
// starts, mounts it read-only and enters it into the directory, and MfibDirSm
// follows it: table sets announced later are mounted, withdrawn ones dropped;
// after the application is killed and restarted its announcements come back
// with the tables it kept, and when it unmounts its tree its directory goes.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "mfib_test_util.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/mfibdir/mfib_dir_sm.h"
#include "mroute/mfibdir/mfib_dir_watch.h"
#include "mroute/mfibdir/mfib_dir_writer.h"
#include "mroute/table/shm_root.h"

namespace {

using namespace MfibTest;
using Brume::Multicast::Fib::MfibBrumeDir;
using Brume::Multicast::Fib::MfibDir;
using Brume::Multicast::Fib::MfibDirDirectory;
using Brume::Multicast::Fib::MfibDirSm;
using Brume::Multicast::Fib::MfibDirWatch;
using Brume::Multicast::Fib::MfibDirWriter;
using Brume::Multicast::Fib::MfibEntityManager;

const L3::VrfName kRed("red");
const IpGenRouteKey kKey = key("10.0.0.1/32", "232.0.0.1/32");

// Where an application publishes its directory: one tree per application.
std::string dirPath(const std::string& app) { return MfibDir::mountPath(Orvet::AddressFamily(1)) + "/" + app; }

// The application: announces a table set "pim" in red (priority 1), then
// obeys one-letter commands: 'a' adds a second table set "pim2" (priority
// 2), 'd' deletes it, 'q' quits.
[[noreturn]] void runApp(int commands) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  int code = 0;
  try {
    Mroute::Loop::EventLoop loop;
    MfibEntityManager manager(loop);
    MfibDirWriter writer("pim", Brume::Multicast::Fib::MfibDirDirectoryIs("directory"),
                         Brume::Multicast::Fib::MfibBrumeDirIs("pim"), manager);
    writer.handleInitialized();
    Kiv::NboAttrLog::WriterMount mount(loop, dirPath("pim"), writer.mfibDir(), MfibDir::KivNboAttrLogSa::logType());
    Kiv::Ptr<Status> s = writer.doAddBrume(kRed, "pim");
    if (s->route(kKey) == Route()) s->routeIs(route(kKey, 1));  // a restart keeps what is there
    ::fcntl(commands, F_SETFL, O_NONBLOCK);
    for (;;) {
      loop.runOnce(std::chrono::milliseconds(5));
      char cmd;
      const ssize_t got = ::read(commands, &cmd, 1);
      if (got == 0 || (got == 1 && cmd == 'q')) break;
      if (got != 1) continue;
      if (cmd == 'a') writer.doAddBrume(kRed, "pim2")->routeIs(route(kKey, 2));
      if (cmd == 'd') writer.doDelBrume(kRed, "pim2");
    }
  } catch (...) {
    code = 3;
  }
  ::_exit(code);
}

struct App {
  pid_t pid = -1;
  int commands = -1;
  void start() {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    pid = ::fork();
    if (pid == 0) {
      ::close(fds[1]);
      runApp(fds[0]);
    }
    ::close(fds[0]);
    commands = fds[1];
  }
  void send(char c) { ASSERT_EQ(::write(commands, &c, 1), 1); }
  int stop(int sig) {
    if (sig != 0) ::kill(pid, sig);
    if (sig == 0) send('q');
    ::close(commands);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
  }
};

TEST(MfibDirMountProcessTest, ForwardingFollowsAnApplicationsDirectoryInAnotherProcess) {
  Testing::ShmRootScope root{"mfibdirmount"};
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager(loop);
  Kiv::Ptr<MfibDirDirectory> directory = Brume::Multicast::Fib::MfibDirDirectoryIs("directory");
  Kiv::Ptr<MfibBrumeDir> brumeDir = Brume::Multicast::Fib::MfibBrumeDirIs("forwarding");
  MfibDirSm sm(directory, brumeDir, manager);
  Mroute::Trace::CaptureSink sink{"Mroute::MfibBrume"};
  MfibDirWatch watch(loop, Orvet::AddressFamily(1), directory, MfibDirWatch::kSettle, std::chrono::milliseconds(20));

  App app;
  app.start();
  auto red = [&] { return brumeDir->brumeColl(kRed); };
  auto winner = [&] { return red() ? red()->route(kKey).routePriority().value() : -1; };
  auto waitFor = [&](auto pred) { return Testing::runUntil(loop, pred, std::chrono::milliseconds(10000)); };
  ASSERT_TRUE(waitFor([&] { return winner() == 1; }));  // found, though started after the watch
  EXPECT_NE(sm.appDirSm(Kiv::Name("pim"))->mfibColl(kRed), nullptr);
  EXPECT_TRUE(sink.contains("Mroute::MfibBrume", "Created Mfib directory pim"));

  app.send('a');  // a table set added while the forwarding process runs
  ASSERT_TRUE(waitFor([&] { return winner() == 2; }));
  EXPECT_EQ(red()->brumePtr().size(), 2u);
  app.send('d');  // and withdrawn: dropped, the first one answers again
  ASSERT_TRUE(waitFor([&] { return red() && red()->brumePtr().size() == 1 && winner() == 1; }));

  // Killed: the tables outlive it and the mounted table set keeps answering.
  EXPECT_EQ(WTERMSIG(app.stop(SIGKILL)), SIGKILL);
  for (int i = 0; i < 10; ++i) loop.runOnce(std::chrono::milliseconds(5));
  EXPECT_EQ(winner(), 1);
  EXPECT_FALSE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory pim"));
  // Restarted: its directory comes back and its changes are followed again.
  app.start();
  const auto* mount = watch.mount("pim");
  ASSERT_NE(mount, nullptr);
  ASSERT_TRUE(waitFor([&] { return mount->connections() >= 2 && mount->synced() && winner() == 1; }));
  EXPECT_FALSE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory pim"));  // kept across the restart
  {  // a watch started while the tree is there enters it at once
    Kiv::Ptr<MfibDirDirectory> late = Brume::Multicast::Fib::MfibDirDirectoryIs("late");
    MfibDirWatch lateWatch(loop, Orvet::AddressFamily(1), late);
    EXPECT_NE(late->mfibDir(Kiv::Name("pim")), nullptr);
  }
  app.send('a');
  ASSERT_TRUE(waitFor([&] { return winner() == 2; }));
  // Stopped cleanly: its tree goes, and with it its directory and table sets.
  EXPECT_EQ(app.stop(0), 0);
  ASSERT_TRUE(waitFor([&] { return watch.trees() == 0 && red() == nullptr; }));
  EXPECT_EQ(sm.appDirSm(Kiv::Name("pim")), nullptr);
  EXPECT_TRUE(sink.contains("Mroute::MfibBrume", "Deleted Mfib directory pim"));
  // The fib directory itself removed: it is made and watched again, and an
  // application starting afterwards is found.
  std::filesystem::remove_all(Brume::shmRootDirectory() + "/" + MfibDir::mountPath(Orvet::AddressFamily(1)));
  for (int i = 0; i < 20; ++i) loop.runOnce(std::chrono::milliseconds(5));
  app.start();
  ASSERT_TRUE(waitFor([&] { return winner() == 1; }));
  EXPECT_EQ(app.stop(0), 0);
}

}  // namespace
