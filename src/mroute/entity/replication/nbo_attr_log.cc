#include "mroute/entity/replication/nbo_attr_log.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace Kiv::NboAttrLog {

Mroute::Trace::Facility& traceFacility() {
  static Mroute::Trace::Facility& f = Mroute::Trace::facility("Mroute::AttrLog");
  return f;
}

Connection::Connection(Mroute::Loop::EventLoop& loop, int fd, std::string peer)
    : loop_(loop), fd_(fd), peer_(std::move(peer)) {
  watch_ = std::make_unique<Mroute::Loop::FdWatch>(loop_, fd_);
  watch_->onReadableIs([this] { onReadable(); });
  watch_->onWritableIs([this] { onWritable(); });
  interest();
}

Connection::~Connection() { close(); }

void Connection::close() {
  if (fd_ < 0) return;
  watch_->remove();
  ::close(fd_);
  fd_ = -1;
  out_.clear();
  outPos_ = 0;
}

void Connection::drop(const std::string& why, int level) {
  if (fd_ < 0) return;
  MROUTE_TRACE(traceFacility(), level, "NboAttrLog: dropping connection to " << peer_ << ": " << why);
  close();
  dropReason_ = why;
  if (Handler h = std::move(dropped_)) h();
}

void Connection::readingIs(bool on) {
  reading_ = on;
  interest();
}

void Connection::interest() {
  if (fd_ >= 0) watch_->interestIs(reading_ || sendFailed_, buffered() > 0);
}

void Connection::committed() {
  ++recordsSent_;
  if (sendFailed_) {
    out_.clear();
    return;
  }
  if (buffered() >= kFlushBytes) {
    flush();
  } else if (buffered() > 0 && !watch_->writable()) {
    interest();  // the next wait flushes: records of one burst share a write
  }
}

void Connection::flush() {
  while (fd_ >= 0 && buffered() > 0) {
    const ssize_t n = ::send(fd_, out_.data() + outPos_, buffered(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      outPos_ += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // The socket refuses more: blocked once our own buffer is full too.
      if (buffered() >= kHighWater && !blocked()) {
        dataBits_ |= kBlockedBit;
        ++timesBlocked_;
        MROUTE_TRACE(traceFacility(), 5, "NboAttrLog: output to " << peer_ << " blocked");
      }
      if (outPos_ > 0 && outPos_ * 2 >= out_.size()) {
        out_.erase(0, outPos_);
        outPos_ = 0;
      }
      interest();
      return;
    }
    // The peer is gone. The caller may be an adapter in the middle of a
    // change, so the drop waits for the loop to see the socket's end.
    MROUTE_TRACE(traceFacility(), 3, "NboAttrLog: send to " << peer_ << ": " << std::strerror(errno));
    sendFailed_ = true;
    out_.clear();
    outPos_ = 0;
    interest();
    return;
  }
  if (fd_ < 0) return;
  out_.clear();
  outPos_ = 0;
  interest();
  if (blocked()) {
    dataBits_ &= static_cast<uint8_t>(~kBlockedBit);
    onDrained();
  }
}

void Connection::onWritable() {
  Ptr<Connection> keep(this);  // a handler may release the last reference
  flush();
}

void Connection::onReadable() {
  Ptr<Connection> keep(this);
  size_t total = 0;
  char buf[64 * 1024];
  while (fd_ >= 0 && (reading_ || sendFailed_) && total < kReadQuantum) {
    const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
      in_.append(buf, static_cast<size_t>(n));
      total += static_cast<size_t>(n);
      parse();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n == 0) {
      drop(in_.empty() ? std::string("closed by peer")
                       : "truncated record: stream ended " + std::to_string(in_.size()) + " bytes into a record",
           in_.empty() ? 3 : 0);
    } else {
      drop(std::string("recv: ") + std::strerror(errno), 1);
    }
    return;
  }
}

void Connection::parse() {
  size_t pos = 0;
  while (fd_ >= 0 && in_.size() - pos >= 4) {
    WireReader head(std::string_view(in_).substr(pos, 4));
    const uint32_t len = head.u32();
    if (len == 0 || len > kMaxRecord) {
      drop("malformed record: length " + std::to_string(len), 0);
      return;
    }
    if (in_.size() - pos - 4 < len) break;  // the rest of the record is still on its way
    const std::string_view frame = std::string_view(in_).substr(pos + 4, len);
    pos += 4 + len;
    const uint8_t type = static_cast<uint8_t>(frame[0]);
    if (type == 0 || type > kLastRecordType) {
      drop("malformed record: unknown type " + std::to_string(type), 0);
      return;
    }
    ++recordsReceived_;
    WireReader body(frame.substr(1));
    try {
      handleRecord(static_cast<RecordType>(type), body);
    } catch (const std::exception& e) {
      drop(std::string("malformed ") + recordTypeName(static_cast<RecordType>(type)) + " record: " + e.what(), 0);
      return;
    }
  }
  if (fd_ >= 0) in_.erase(0, pos);
}

const std::string* Out::bookmark(uint32_t entity, AttrId id) const {
  auto it = bookmarks_.find({entity, id});
  return it == bookmarks_.end() ? nullptr : &it->second;
}

void Out::handleRecord(RecordType t, WireReader& body) {
  if (t != RecordType::answer) throw WireError("a writer expects only answers");
  const uint8_t a = body.u8();
  body.end();
  if (a > 1) throw WireError("answer " + std::to_string(a));
  const bool wasStopped = stopped_;
  stopped_ = a == 0;
  if (wasStopped && !stopped_) onDrained();
}

void Out::onDrained() {
  resumeFlowOuts();
  if (drain_ && shouldContinue()) drain_();
}

void Out::flowOutIs(FlowOutClient* c, AttrId id) {
  for (auto& [client, at] : flowOuts_) {
    if (client == c) return;
  }
  flowOuts_.emplace_back(c, id);
}

void Out::flowOutDel(FlowOutClient* c) {
  for (auto& entry : flowOuts_) {
    if (entry.first == c) entry.first = nullptr;  // a resume in progress skips it
  }
  if (!resuming_) std::erase_if(flowOuts_, [](const auto& e) { return e.first == nullptr; });
}

void Out::resumeFlowOuts() {
  if (resuming_) return;
  resuming_ = true;
  Ptr<Out> keep(this);
  // A client that returns early without being stopped (members changed
  // behind its bookmark) goes round again; every round sends something.
  for (int round = 0; round < 64 && !flowOuts_.empty() && shouldContinue(); ++round) {
    // Index walk: a client may queue others while it runs.
    for (size_t i = 0; i < flowOuts_.size() && shouldContinue(); ++i) {
      auto [client, at] = flowOuts_[i];
      if (client == nullptr) continue;
      const AttrId next = client->resumeFlowOut(at);
      if (flowOuts_[i].first == nullptr) continue;
      if (next == 0) {
        flowOuts_[i].first = nullptr;
      } else {
        flowOuts_[i].second = next;
      }
    }
    std::erase_if(flowOuts_, [](const auto& e) { return e.first == nullptr; });
  }
  resuming_ = false;
}

void In::handleRecord(RecordType t, WireReader& body) {
  if (t == RecordType::answer) throw WireError("a reader expects no answers");
  if (!handler_) throw WireError("no record handler");
  handler_(t, body);
}

void In::answerIs(bool proceed) {
  if (!connected()) return;
  record(RecordType::answer, [proceed](WireWriter& w) { w.u8(proceed ? 1 : 0); });
  flush();
}

}  // namespace Kiv::NboAttrLog
