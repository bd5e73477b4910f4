// Test support for the table tests: a fresh directory in the shared-memory
// file system per test, raw read-write access to a queue file behind the
// writer's back (to corrupt it) and a file system that fails on demand.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/mman.h>

#include <cerrno>
#include <string>

#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/shm_file.h"
#include "testing/shm_root_scope.h"

namespace table_test {

class ShmDirTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Mem::makeDirectories(Mem::systemShmFs(), dir_, nullptr)); }

  struct Raw {
    Mem::ShmFile file;
    Brume::ConquerTable::Header& header() { return *Brume::ConquerTable::header(file.base()); }
    Brume::ConquerTable::Entry& entry(uint32_t pos) { return *Brume::ConquerTable::entry(file.base(), pos); }
  };
  void openRaw(uint32_t table, Raw* raw) {
    bool created;
    ASSERT_TRUE(raw->file.openOrCreate(Mem::joinPath(dir_, Brume::ConquerTable::kFileNames[table]), &created));
    ASSERT_TRUE(raw->file.map(raw->file.fileSize()));
  }

  Testing::ScratchDir scratch_{"shm"};
  const std::string dir_ = scratch_.dir();
};

// Fails ftruncate, mmap or mremap with ENOMEM, or reserving space with
// ENOSPC (a full file system), on demand; everything else is real.
class FailingFs : public Mem::SystemShmFs {
 public:
  bool failTruncate = false;
  bool noSpace = false;
  int fallocate(int fd, off_t o, off_t n) override {
    return noSpace ? (errno = ENOSPC, -1) : SystemShmFs::fallocate(fd, o, n);
  }
  bool failMmap = false;
  bool failMremap = false;
  int ftruncate(int fd, off_t n) override { return failTruncate ? (errno = ENOMEM, -1) : SystemShmFs::ftruncate(fd, n); }
  void* mmap(size_t n, int prot, int fd) override {
    return failMmap ? (errno = ENOMEM, MAP_FAILED) : SystemShmFs::mmap(n, prot, fd);
  }
  void* mremap(void* p, size_t o, size_t n) override {
    return failMremap ? (errno = ENOMEM, MAP_FAILED) : SystemShmFs::mremap(p, o, n);
  }
};

}  // namespace table_test
