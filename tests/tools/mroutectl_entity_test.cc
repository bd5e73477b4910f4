// mroutectl entity: prints a tree that a writer process publishes, as text
// and JSON, and follows a change.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "mroute/entities/fib/vrf_config.h"
#include "mroute/entity/replication/attr_log_socket.h"
#include "mroute/entity/replication/entity_mount.h"
#include "testing/shm_root_scope.h"
#include "tools/tool_run.h"

namespace {

using namespace Routing::Multicast::Fib;
using testing::HasSubstr;

std::string run(const std::string& args) { return ToolTest::mroutectl(args).out; }

TEST(MroutectlEntityTest, PrintsAndFollowsAPublishedTree) {
  Testing::ShmRootScope shm("ctl-entity");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t writer = ::fork();
  if (writer == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Mroute::Loop::EventLoop loop;
    Kiv::Ptr<VrfConfig> root = VrfConfigIs("config");
    Kiv::NboAttrLog::WriterMount mount(loop, "routing/multicast/vrf/config", root,
                                       VrfConfig::KivNboAttrLogSa::logType());
    root->routingIs(true);
    root->configIs("red")->maxFastdropsIs(77);
    root->intfConfigIs("Ethernet1")->noFastdropIs(true);
    if (::write(ready[1], "x", 1) != 1) _exit(1);
    // A change every 50 ms for the follower.
    for (uint32_t i = 1;; ++i) {
      loop.runOnce(std::chrono::milliseconds(50));
      root->configIs("red")->maxFastdropsIs(1000 + i);
    }
  }
  char c;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  const std::string text = run("entity routing/multicast/vrf/config");
  EXPECT_THAT(text, HasSubstr("config (Routing::Multicast::Fib::VrfConfig)\n  routing: True\n"));
  EXPECT_THAT(text, HasSubstr("\n  red (Routing::Multicast::Fib::Config)\n"));
  EXPECT_THAT(text, HasSubstr("\n  Ethernet1 (Routing::Multicast::Fib::IntfConfig)\n    noFastdrop: True\n"));
  const std::string json = run("entity routing/multicast/vrf/config --json");
  EXPECT_EQ(json.rfind("{\"name\": \"config\", \"type\": \"Routing::Multicast::Fib::VrfConfig\", \"routing\": \"True\"", 0),
            0u)
      << json;
  EXPECT_THAT(json, HasSubstr("\"'red'\": {\"name\": \"red\", \"type\": \"Routing::Multicast::Fib::Config\""));
  const std::string follow = ToolTest::finish(::popen("timeout -s INT 1 " MROUTECTL " entity routing/multicast/vrf/config --follow", "r")).out;
  EXPECT_THAT(follow, HasSubstr("config/red maxFastdrops: 10"));
  EXPECT_THAT(run("entity routing/nothing/here"), HasSubstr("no entity tree is known at 'routing/nothing/here'"));
  // Every mount path names its type, those that no agent serves here too.
  for (const char* path : {"routing/hardware/multicast/status", "routing6/multicast/fib/pim", "routing/multicast/fibready/bidir/status"}) {
    EXPECT_THAT(run(std::string("entity ") + path + " --seconds 0.05"), HasSubstr("no writer serves")) << path;
  }
  ::kill(writer, SIGKILL);
  ::waitpid(writer, nullptr, 0);
}

// Something that is not this system's writer answers on the tree's socket:
// the tool says what it sent, or that it never sent a whole tree.
TEST(MroutectlEntityTest, APeerThatIsNotAWriterIsNamedForWhatItSent) {
  Testing::ShmRootScope shm("ctl-entity-peer");
  const std::string mountPath = "routing/multicast/vrf/config";
  const std::string path = Kiv::NboAttrLog::socketPath(mountPath);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << std::strerror(errno);
  ASSERT_EQ(::listen(listener, 8), 0);
  // Every connection gets `bytes` and is then left open.
  auto answer = [&](std::string bytes) {
    return std::thread([listener, bytes] {
      std::vector<int> open;
      for (int fd; (fd = ::accept(listener, nullptr, nullptr)) >= 0;) {
        if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) break;
        open.push_back(fd);
      }
      for (int fd : open) ::close(fd);
    });
  };
  std::thread peer = answer(std::string("\0\0\0\0", 4));  // a record of length 0
  ToolTest::ToolRun r = ToolTest::mroutectl("entity " + mountPath + " --seconds 0.5");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out, "mroutectl entity: the writer at " + path +
                       " sent what a reader cannot read (malformed record: length 0): it is not this system's agent, "
                       "or not its version\n");
  ::shutdown(listener, SHUT_RDWR);  // ends the accepting thread
  peer.join();
  ::close(listener);
}

}  // namespace
