#include "mroute/entity/replication/entity_mount.h"

#include <unistd.h>

#include <chrono>

namespace Kiv::NboAttrLog {

namespace {

// Tells one writer's life from the next: readers see a new value after a restart.
uint64_t newIncarnation() {
  const uint64_t now = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return (now << 16) ^ static_cast<uint64_t>(::getpid());
}

}  // namespace

WriterMount::WriterMount(Mroute::Loop::EventLoop& loop, std::string_view mountPath, const Ptr<Entity>& root,
                         const AttrLogType& type)
    : loop_(loop), root_(root), type_(type), incarnation_(newIncarnation()) {
  listener_ = std::make_unique<Listener>(loop_, socketPath(mountPath), [this](int fd) { accept(fd); });
  mountPath_ = std::string(mountPath);
  mountedRootIs(mountPath_, root_.ptr());
  MROUTE_TRACE(traceFacility(), 3, "WriterMount: serving " << listener_->path());
}

WriterMount::~WriterMount() {
  mountedRootDel(mountPath_, root_.ptr());
  listener_.reset();
  for (Session& s : sessions_) {
    s.publisher.reset();
    s.out->close();
  }
}

uint64_t WriterMount::recordsSent() const {
  uint64_t n = 0;
  for (const Session& s : sessions_) n += s.out->recordsSent();
  return n;
}

uint64_t WriterMount::timesBlocked() const {
  uint64_t n = blockedBefore_;
  for (const Session& s : sessions_) n += s.out->timesBlocked();
  return n;
}

void WriterMount::accept(int fd) {
  Session& s = sessions_.emplace_back();
  s.out = new Out(loop_, fd, "reader of " + listener_->path());
  Out* out = s.out.ptr();
  s.out->droppedHandlerIs([this, out] {
    // The reader went: its adapters go, the tree and other readers stay.
    blockedBefore_ += out->timesBlocked();
    sessions_.remove_if([out](const Session& x) { return x.out.ptr() == out; });
  });
  s.publisher = std::make_unique<TreePublisher>(root_, type_, s.out, incarnation_);
  s.publisher->start();
  MROUTE_TRACE(traceFacility(), 3, "WriterMount: reader connected, " << sessions_.size() << " now");
}

ReaderMount::ReaderMount(Mroute::Loop::EventLoop& loop, std::string_view mountPath, const Ptr<Entity>& root,
                         const AttrLogType& type, std::chrono::milliseconds retry)
    : loop_(loop),
      path_(socketPath(mountPath)),
      replica_(root, type),
      retry_(loop, [this] { tryConnect(); }),
      retryEvery_(retry),
      mountPath_(mountPath) {
  mountedRootIs(mountPath_, root.ptr());
  tryConnect();
}

ReaderMount::~ReaderMount() {
  mountedRootDel(mountPath_, replica_.root());
  if (in_) in_->close();
}

void ReaderMount::tryConnect() {
  const int fd = connectTo(path_);
  if (fd < 0) {
    retry_.startOneShot(retryEvery_);  // no writer yet
    return;
  }
  ++connections_;
  in_ = new In(loop_, fd, "writer of " + path_);
  in_->recordHandlerIs([this](RecordType t, WireReader& body) { replica_.handleRecord(t, body); });
  in_->droppedHandlerIs([this] {
    lastDrop_ = in_->dropReason();
    replica_.connectionEnd();
    retry_.startOneShot(std::chrono::milliseconds(0));
  });
}

}  // namespace Kiv::NboAttrLog
