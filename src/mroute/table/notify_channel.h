// The wake-up and acknowledgement channel between a table's writer and its
// readers: one local socket per table, "notify.sock" in the table directory.
//
// Readers sleep on the socket until the writer kicks them, walk the
// notification queue (ConquerReader) and acknowledge the sequence they
// reached; the writer answers each acknowledgement with its minSeq (a reader
// below it has missed notifications and resynchronises). Through the
// acknowledgements the writer's queue (ConquerWriter) learns how many readers
// are connected (updateNumReaders), what each has seen (updateSequence, which
// also completes a shrink's corral) and when one leaves (readerGone), so it
// can prune. Messages are 16-byte datagrams on a SOCK_SEQPACKET socket:
//
//   offset 0  u32  type    1 kick (writer -> reader: news up to `value`)
//                          2 ack (reader -> writer: seen up to `value`)
//                          3 minSeq (writer -> reader: answer to an ack)
//   offset 4  u32  reserved, 0
//   offset 8  u64  value
//
// except the reader's health report (type 4, reader -> writer, 32 bytes:
// type, reserved, then u64 restarts, lookasideReads, resyncs), which it
// sends after an acknowledgement when its counters moved. The writer keeps
// each reader's acknowledgements and report on its health board
// (queue/health_board.h) for operators; a datagram of any other size or
// type is ignored.
//
// A reader is kicked once and not again until it acknowledges, so a slow
// reader costs the writer one datagram per walk, and a full socket buffer
// only means a kick is already pending. The writer is never held back by a
// reader: a reader that closes (or dies) is forgotten at once, and a reader
// that leaves a kick (or its connection) unacknowledged for longer than the
// acknowledgement timeout is disconnected, so its old acknowledgement no
// longer pins the queue. A disconnected reader reconnects and resynchronises.
//
// The socket is bound under a temporary name, listening, and then renamed
// into place, so a reader that sees "notify.sock" appear can connect at once.
// Socket paths longer than the system's limit are reached through the
// directory's /proc/self/fd link.
//
// Thread-safety: single-threaded; a server runs on its writer's event loop.
// A client is driven by whoever watches its fd() (the table front does, on
// its event loop).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/loop/timer.h"
#include "mroute/table/queue/health_board.h"

namespace Brume {

class ConquerWriter;

inline constexpr const char* kNotifySocketName = "notify.sock";

namespace channel {

// Do not renumber: the values travel between processes.
enum class MessageType : uint32_t { kick = 1, ack = 2, minSeq = 3, health = 4 };

struct Message {
  uint32_t type;
  uint32_t reserved;
  uint64_t value;
};
static_assert(sizeof(Message) == 16);
static_assert(offsetof(Message, value) == 8);

struct HealthMessage {
  uint32_t type;
  uint32_t reserved;
  uint64_t restarts;
  uint64_t lookasideReads;
  uint64_t resyncs;
};
static_assert(sizeof(HealthMessage) == 32);
static_assert(offsetof(HealthMessage, restarts) == 8);
static_assert(std::is_trivially_copyable_v<HealthMessage>);

}  // namespace channel

// The writer's end.
class NotifyServer {
 public:
  static constexpr uint64_t kNoAck = ~uint64_t{0};
  using Clock = std::chrono::steady_clock;

  struct Counters {
    uint64_t accepted = 0;
    uint64_t kicks = 0;
    uint64_t acks = 0;
    uint64_t closed = 0;   // readers that went away
    uint64_t dropped = 0;  // readers disconnected for not acknowledging
  };

  NotifyServer(Mroute::Loop::EventLoop& loop, std::string directory,
               std::chrono::milliseconds ackTimeout = std::chrono::milliseconds(2000));
  ~NotifyServer();
  NotifyServer(const NotifyServer&) = delete;
  NotifyServer& operator=(const NotifyServer&) = delete;

  // Binds "notify.sock" (replacing a stale one; the caller holds the writer
  // lock) and accepts readers. False, traced, on failure.
  bool open();
  // Disconnects every reader and removes the socket.
  void close();
  bool isOpen() const { return listenFd_ >= 0; }

  // The queue whose news is sent and which learns of the readers; null
  // detaches. Installs itself as the queue's news callback.
  void queueIs(ConquerWriter* queue);
  // Kicks every reader that has acknowledged everything before.
  void news(uint64_t sequence);
  // Where readers' connections, acknowledgements and reports are recorded
  // for operators; null records nothing.
  void boardIs(HealthBoard* board) { board_ = board; }

  uint32_t readers() const { return static_cast<uint32_t>(conns_.size()); }
  const Counters& counters() const { return counters_; }
  const std::string& path() const { return path_; }

 private:
  struct Conn {
    int fd = -1;
    std::unique_ptr<Mroute::Loop::FdWatch> watch;
    uint64_t lastAck = kNoAck;
    bool kicked = false;       // a kick is unacknowledged
    Clock::time_point since;   // when the kick (or the connection) began waiting
    uint32_t record = HealthBoard::kNoRecord;  // on the health board
  };

  void accept();
  void receive(int fd);
  void kick(Conn& c, uint64_t sequence);
  void drop(int fd, bool silent);
  void checkSilent();
  void send(Conn& c, channel::MessageType type, uint64_t value);

  Mroute::Loop::EventLoop& loop_;
  std::string directory_;
  std::string path_;
  std::chrono::milliseconds ackTimeout_;
  int listenFd_ = -1;
  std::unique_ptr<Mroute::Loop::FdWatch> listenWatch_;
  std::unique_ptr<Mroute::Loop::Timer> silentTimer_;
  std::unordered_map<int, std::unique_ptr<Conn>> conns_;
  ConquerWriter* queue_ = nullptr;
  HealthBoard* board_ = nullptr;
  Counters counters_;
};

// A reader's end. fd() is watchable by any event loop: when it is readable,
// call drain().
class NotifyClient {
 public:
  struct Inbox {
    bool kicked = false;
    bool hangup = false;  // the writer closed or dropped us; close() and reconnect
    bool hasMinSeq = false;
    uint64_t minSeq = 0;
  };

  explicit NotifyClient(std::string directory);
  ~NotifyClient() { close(); }
  NotifyClient(const NotifyClient&) = delete;
  NotifyClient& operator=(const NotifyClient&) = delete;

  // False when no writer listens.
  bool connect();
  void close();
  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  // Reads every datagram waiting.
  Inbox drain();
  // Tells the writer that everything up to seq was seen. False when the
  // connection is gone.
  bool ack(uint64_t seq);
  // Tells the writer this reader's counters (for its health board).
  bool report(const ReaderHealth& health);

 private:
  std::string directory_;
  int fd_ = -1;
};

}  // namespace Brume
