// Mounting an entity tree by path, as its one writer or as a reader.
//
// The writer (WriterMount) listens on the tree's attribute-log socket
// (attr_log_socket.h) and gives every reader that connects the whole tree,
// then every change (TreePublisher). A slow reader never blocks the writer:
// its channel blocks instead and its changes wait as dirty bits and keys.
//
// A reader (ReaderMount) applies the tree to its own root entity through
// read-only proxies (TreeReplica). It may start before its writer: it tries
// to connect every retry interval until the writer appears. When the
// connection drops (the writer stopped or restarted) it connects again and
// resynchronises: what the new writer does not send again is deleted.
//
// Every wait (the listening socket, each connection, the retry timer) is a
// file descriptor on the agent's event loop.
//
// Thread-safety: single-threaded, on the given loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/entity/replication/attr_log_socket.h"
#include "mroute/entity/replication/attr_log_tree.h"
#include "mroute/runtime/loop/timer.h"

namespace Kiv::NboAttrLog {

class WriterMount {
 public:
  // Throws Pavo::InvalidInitializeException when the path is refused or
  // another writer serves it.
  WriterMount(Mroute::Loop::EventLoop& loop, std::string_view mountPath, const Ptr<Entity>& root,
              const AttrLogType& type);
  ~WriterMount();
  WriterMount(const WriterMount&) = delete;
  WriterMount& operator=(const WriterMount&) = delete;

  size_t readers() const { return sessions_.size(); }
  uint64_t incarnation() const { return incarnation_; }
  // Records written to all readers so far (those still connected).
  uint64_t recordsSent() const;
  // How often a reader's channel blocked, over every reader so far.
  uint64_t timesBlocked() const;

 private:
  struct Session {
    Ptr<Out> out;
    std::unique_ptr<TreePublisher> publisher;
  };
  void accept(int fd);

  Mroute::Loop::EventLoop& loop_;
  Ptr<Entity> root_;
  const AttrLogType& type_;
  uint64_t incarnation_;
  std::list<Session> sessions_;
  uint64_t blockedBefore_ = 0;  // of readers that went
  std::string mountPath_;
  std::unique_ptr<Listener> listener_;
};

class ReaderMount {
 public:
  static constexpr std::chrono::milliseconds kRetry{100};

  ReaderMount(Mroute::Loop::EventLoop& loop, std::string_view mountPath, const Ptr<Entity>& root,
              const AttrLogType& type, std::chrono::milliseconds retry = kRetry);
  ~ReaderMount();
  ReaderMount(const ReaderMount&) = delete;
  ReaderMount& operator=(const ReaderMount&) = delete;

  bool connected() const { return in_ && in_->connected(); }
  // The whole tree of the current writer has been applied.
  bool synced() const { return connected() && replica_.synced(); }
  uint64_t incarnation() const { return replica_.incarnation(); }
  uint64_t connections() const { return connections_; }
  // Why the last connection to a writer was dropped; empty before any drop.
  const std::string& lastDrop() const { return lastDrop_; }
  const std::string& path() const { return path_; }
  // The connection, to pace reading (tests, tools).
  In* in() const { return in_.ptr(); }
  TreeReplica& replica() { return replica_; }

 private:
  void tryConnect();

  Mroute::Loop::EventLoop& loop_;
  std::string path_;
  TreeReplica replica_;
  Ptr<In> in_;
  Mroute::Loop::Timer retry_;
  std::chrono::milliseconds retryEvery_;
  uint64_t connections_ = 0;
  std::string lastDrop_;
  std::string mountPath_;
};

}  // namespace Kiv::NboAttrLog
