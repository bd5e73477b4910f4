// BrumeMap::ReaderMounter: keeps a reader, shadow or key-shadow front attached
// to the current incarnation of its table's writer.
//
// It is told of every file event in the table directory (the event's file
// name) and of the expiries of its remount timer. It compares the ember
// identifier in the table's ember file with the one of the files the front
// is attached to: a new identifier means the writer restarted (or re-created
// the table), so the front detaches and attaches again; while the front is
// not fully attached the timer retries every remount period (60 seconds by
// default). The first retry is traced once; a success after retries is
// reported with a "CANARY: " line, traced and sent to the system log.
//
// The front is reached through the Front interface so that the decisions can
// be tested without files.
//
// Thread-safety: runs on the front's event loop; events and expiries are
// handled one at a time; no locks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/loop/timer.h"
#include "mroute/table/brume_type.h"

namespace Brume {

class ReaderMounter {
 public:
  // What the mounter needs of its front.
  class Front {
   public:
    virtual ~Front() = default;
    virtual BrumeType mode() const = 0;
    // Ember identifier of the files the front is attached to; 0 when none.
    virtual uint32_t emberId() const = 0;
    // 0 detached; a reader is fully attached at 1, a shadow kind at 2.
    virtual int attachState() const = 0;
    // The contents were announced ready to the front's users.
    virtual bool advertised() const = 0;
    // Notifications to the users are enabled.
    virtual bool notifying() const = 0;
    // The identifier in the table's ember file now; 0 when there is none.
    virtual uint32_t currentEmberId() const = 0;
    virtual void attach() = 0;
    virtual void detach() = 0;
    virtual const std::string& tableName() const = 0;
    virtual const std::string& tablePath() const = 0;
  };

  // Sends one line to the system log (the default opens, logs and closes).
  using SystemLog = void (*)(const std::string& line);
  static void systemLog(const std::string& line);

  static constexpr std::string_view kRemountTimeout = "remount timeout";
  static constexpr std::chrono::seconds kRemountPeriod{60};

  ReaderMounter(Front& front, Mroute::Loop::EventLoop& loop,
                std::chrono::nanoseconds remountPeriod = kRemountPeriod, SystemLog log = &systemLog);
  ReaderMounter(const ReaderMounter&) = delete;
  ReaderMounter& operator=(const ReaderMounter&) = delete;

  // A file event named `eventName` in the table directory.
  void notify(std::string_view eventName);
  // The remount timer expired.
  void timeout();
  // The front detached itself (its files proved corrupt): retry on the timer
  // rather than at once.
  void detached();

  // REQUIRES: the front is not a writer.
  bool fullyAttached() const;

  uint64_t events() const { return events_; }
  uint32_t timeouts() const { return timeouts_; }
  bool timerArmed() const { return timer_ != nullptr && timer_->armed(); }
  bool hasTimer() const { return timer_ != nullptr; }

 private:
  void armTimer();

  Front& front_;
  Mroute::Loop::EventLoop& loop_;
  std::chrono::nanoseconds period_;
  SystemLog log_;
  uint64_t events_ = 0;
  uint32_t timeouts_ = 0;
  std::unique_ptr<Mroute::Loop::Timer> timer_;
};

}  // namespace Brume
