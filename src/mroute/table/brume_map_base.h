// BrumeMapBase: the part of a table front that does not depend on the key and
// value types: where the files are, the directory watch, the two mounters,
// the wake-up channel, readiness and the attach state. BrumeMap (brume_map.h)
// adds the typed table access through the hooks below.
//
// Reader kinds (reader, shadow, keyshadow): the table directory is watched
// (while it is missing, its deepest existing ancestor, until the writer
// creates it: readers create no directory and no file but the corruption
// marker); every file event goes to the ReaderMounter,
// which attaches, detaches and retries on its remount timer. Once attached the
// front connects to the writer's "notify.sock"; on each kick it walks the
// notification queue and acknowledges. When the writer goes away the front
// stays attached to the files it has (they outlive the writer) and reconnects
// when a writer listens again.
//
// Writer: the files are moved to this process's incarnation, attached by
// BrumeWriter, the channel is opened, and corruption reports in the
// directory go to the WriterMounter. Its Pavo::CorruptionDetectedException
// leaves the event loop's runOnce()/run() to reach the owner.
//
// Thread-safety: one event loop thread owns the front and everything in it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/runtime/loop/dir_watch.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/loop/timer.h"
#include "mroute/table/brume_type.h"
#include "mroute/table/notify_channel.h"
#include "mroute/table/reader_mounter.h"
#include "mroute/table/shm/root_path.h"
#include "mroute/table/engine/table_config.h"
#include "mroute/table/writer_mounter.h"

namespace Brume {

class ConquerWriter;

struct BrumeMapOptions {
  // Sizes and flags of the table (used by the writer; its name is replaced
  // by "<mount path>/<name>" when left at the default).
  TableConfig table;
  // Retry period of an unattached reader front.
  std::chrono::nanoseconds remountPeriod = ReaderMounter::kRemountPeriod;
  // A reader that leaves a kick unacknowledged this long is disconnected.
  std::chrono::milliseconds ackTimeout{2000};
  // Retry period of a reader front's connection to a writer that went away.
  std::chrono::milliseconds reconnectPeriod{1000};
  // A reader front that finds a writer attaching (the attach lock held)
  // looks again after this long, instead of waiting for the remount period:
  // the writer's last file events may all fall inside the lock.
  std::chrono::milliseconds attachLockRetry{20};
  ReaderMounter::SystemLog systemLog = &ReaderMounter::systemLog;
};

class BrumeMapBase : public ReaderMounter::Front, public WriterMounter::Front {
 public:
  using ReadyCallback = std::function<void(bool ready)>;

  BrumeMapBase(const BrumeMapBase&) = delete;
  BrumeMapBase& operator=(const BrumeMapBase&) = delete;

  // ReaderMounter::Front.
  BrumeType mode() const override { return mode_; }
  uint32_t emberId() const override { return ember_; }
  int attachState() const override { return attachState_; }
  bool advertised() const override { return advertised_; }
  bool notifying() const override { return notifying_; }
  uint32_t currentEmberId() const override;
  void attach() override;
  void detach() override;
  const std::string& tableName() const override { return name_; }
  const std::string& tablePath() const override { return root_.dir(); }

  // True while the front serves its table: a writer once attached, a reader
  // kind while fully attached.
  bool ready() const { return ready_; }
  void onReadyIs(ReadyCallback cb) { onReady_ = std::move(cb); }
  // Pauses (false) or resumes change callbacks and remounting.
  void notifyingIs(bool on);
  bool channelConnected() const { return client_.connected(); }
  const Mem::RootPath& root() const { return root_; }
  const std::string& mountPath() const { return mountPath_; }

  ReaderMounter* readerMounter() { return readerMounter_.get(); }
  WriterMounter* writerMounter() { return writerMounter_.get(); }
  NotifyServer* notifyServer() { return server_.get(); }
  HealthBoard& healthBoard() { return board_; }
  // Readers connected to a writer front.
  uint32_t numReaders() const { return server_ != nullptr ? server_->readers() : 0; }

  // Stops watching and notifying and lets go of the files; the files stay.
  void unmount();

 protected:
  BrumeMapBase(Mroute::Loop::EventLoop& loop, std::string_view mountPath, std::string_view name, BrumeType mode,
               const BrumeMapOptions& options);
  ~BrumeMapBase() override;

  // Called by the derived constructor once its hooks can run. A writer that
  // cannot attach stays not ready (traced).
  void mount();
  // Writer cleanup: unmounts and removes the socket and the table files.
  void cleanupBase();

  // Reader-side hooks. attachFiles maps the files, synchronises the local
  // view and returns the ember of the files (0: not attached).
  virtual uint32_t attachFiles() = 0;
  virtual void detachFiles() = 0;
  // Walks the queue (resynchronising when it must). False: the files were
  // found corrupt and the front detached itself.
  virtual bool walk() = 0;
  // The writer answered with minSeq: true when notifications were missed.
  virtual bool missed(uint64_t minSeq) = 0;
  virtual void resync() = 0;
  // Maps the queue files again and re-reads the table (a writer came back
  // over the same incarnation and may have replaced the queue). False: the
  // files were found corrupt and the front detached itself.
  virtual bool reattachQueue() = 0;
  virtual uint64_t lastSequence() const = 0;
  // The counters this reader reports to its writer's health board.
  virtual ReaderHealth readerHealth() const = 0;

  // Writer hooks.
  virtual bool writerAttach() = 0;
  // mountWriter() stopped before writerAttach(): `why` for attachStatus().
  virtual void writerAttachRefused(const std::string& why) = 0;
  virtual void writerDetach() = 0;
  virtual void writerCleanup() = 0;
  virtual uint32_t writerEmber() const = 0;
  virtual ConquerWriter* writerQueue() = 0;
  virtual bool writerValidate(std::string* why) = 0;

  // The acknowledgement of a walk, followed by the reader's counters when
  // they moved since the writer last heard them.
  void ack(uint64_t seq);
  // A walk found the files corrupt: detach and let the remount timer retry.
  void corruptionFound();
  Mroute::Loop::EventLoop& loop() { return loop_; }
  const BrumeMapOptions& options() const { return options_; }

 private:
  // WriterMounter::Front.
  bool validate(std::string* why) override { return writerValidate(why); }
  bool rewriteEmber(std::string* why) override;
  bool resetEmberWatch() override;
  bool validateEmber() override;

  void mountReader();
  void mountWriter();
  // Traces why mountWriter() stops before the files are tried and keeps it.
  void refuseWriter(const std::string& why);
  void watchDirectory();
  void onDirEvent(Mroute::Loop::DirEvent event, std::string_view name);
  // An entry of an ancestor of the missing table directory changed.
  void onAncestorEvent(Mroute::Loop::DirEvent event);
  void connect();
  void onChannel();
  void readyIs(bool ready);

  Mroute::Loop::EventLoop& loop_;
  std::string mountPath_;
  std::string name_;
  Mem::RootPath root_;
  BrumeType mode_;
  BrumeMapOptions options_;
  uint32_t ember_ = 0;
  int attachState_ = 0;
  bool advertised_ = false;
  bool notifying_ = true;
  bool ready_ = false;
  bool mounted_ = false;
  bool resyncOnConnect_ = false;  // the channel broke while attached
  ReadyCallback onReady_;
  std::unique_ptr<Mroute::Loop::DirWatch> dirWatch_;
  std::unique_ptr<ReaderMounter> readerMounter_;
  std::unique_ptr<WriterMounter> writerMounter_;
  std::unique_ptr<NotifyServer> server_;
  HealthBoard board_;  // writer: what operators see of its readers
  NotifyClient client_;
  ReaderHealth reported_;  // reader: the counters its writer last heard
  std::unique_ptr<Mroute::Loop::FdWatch> clientWatch_;
  std::unique_ptr<Mroute::Loop::Timer> reconnectTimer_;
  std::unique_ptr<Mroute::Loop::Timer> attachLockTimer_;
};

}  // namespace Brume
