// WriterFiles: the files of one table as its writer holds them: the writer
// lock, the ember, the slot and bucket files and the notification queue; how
// they are attached (created, re-used when valid, re-formatted when not),
// validated and removed. The key-dependent work on them is BrumeWriter's.
//
// Thread-safety: the table's one writer thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mroute/table/queue/conquer_writer.h"
#include "mroute/table/engine/internal/bucket_writer.h"
#include "mroute/table/shm/bus_guard.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_writer.h"
#include "mroute/table/shm/writer_lock.h"
#include "mroute/table/shm/root_path.h"
#include "mroute/table/engine/table_config.h"

namespace Brume {

// Why a writer's attach failed (do not renumber: tools print it).
enum class AttachError : uint8_t {
  none = 0,
  heldByAnotherWriter = 1,  // another process writes the table; holderPid says which, when known
  noSpace = 2,              // the file system is full
  noPermission = 3,         // the directory or files may not be written
  badRoot = 4,              // the root path cannot hold the table (missing, not a directory)
  damaged = 5,              // the files could not be re-formatted into a sound table
  failed = 6,               // another system failure; see the message
};

struct AttachStatus {
  AttachError error = AttachError::none;
  std::string message;  // the traced reason; empty when attached
  long holderPid = 0;
};

class WriterFiles {
 public:
  // valueSize and defaultValue describe the stored wrapper.
  // rhashOf recomputes a stored value's reversed key hash for the deep
  // validator.
  WriterFiles(const Mem::RootPath& root, const TableConfig& config, uint32_t valueSize, const void* defaultValue,
              std::function<uint32_t(const unsigned char* value)> rhashOf, Mem::ShmFs& fs);
  ~WriterFiles();
  WriterFiles(const WriterFiles&) = delete;
  WriterFiles& operator=(const WriterFiles&) = delete;

  // Takes the writer lock and attaches every file (see BrumeWriter::attach).
  bool attach();
  // Header checks of every file.
  bool validateFiles(std::string* why = nullptr) const;
  // validateFiles() and the deep validator. pendingSlot: a slot taken for a
  // direct write not committed yet.
  bool validate(std::string* why = nullptr, uint32_t pendingSlot = kNoRef) const;
  void detach();
  void cleanup();

  bool attached() const { return attached_; }
  // Raises Pavo::CorruptionDetectedException, the message beginning with
  // `who`, when a file shrank under the writer's mapping: the writer's stores
  // since went to zero-filled private pages (see Mem::BusGuard), not to the
  // file. Checked only when a process has taken such a fault at all.
  void requireWhole(const char* who) const {
    if (Mem::BusGuard::faults() != 0) [[unlikely]] checkWhole(who);
  }
  // Why the last attach() failed (error none after a success).
  const AttachStatus& attachStatus() const { return status_; }
  // The owner could not get as far as attach() (its own lock or take-over
  // failed): attachStatus() and the errors of changes give `why`.
  void attachRefused(const std::string& why) { status_ = {AttachError::failed, why, 0}; }
  SlotWriterTable& slots() { return slots_; }
  BucketWriterTable& buckets() { return buckets_; }
  ConquerWriter* conquer() { return conquer_.get(); }
  uint32_t ember() const { return ember_; }
  const Mem::RootPath& root() const { return root_; }
  const TableConfig& config() const { return config_; }
  Mem::ShmFs& fs() { return *fs_; }

  // Buckets for a table of n slots: the next power of two.
  static uint32_t bucketsFor(uint32_t n);

 private:
  [[gnu::cold, gnu::noinline]] void checkWhole(const char* who) const;
  bool attachFiles(bool reformat, bool* existed, std::string* why);
  // Traces `why`, records it as the attach status and lets go of the files.
  bool attachFailed(AttachError error, const std::string& why);
  // The stored value and class types are the configured ones (another type
  // is another table: its files are re-formatted).
  bool typesMatch(std::string* why) const;
  // Repairs what a writer killed mid-operation left (slot_recovery.h).
  void recover();
  // Re-formats every file under a new ember, so that readers of the old
  // files re-attach.
  bool reformat(std::string* why);
  void detachFiles();

  Mem::RootPath root_;
  TableConfig config_;
  std::function<uint32_t(const unsigned char*)> rhashOf_;
  Mem::ShmFs* fs_;
  SlotWriterTable slots_;
  BucketWriterTable buckets_;
  std::unique_ptr<ConquerWriter> conquer_;
  Mem::WriterLock lock_;
  std::unique_ptr<Mem::WriterLock::AutoLock> autoLock_;
  uint32_t ember_ = 0;
  bool attached_ = false;
  AttachStatus status_;
};

}  // namespace Brume
