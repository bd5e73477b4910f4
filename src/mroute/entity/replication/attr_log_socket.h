// Where the attribute log of a mounted entity tree listens, and the two ways
// to reach it: the writer's Listener and a reader's connect.
//
// The socket of the tree mounted at <mount path> is the file
//   <shared-memory root>/<mount path>/attrlog.sock
// beside the tree's tables, with the root and path rules of the tables
// (nothing escapes the root; "Q9_CHROOT" applies). Its directories are made
// with the tables' mode and the socket itself is made 0600 before anyone can
// connect: only the owning user's agents reach it.
//
// Thread-safety: single-threaded, on the loop given.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/runtime/loop/event_loop.h"

namespace Kiv::NboAttrLog {

inline constexpr const char* kSocketName = "attrlog.sock";

// Throws Pavo::InvalidInitializeException for a mount path that would leave
// the root, or a path too long for a Unix socket address.
std::string socketPath(std::string_view mountPath);

// A non-blocking connected socket to `path`, or -1 with errno set (ENOENT,
// ECONNREFUSED: no writer now).
int connectTo(const std::string& path);

// The writer's listening socket. A socket file left by a writer that died is
// replaced; one that a live writer answers on is not, and the constructor
// throws Pavo::InvalidInitializeException ("... another writer serves ...").
class Listener {
 public:
  // Called with each accepted, non-blocking socket (the callee owns it).
  using Accept = std::function<void(int fd)>;

  Listener(Mroute::Loop::EventLoop& loop, std::string path, Accept accept);
  ~Listener();  // closes and removes the socket file
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  const std::string& path() const { return path_; }

 private:
  void onReadable();

  std::string path_;
  int fd_ = -1;
  Accept accept_;
  std::unique_ptr<Mroute::Loop::FdWatch> watch_;
};

}  // namespace Kiv::NboAttrLog
