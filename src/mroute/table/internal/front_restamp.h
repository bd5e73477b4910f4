// Moving a table's files to a new writer incarnation.
//
// A writer that starts over files left by an earlier incarnation (a restart,
// or a crash) gives them its own ember identifier before attaching: it stores
// the new identifier in the ember field of each file header it recognises as
// the old incarnation's (the header checksum does not cover it) and then in
// the ember file. Readers attached to the old incarnation see the ember file
// change, detach and attach again. Files that do not carry the old
// identifier are left alone; the writer's attach re-formats them.
//
// Thread-safety: takes the table's writer lock for the duration; fails when
// another writer holds it.
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

// True when the table now belongs to `ember` or has no files yet; false
// (with *why) when another writer holds the table or a file cannot be
// written.
bool restampIncarnation(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t ember, std::string* why);

}  // namespace Brume

namespace Brume {

// "attach.lock" in the table directory: a writer front holds it exclusively
// from before it takes over the files until it has attached them, and reader
// fronts do not attach while it is held, so no reader maps files that are
// being re-stamped or re-formatted. The kernel drops the lock of a writer
// that dies meanwhile.
class AttachLock {
 public:
  static constexpr const char* kFileName = "attach.lock";

  explicit AttachLock(const Mem::RootPath& root) : path_(root.file(kFileName)) {}
  ~AttachLock() { release(); }
  AttachLock(const AttachLock&) = delete;
  AttachLock& operator=(const AttachLock&) = delete;

  // Writer: waits for the lock. False when the file cannot be made or
  // locked; error() then says why.
  bool acquire();
  void release();
  const std::string& error() const { return error_; }
  // Reader: true when a writer is attaching now.
  static bool busy(const Mem::RootPath& root);

 private:
  std::string path_;
  std::string error_;
  int fd_ = -1;
};

}  // namespace Brume
