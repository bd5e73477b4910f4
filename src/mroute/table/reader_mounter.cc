#include "mroute/table/reader_mounter.h"

#include <syslog.h>

#include "mroute/runtime/assert.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"

namespace Brume {

void ReaderMounter::systemLog(const std::string& line) {
  ::openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
  ::syslog(LOG_DEBUG, "%s", line.c_str());
  ::closelog();
}

ReaderMounter::ReaderMounter(Front& front, Mroute::Loop::EventLoop& loop, std::chrono::nanoseconds remountPeriod,
                             SystemLog log)
    : front_(front), loop_(loop), period_(remountPeriod), log_(log) {}

bool ReaderMounter::fullyAttached() const {
  const BrumeType mode = front_.mode();
  if (mode == BrumeType::writer) Mroute::assertFailed("brumeMap.md_.mode() == reader()", __FILE__, __LINE__);
  return front_.attachState() == (mode == BrumeType::reader ? 1 : 2);
}

void ReaderMounter::notify(std::string_view eventName) {
  ++events_;
  MROUTE_TRACE(brumeTrace(), 5, "ReaderMounter::notify() " << front_.tableName() << " eventName: " << eventName);
  if (eventName == kCorruptionMarkerName) return;
  if (front_.advertised() && !front_.notifying()) {
    MROUTE_TRACE(brumeTrace(), 5,
                 "ReaderMounter::notify() ignoring notify, advertised:" << front_.advertised()
                                                                        << " notifying:" << front_.notifying());
    return;
  }
  const uint32_t fileId = front_.currentEmberId();
  const uint32_t ownId = front_.emberId();
  const BrumeType mode = front_.mode();
  MROUTE_TRACE(brumeTrace(), 2,
               "BrumeMap::ReaderMounter::notify() eventName: " << eventName << " emberId: " << fileId
                                                               << " brumeMap.emberId: " << ownId << " mode: " << mode);
  bool attach = false;
  if (fileId == ownId) {
    const bool settled = fileId == 0 || mode == BrumeType::reader ||
                         (isShadowKind(mode) && front_.attachState() == 2);
    attach = !settled;
  } else {
    if (ownId != 0 || fileId == 0) front_.detach();
    attach = true;
  }
  if (attach) front_.attach();
  if (!fullyAttached()) {
    armTimer();
  } else if (timer_ != nullptr) {
    timeouts_ = 0;
    timer_->cancel();
  }
}

void ReaderMounter::armTimer() {
  if (timer_ == nullptr) timer_ = std::make_unique<Mroute::Loop::Timer>(loop_, [this] { timeout(); });
  MROUTE_TRACE(brumeTrace(), 5, "BrumeMap::ReaderMounter::notify() arming remount timer");
  timer_->startOneShot(period_);
}

void ReaderMounter::detached() {
  if (!fullyAttached()) armTimer();
}

void ReaderMounter::timeout() {
  const uint32_t count = ++timeouts_;
  if (count == 1) {
    MROUTE_TRACE(brumeTrace(), 1,
                 "ReaderMounter::timeout() start retrying to mount "
                     << front_.tablePath() << ". This message can be safely ignored if the writer is not running.");
  }
  notify(kRemountTimeout);
  if (fullyAttached()) {
    const std::string line = "CANARY: " + front_.tableName() + " ReaderMounter::timeout() remounted after " +
                             std::to_string(count) + " timeouts";
    MROUTE_TRACE(brumeTrace(), 1, line);
    if (log_ != nullptr) log_(line);
  }
}

}  // namespace Brume
