#include "mroute/table/brume_map_base.h"

#include <sys/stat.h>

#include "mroute/runtime/error.h"
#include "mroute/table/queue/conquer_writer.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/internal/front_restamp.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm_root.h"

namespace Brume {

namespace {

// The event the front gives its mounter when it starts.
constexpr std::string_view kMountEvent = "mount";
// The event of a table directory that was removed and is watched anew.
constexpr std::string_view kDirGoneEvent = "directory gone";
// The event of a reader front looking again after finding the attach lock held.
constexpr std::string_view kAttachLockEvent = "attach lock retry";

}  // namespace

BrumeMapBase::BrumeMapBase(Mroute::Loop::EventLoop& loop, std::string_view mountPath, std::string_view name,
                           BrumeType mode, const BrumeMapOptions& options)
    : loop_(loop),
      mountPath_(mountPath),
      name_(std::string(mountPath) + "/" + std::string(name)),
      root_(tableRoot(mountPath, name)),
      mode_(mode),
      options_(options),
      client_(root_.dir()) {
  if (options_.table.name == TableConfig{}.name) options_.table.name = name_;
}

BrumeMapBase::~BrumeMapBase() = default;

uint32_t BrumeMapBase::currentEmberId() const {
  uint32_t id = 0;
  return readEmber(Mem::systemShmFs(), root_, &id) ? id : 0;
}

void BrumeMapBase::mount() {
  mounted_ = true;
  if (mode_ == BrumeType::writer) {
    mountWriter();
  } else {
    mountReader();
  }
}

namespace {

bool isDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The deepest existing directory on the way to `dir` ("/" at worst).
std::string deepestExisting(std::string dir) {
  while (!isDirectory(dir)) {
    const size_t slash = dir.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return "/";
    dir.resize(slash);
  }
  return dir;
}

}  // namespace

void BrumeMapBase::watchDirectory() {
  dirWatch_.reset();
  // Reader kinds create nothing: while the table directory is missing they
  // watch the deepest directory that exists on the way to it, and move down
  // as the writer creates the rest.
  const std::string dir = mode_ == BrumeType::writer ? root_.dir() : deepestExisting(root_.dir());
  const bool ancestor = dir != root_.dir();
  try {
    dirWatch_ = std::make_unique<Mroute::Loop::DirWatch>(
        loop_, dir, [this, ancestor](Mroute::Loop::DirEvent e, std::string_view n) {
          if (ancestor) {
            onAncestorEvent(e);
          } else {
            onDirEvent(e, n);
          }
        });
  } catch (const std::exception& e) {
    // Inside a changed root the directory may not be watchable; the table
    // is then used without the watch.
    if (!root_.chrooted()) throw;
    MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " used without directory watch: " << e.what());
  }
}

void BrumeMapBase::onAncestorEvent(Mroute::Loop::DirEvent event) {
  if (event == Mroute::Loop::DirEvent::modified || event == Mroute::Loop::DirEvent::deleted) return;
  watchDirectory();  // destroys the watch calling us; only members follow
  // Watching the table directory now: what the writer made in it before the
  // watch was set is looked at once.
  if (dirWatch_ != nullptr && dirWatch_->path() == root_.dir()) readerMounter_->notify(kMountEvent);
}

void BrumeMapBase::mountReader() {
  watchDirectory();
  readerMounter_ = std::make_unique<ReaderMounter>(*this, loop_, options_.remountPeriod, options_.systemLog);
  readerMounter_->notify(kMountEvent);
}

void BrumeMapBase::refuseWriter(const std::string& why) {
  MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " " << why);
  writerAttachRefused(why);
}

void BrumeMapBase::mountWriter() {
  std::string why;
  if (!Mem::makeDirectories(Mem::systemShmFs(), root_.dir(), &why)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " cannot make " << root_.dir() << ": " << why);
    writerAttach();  // fails too, and records why for attachStatus()
    return;
  }
  {
    // Readers stay off until the files are ours and attached.
    AttachLock attaching(root_);
    if (!attaching.acquire()) {
      refuseWriter("cannot lock " + std::string(AttachLock::kFileName) + ": " + attaching.error());
      return;
    }
    if (!restampIncarnation(Mem::systemShmFs(), root_, processEmberId(), &why)) {
      refuseWriter("cannot take over the table: " + why);
      return;
    }
    if (!writerAttach()) {
      MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " writer failed to attach");
      return;
    }
  }
  ember_ = writerEmber();
  // Without its health file the table works on; operators see no readers.
  board_.open(root_.dir(), ember_);
  writerQueue()->compactedIs([this](uint64_t kept) { board_.compacted(kept); });
  server_ = std::make_unique<NotifyServer>(loop_, root_.dir(), options_.ackTimeout);
  server_->boardIs(&board_);
  server_->queueIs(writerQueue());
  if (!server_->open()) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " readers will not be woken");
  }
  writerMounter_ = std::make_unique<WriterMounter>(*this, root_);
  watchDirectory();
  attachState_ = 1;
  readyIs(true);
}

void BrumeMapBase::unmount() {
  if (!mounted_) return;
  mounted_ = false;
  dirWatch_.reset();
  readerMounter_.reset();
  writerMounter_.reset();
  reconnectTimer_.reset();
  attachLockTimer_.reset();
  clientWatch_.reset();
  client_.close();
  if (server_ != nullptr) {
    server_->queueIs(nullptr);
    server_->close();  // every reader's record is marked gone
    server_.reset();
  }
  board_.close();
  if (mode_ == BrumeType::writer) {
    writerDetach();
  } else if (attachState_ != 0) {
    detachFiles();
  }
  attachState_ = 0;
  ember_ = 0;
  readyIs(false);
}

void BrumeMapBase::cleanupBase() {
  if (mode_ != BrumeType::writer) throw Pavo::NoPermissionException("cleanup to read-only Brume table");
  if (server_ != nullptr) {
    server_->queueIs(nullptr);
    server_->close();
    server_.reset();
  }
  board_.cleanup(root_.dir());
  writerCleanup();
  unmount();
}

void BrumeMapBase::readyIs(bool ready) {
  if (ready == ready_) return;
  ready_ = ready;
  if (ready) advertised_ = true;
  if (onReady_) onReady_(ready);
}

void BrumeMapBase::notifyingIs(bool on) { notifying_ = on; }

void BrumeMapBase::attach() {
  if (AttachLock::busy(root_)) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeMap " << name_ << " writer is attaching; attach later");
    if (attachLockTimer_ == nullptr) {
      attachLockTimer_ = std::make_unique<Mroute::Loop::Timer>(loop_, [this] {
        if (readerMounter_ != nullptr) readerMounter_->notify(kAttachLockEvent);
      });
    }
    attachLockTimer_->startOneShot(options_.attachLockRetry);
    return;
  }
  const uint32_t ember = attachFiles();
  if (ember == 0) return;
  ember_ = ember;
  attachState_ = isShadowKind(mode_) ? 2 : 1;
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeMap " << name_ << " attached, mode: " << mode_ << " emberId: " << ember_);
  connect();
  readyIs(true);
}

void BrumeMapBase::detach() {
  clientWatch_.reset();
  client_.close();
  reconnectTimer_.reset();
  resyncOnConnect_ = false;
  if (attachState_ != 0) detachFiles();
  attachState_ = 0;
  ember_ = 0;
  readyIs(false);
}

void BrumeMapBase::corruptionFound() {
  MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeMap " << name_ << " detaching from corrupt files");
  detach();
  if (readerMounter_ != nullptr) readerMounter_->detached();
}

void BrumeMapBase::connect() {
  if (attachState_ == 0 || client_.connected()) return;
  if (client_.connect()) {
    reconnectTimer_.reset();
    if (resyncOnConnect_) {
      resyncOnConnect_ = false;
      if (!reattachQueue()) return;
    }
    clientWatch_ = std::make_unique<Mroute::Loop::FdWatch>(loop_, client_.fd());
    clientWatch_->onReadableIs([this] { onChannel(); });
    // Tell the writer where this reader stands, then catch up.
    reported_ = ReaderHealth{};
    ack(lastSequence());
    walk();
    return;
  }
  if (reconnectTimer_ == nullptr) {
    reconnectTimer_ = std::make_unique<Mroute::Loop::Timer>(loop_, [this] { connect(); });
    reconnectTimer_->startPeriodic(options_.reconnectPeriod);
  }
}

void BrumeMapBase::ack(uint64_t seq) {
  if (!client_.ack(seq)) return;
  // Sent at most once a walk, never from a look-up.
  const ReaderHealth now = readerHealth();
  if (now != reported_ && client_.report(now)) reported_ = now;
}

void BrumeMapBase::onChannel() {
  const NotifyClient::Inbox in = client_.drain();
  bool walkNow = in.kicked;
  if (in.hasMinSeq && attachState_ != 0 && missed(in.minSeq)) {
    resync();
    walkNow = true;
  }
  if (walkNow && attachState_ != 0 && notifying_ && !walk()) return;
  if (in.hangup) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeMap " << name_ << " writer closed the notification channel");
    clientWatch_.reset();
    client_.close();
    resyncOnConnect_ = true;
    connect();
  }
}

void BrumeMapBase::onDirEvent(Mroute::Loop::DirEvent event, std::string_view name) {
  if (mode_ == BrumeType::writer) {
    const bool report = name == kCorruptionMarkerName &&
                        (event == Mroute::Loop::DirEvent::created || event == Mroute::Loop::DirEvent::modified);
    if (!report || writerMounter_ == nullptr) return;
    // Counted before the check, which may throw to the owner.
    if (const std::string text = writerMounter_->readMarker(); !text.empty()) board_.corruptionReported(text);
    writerMounter_->notify(name);
    // The report was answered; a new finding writes a new marker.
    removeCorruptionMarker(Mem::systemShmFs(), root_);
    return;
  }
  if (event == Mroute::Loop::DirEvent::dirGone) {
    watchDirectory();  // may destroy the watch calling us; nothing follows
    readerMounter_->notify(kDirGoneEvent);
    return;
  }
  if (name == kNotifySocketName && attachState_ != 0) connect();
  readerMounter_->notify(name.empty() ? std::string_view(Mroute::Loop::dirEventName(event)) : name);
}

bool BrumeMapBase::rewriteEmber(std::string* why) {
  return writeEmber(Mem::systemShmFs(), root_, writerEmber(), why);
}

bool BrumeMapBase::resetEmberWatch() {
  try {
    watchDirectory();
    return dirWatch_ != nullptr;
  } catch (const std::exception&) {
    return false;
  }
}

bool BrumeMapBase::validateEmber() {
  uint32_t id = 0;
  return readEmber(Mem::systemShmFs(), root_, &id) && id == writerEmber();
}

}  // namespace Brume
