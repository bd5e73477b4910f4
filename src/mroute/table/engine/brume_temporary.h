// Brume::BrumeTemporary<Ops>: a process-local temporary table.
//
// The same table (writer, lock-free reader, growth, shrink) kept in private
// memory instead of shared files (Mem::PrivateShmFs): nothing is created in
// the shared-memory file system, and everything goes with the object. Its
// name begins with "BrumeTemp-", so that traces and tools never take it for
// a shared table. It keeps no notification queue.
//
// Thread-safety: one thread, like BrumeWriter.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/shm/private_shm_fs.h"

namespace Brume {

inline constexpr std::string_view kTemporaryPrefix = "BrumeTemp-";

template <TableOps Ops>
class BrumeTemporary {
 public:
  // Attaches a fresh table; `config` gives sizes and flags (its name is
  // replaced). Raises Pavo::InvalidInitializeException when it cannot.
  explicit BrumeTemporary(std::string_view name, TableConfig config = {})
      : name_(std::string(kTemporaryPrefix) + std::string(name) + "-" + std::to_string(nextId())),
        root_("/" + name_) {
    config.name = name_;
    config.notifications = false;
    writer_ = std::make_unique<BrumeWriter<Ops>>(root_, config, fs_);
    if (!writer_->attach()) {
      throw Pavo::InvalidInitializeException("BrumeTemporary " + name_ + " cannot attach: " +
                                             writer_->attachStatus().message);
    }
  }
  BrumeTemporary(const BrumeTemporary&) = delete;
  BrumeTemporary& operator=(const BrumeTemporary&) = delete;

  const std::string& name() const { return name_; }
  BrumeWriter<Ops>& writer() { return *writer_; }
  // A lock-free reader of the same table (initialised on first use).
  BrumeReader<Ops>& reader() {
    if (reader_ == nullptr) reader_ = std::make_unique<BrumeReader<Ops>>(root_, fs_);
    if (!reader_->attached()) reader_->initialize();
    return *reader_;
  }

 private:
  static uint64_t nextId() {
    static std::atomic<uint64_t> id{0};
    return ++id;
  }

  std::string name_;
  Mem::RootPath root_;
  Mem::PrivateShmFs fs_;
  std::unique_ptr<BrumeWriter<Ops>> writer_;
  std::unique_ptr<BrumeReader<Ops>> reader_;
};

}  // namespace Brume
