// Kiv::NboAttrLog::Out and In: the two ends of an attribute-log channel over
// a connected, non-blocking Unix stream socket (wire.h has the encoding).
//
// The writer side (Out) appends whole records to an output buffer that is
// flushed when it grows past kFlushBytes or when the loop next sees the
// socket writable, so bursts of changes share system calls. When the socket
// refuses more and kHighWater bytes are waiting, the channel is blocked: its
// data-bits byte has kBlockedBit (bit 4, value 16) set, and adapters keep
// their changes as dirty bits and dirty keys instead of writing. Once the
// buffer has gone out, the drain handler runs (the adapters' resumable
// flow-outs). Memory per channel is therefore bounded by kHighWater plus one
// record.
//
// The reader side (In) reads whole frames and hands each to its record
// handler, which must decode the whole record before it applies any of it.
// A malformed or truncated record, or one the handler rejects, drops the
// connection with a trace line on "Mroute::AttrLog" (level 0) and a call of
// the dropped handler; nothing else happens to the process.
//
// Both ends read and write: the reader answers continue/stop (flow control)
// to the writer.
//
// Thread-safety: single-threaded, on the loop given at construction.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/ptr.h"
#include "mroute/entity/replication/wire.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/trace.h"

namespace Kiv::NboAttrLog {

inline constexpr uint8_t kBlockedBit = 16;  // data-bits byte: the output is blocked
inline constexpr size_t kFlushBytes = 16 * 1024;
inline constexpr size_t kHighWater = 64 * 1024;
inline constexpr size_t kReadQuantum = 256 * 1024;  // bytes read per readable event

Mroute::Trace::Facility& traceFacility();

// The socket and its framing; Out and In add their roles.
class Connection : public PtrInterface {
 public:
  using Handler = std::function<void()>;

  // Takes the descriptor (closed when the connection drops or goes).
  Connection(Mroute::Loop::EventLoop& loop, int fd, std::string peer);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // False once the socket is closed or a send failed (the drop follows on
  // the loop).
  bool connected() const { return fd_ >= 0 && !sendFailed_; }
  const std::string& peer() const { return peer_; }
  int fd() const { return fd_; }
  uint8_t dataBits() const { return dataBits_; }
  bool blocked() const { return dataBits_ & kBlockedBit; }
  size_t buffered() const { return out_.size() - outPos_; }
  uint64_t recordsSent() const { return recordsSent_; }
  uint64_t recordsReceived() const { return recordsReceived_; }
  // How often the output became blocked.
  uint64_t timesBlocked() const { return timesBlocked_; }
  // Why the connection was dropped (a malformed record, the peer closing, a
  // failed send); empty while it lasts or after close().
  const std::string& dropReason() const { return dropReason_; }

  // Runs once when the connection is dropped (by either side or a fault).
  void droppedHandlerIs(Handler h) { dropped_ = std::move(h); }
  // Closes the socket; the dropped handler is not called.
  void close();
  // How far reading is allowed: a paused reader leaves data in the socket.
  void readingIs(bool on);

  // Appends one record: `body` writes its fields. REQUIRES connected().
  template <class F>
  void record(RecordType t, F&& body) {
    WireWriter w(out_);
    const size_t at = w.open(t);
    body(w);
    w.close(at);
    committed();
  }
  // Writes out what is buffered now.
  void flush();

 protected:
  // One whole frame; throws WireError (or anything) to drop the connection.
  virtual void handleRecord(RecordType t, WireReader& body) = 0;
  // The output drained: blocked no more.
  virtual void onDrained() {}
  void drop(const std::string& why, int level);

 private:
  void committed();
  void onReadable();
  void onWritable();
  void parse();
  void interest();

  Mroute::Loop::EventLoop& loop_;
  int fd_;
  std::string peer_;
  std::string dropReason_;
  std::unique_ptr<Mroute::Loop::FdWatch> watch_;
  std::string out_;
  size_t outPos_ = 0;
  std::string in_;
  uint8_t dataBits_ = 0;
  bool reading_ = true;
  bool sendFailed_ = false;
  uint64_t recordsSent_ = 0;
  uint64_t recordsReceived_ = 0;
  uint64_t timesBlocked_ = 0;
  Handler dropped_;
};

// Something with changes the channel could not take yet: resumed, in the
// order it asked, when the channel drains.
class FlowOutClient {
 public:
  // Sends what it can from attribute `id` on; returns 0 when done, else the
  // id to resume at.
  virtual AttrId resumeFlowOut(AttrId id) = 0;

 protected:
  ~FlowOutClient() = default;
};

// The writer's end.
class Out : public Connection {
 public:
  using Connection::Connection;

  // The continue/stop answer: false while the peer asked to stop or the
  // channel is blocked; a flow-out returns as soon as it is false.
  bool shouldContinue() const { return !stopped_ && !blocked() && connected(); }
  // The wire version of the channel.
  uint16_t version() const { return kWireVersion; }
  // Runs when the channel can take records again (drained, or continue).
  void drainHandlerIs(Handler h) { drain_ = std::move(h); }

  // The per-collection bookmark: the last key of the collection sent whole
  // so far, kept while a collection is sent in several goes.
  void bookmarkIs(uint32_t entity, AttrId id, std::string key) { bookmarks_[{entity, id}] = std::move(key); }
  const std::string* bookmark(uint32_t entity, AttrId id) const;
  void bookmarkDel(uint32_t entity, AttrId id) { bookmarks_.erase({entity, id}); }
  size_t bookmarks() const { return bookmarks_.size(); }

  // Queues a client to resume at `id` once the channel drains (once; a
  // queued client keeps its place). flowOutDel forgets it.
  void flowOutIs(FlowOutClient* c, AttrId id);
  void flowOutDel(FlowOutClient* c);
  size_t flowOuts() const { return flowOuts_.size(); }
  // Resumes queued clients in order while the channel takes more.
  void resumeFlowOuts();

 protected:
  void handleRecord(RecordType t, WireReader& body) override;
  void onDrained() override;

 private:
  bool stopped_ = false;
  Handler drain_;
  std::vector<std::pair<FlowOutClient*, AttrId>> flowOuts_;
  bool resuming_ = false;
  std::map<std::pair<uint32_t, AttrId>, std::string> bookmarks_;
};

// The reader's end: every record but answers goes to the record handler.
class In : public Connection {
 public:
  using RecordHandler = std::function<void(RecordType, WireReader&)>;
  using Connection::Connection;

  void recordHandlerIs(RecordHandler h) { handler_ = std::move(h); }
  // Tells the writer to stop sending (false) or to go on (true).
  void answerIs(bool proceed);

 protected:
  void handleRecord(RecordType t, WireReader& body) override;

 private:
  RecordHandler handler_;
};

}  // namespace Kiv::NboAttrLog
