// A peer's attribute-log stream as a reader receives it: the bytes arrive
// on the connection, are framed into records and applied to a FIB
// configuration through the incoming adapter. Whatever the bytes, the
// reader either applies them or drops the connection with a message, and
// drops it at the latest when the peer's end closes.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "mroute/entities/fib/config.h"
#include "mroute/entity/replication/attr_log_tree.h"
#include "mroute/entity/replication/nbo_attr_log.h"
#include "mroute/runtime/loop/event_loop.h"

using namespace Kiv::NboAttrLog;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Mroute::Loop::EventLoop loop;
  // The socket's buffer takes a whole input; longer ones add nothing.
  if (size > 64 * 1024) return 0;
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) std::abort();
  const int big = 256 * 1024;
  ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  if (size > 0 && ::write(fds[0], data, size) != static_cast<ssize_t>(size)) std::abort();
  ::shutdown(fds[0], SHUT_WR);

  Kiv::Ptr<Routing::Multicast::Fib::Config> root = new Routing::Multicast::Fib::Config("default");
  {
    TreeReplica replica(root, Routing::Multicast::Fib::Config::KivNboAttrLogSa::logType());
    Kiv::Ptr<In> in = new In(loop, fds[1], "fuzz");
    bool dropped = false;
    in->recordHandlerIs([&](RecordType t, WireReader& body) { replica.handleRecord(t, body); });
    in->droppedHandlerIs([&] { dropped = true; });
    for (int i = 0; i < 100 && !dropped; ++i) loop.runOnce(std::chrono::milliseconds(10));
    if (!dropped) std::abort();  // the peer is gone: the connection must go too
    replica.connectionEnd();
  }
  ::close(fds[0]);
  return 0;
}
