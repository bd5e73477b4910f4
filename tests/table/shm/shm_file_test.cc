#include "mroute/table/shm/shm_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "table/table_test_util.h"
#include "mroute/table/shm/writer_lock.h"
#include "mroute/table/shm/versioned_ref.h"

namespace {

using Mem::ShmAccess;
using Mem::ShmFile;

class ShmFileTest : public TableTest::ShmDirTest {
 protected:
  std::string path(const char* name) const { return Mem::joinPath(dir_, name); }
};

// Anything another process puts in place of a table file is refused at once:
// a FIFO would block an open forever, and a link would have the writer size
// and write a file elsewhere.
TEST_F(ShmFileTest, WhatIsNotARegularFileIsRefusedWithoutWaitingOrWritingThroughIt) {
  ASSERT_EQ(::mkfifo(path("slots").c_str(), 0600), 0);
  ShmFile f;
  bool created = false;
  const std::string fifo = path("slots") + " is a FIFO, not a regular file: another process put it in place of a table file";
  EXPECT_FALSE(f.open(path("slots"), ShmAccess::readOnly));
  EXPECT_EQ(f.error(), fifo);
  EXPECT_FALSE(f.openOrCreate(path("slots"), &created));
  EXPECT_EQ(f.error(), fifo);
  EXPECT_FALSE(f.isOpen());
  ASSERT_EQ(::mkdir(path("conquer.1").c_str(), 0700), 0);
  EXPECT_FALSE(f.open(path("conquer.1"), ShmAccess::readOnly));
  EXPECT_EQ(f.error(), path("conquer.1") + " is a directory, not a regular file: another process put it in place of a table file");

  ShmFile target;
  ASSERT_TRUE(target.openOrCreate(path("elsewhere"), &created)) << target.error();
  ASSERT_TRUE(target.reserve(4096));
  ASSERT_EQ(::symlink(path("elsewhere").c_str(), path("buckets").c_str()), 0);
  EXPECT_FALSE(f.openOrCreate(path("buckets"), &created));
  EXPECT_EQ(f.error(), "open(" + path("buckets") +
                           "): Too many levels of symbolic links (a symbolic link: table files are never links)");
  std::string error;
  EXPECT_FALSE(Mem::writeWholeFile(Mem::systemShmFs(), path("buckets"), "x", &error));
  EXPECT_EQ(target.fileSize(), 4096) << "nothing truncated or wrote through the link";
}

TEST_F(ShmFileTest, ReaderSeesWriterStoresAcrossGrowthButNeverMapsPastTheEnd) {
  const mode_t old = umask(077);
  ShmFile w;
  bool created = false;
  ASSERT_TRUE(w.openOrCreate(path("buckets"), &created)) << w.error();
  umask(old);
  ASSERT_TRUE(created);
  struct stat st {};
  ASSERT_EQ(stat(path("buckets").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u) << "readers of the group must be able to map it despite the umask";
  ASSERT_TRUE(w.truncate(4096));
  ASSERT_TRUE(w.map(4096));
  std::memcpy(w.base(), "BRUMEBKT", 8);

  ShmFile r;
  EXPECT_FALSE(r.open(path("nothere"), ShmAccess::readOnly));
  EXPECT_EQ(r.error(), "no such file: " + path("nothere"));
  ASSERT_TRUE(r.open(path("buckets"), ShmAccess::readOnly));
  EXPECT_FALSE(r.map(8192));
  EXPECT_EQ(r.error(), "mmap(" + path("buckets") + "): file holds 4096 bytes, 8192 wanted");
  ASSERT_TRUE(r.map(4096));
  ASSERT_TRUE(w.truncate(1 << 20));
  ASSERT_TRUE(w.remap(1 << 20));
  w.base()[(1 << 20) - 1] = 7;
  ASSERT_TRUE(r.remap(1 << 20));
  EXPECT_EQ(std::memcmp(r.base(), "BRUMEBKT", 8), 0);
  EXPECT_EQ(r.base()[(1 << 20) - 2], 0);
  EXPECT_EQ(r.base()[(1 << 20) - 1], 7);

  EXPECT_TRUE(Mem::unlinkShmFile(Mem::systemShmFs(), path("buckets"), nullptr));
  EXPECT_TRUE(Mem::unlinkShmFile(Mem::systemShmFs(), path("buckets"), nullptr)) << "missing counts as removed";
  EXPECT_EQ(r.base()[(1 << 20) - 1], 7) << "mappings outlive the name";
}

long minorFaults() {
  struct rusage ru {};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_minflt;
}

// Stores one byte into each page and returns the minor faults they took.
long faultsOfStoringInto(uint8_t* base, size_t pages) {
  const long before = minorFaults();
  for (size_t i = 0; i < pages; ++i) base[i * 4096 + 100] = static_cast<uint8_t>(i + 1);
  return minorFaults() - before;
}

TEST_F(ShmFileTest, PopulateMapsReservedPagesInAheadOfTheFirstStores) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer's shadow of every page faults on the page's first store: the count would "
                  "measure the shadow, not the mapping";
#endif
  constexpr size_t kPages = 64;
  constexpr uint64_t kBytes = kPages * 4096;
  ShmFile plain, populated;
  bool created = false;
  const auto reserved = [&](ShmFile& f, const char* name) {
    return f.openOrCreate(path(name), &created) && f.reserve(kBytes) && f.map(kBytes);
  };
  ASSERT_TRUE(reserved(plain, "plain")) << plain.error();
  ASSERT_TRUE(reserved(populated, "populated")) << populated.error();
  // An unaligned start covers its whole page; a range past the mapping is
  // cut at its end.
  if (!populated.populate(100, kBytes)) {
    GTEST_SKIP() << "this kernel cannot populate a shared mapping: " << populated.error();
  }
  EXPECT_GE(faultsOfStoringInto(plain.base(), kPages), static_cast<long>(kPages / 2))
      << "first stores into a fresh mapping fault (else this test measures nothing)";
  // A few faults remain possible for pages of the process's own (a
  // sanitizer's shadow of the range, say), never one per page.
  EXPECT_LE(faultsOfStoringInto(populated.base(), kPages), static_cast<long>(kPages / 4));
  EXPECT_TRUE(populated.populate(kBytes, 4096)) << "nothing left to do past the end";

  // Without kernel support populate() says so and the mapping works as
  // before, page faults and all.
  TableTest::FailingFs fs;
  fs.noPopulate = true;
  ShmFile old(fs);
  ASSERT_TRUE(reserved(old, "old")) << old.error();
  EXPECT_FALSE(old.populate(0, kBytes));
  EXPECT_EQ(old.error(), "madvise(" + path("old") + "): Invalid argument");
  old.base()[kBytes - 1] = 9;
  ShmFile again;
  ASSERT_TRUE(again.open(path("old"), ShmAccess::readOnly) && again.map(kBytes)) << again.error();
  EXPECT_EQ(again.base()[kBytes - 1], 9) << "the store reached the file";
}

TEST_F(ShmFileTest, InjectedFailuresAreReportedAndKeepTheOldMapping) {
  TableTest::FailingFs fs;
  ShmFile f(fs);
  bool created;
  ASSERT_TRUE(f.openOrCreate(path("slots"), &created));
  fs.failTruncate = true;
  EXPECT_FALSE(f.truncate(4096));
  EXPECT_EQ(f.error(), "ftruncate(" + path("slots") + "): " + std::strerror(ENOMEM));
  fs.failTruncate = false;
  ASSERT_TRUE(f.truncate(8192));
  fs.failMmap = true;
  EXPECT_FALSE(f.map(4096));
  EXPECT_FALSE(f.isMapped());
  fs.failMmap = false;
  ASSERT_TRUE(f.map(4096));
  f.base()[0] = 42;
  fs.failMremap = true;
  EXPECT_FALSE(f.remap(8192));
  EXPECT_EQ(f.mappedSize(), 4096u);
  EXPECT_EQ(f.base()[0], 42);
}

TEST_F(ShmFileTest, WriterLockExcludesASecondWriterAndDiesWithItsProcess) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Mem::WriterLock lock(dir_);
    const char ok = lock.tryLock() ? 'y' : 'n';
    (void)!write(ready[1], &ok, 1);
    pause();
    _exit(0);
  }
  char ok = 0;
  ASSERT_EQ(read(ready[0], &ok, 1), 1);
  ASSERT_EQ(ok, 'y');
  Mem::WriterLock second(dir_);
  {
    Mem::WriterLock::AutoLock held(second);
    EXPECT_FALSE(held.locked());
  }
  EXPECT_EQ(second.error(), "held by another writer (pid " + std::to_string(child) + "): " + dir_ + "/writer.lock");
  EXPECT_EQ(second.holder(), child);
  kill(child, SIGKILL);  // dies holding the lock
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(second.tryLock()) << second.error();
  Mem::WriterLock third(dir_);
  EXPECT_FALSE(third.tryLock()) << "two locks of one process exclude each other too";
  close(ready[0]);
  close(ready[1]);
}

TEST(VersionedRef, VersionAndRefShareOneWordInFileLayout) {
  alignas(8) unsigned char bytes[8];
  auto* ref = new (bytes) Mem::VersionedRef(0xFFFFFFFEu, Mem::VersionedRef::kNoRef);
  ref->setRefAtomic(17, 1);
  ref->setRefAtomic(18, 4);  // the version wraps without touching the ref
  uint32_t version, target;
  std::memcpy(&version, bytes, 4);
  std::memcpy(&target, bytes + 4, 4);
  EXPECT_EQ(version, 3u);
  EXPECT_EQ(target, 18u);
  EXPECT_EQ(ref->load(), (Mem::VersionedRef::Value{3, 18}));
}

// Another process truncates a file the table code maps: the pages past the
// new end read as zeros instead of raising SIGBUS, stores there never reach
// the file, and the file says it shrank.
TEST_F(ShmFileTest, AFileTruncatedUnderItsMappingsReadsZerosAndSaysSo) {
  const long page = ::sysconf(_SC_PAGESIZE);
  ShmFile w;
  bool created = false;
  ASSERT_TRUE(w.openOrCreate(path("slots"), &created)) << w.error();
  ASSERT_TRUE(w.truncate(3 * page) && w.map(3 * page));
  w.base()[1] = 5;
  w.base()[2 * page + 1] = 6;
  ShmFile r;
  ASSERT_TRUE(r.open(path("slots"), ShmAccess::readOnly) && r.map(3 * page));
  EXPECT_FALSE(r.shrankUnderMapping());

  ASSERT_EQ(::truncate(path("slots").c_str(), page), 0);
  EXPECT_EQ(r.base()[2 * page + 1], 0);
  EXPECT_TRUE(r.shrankUnderMapping());
  EXPECT_EQ(r.base()[1], 5) << "the pages before the new end still map the file";
  w.base()[page + 1] = 7;
  EXPECT_EQ(w.base()[page + 1], 7);
  EXPECT_TRUE(w.shrankUnderMapping());
  EXPECT_EQ(w.fileSize(), page) << "a store past the end must not grow the file";
  w.base()[1] = 8;
  EXPECT_EQ(r.base()[1], 8) << "the file's own pages are still shared";

  // It stays said until the file is closed, through remaps.
  EXPECT_FALSE(r.remap(2 * page));
  r.unmap();
  ASSERT_TRUE(r.map(page));
  EXPECT_TRUE(r.shrankUnderMapping());
  r.close();
  ASSERT_TRUE(r.open(path("slots"), ShmAccess::readOnly) && r.map(page));
  EXPECT_FALSE(r.shrankUnderMapping());
}

// The guard only mends faults in the table files' mappings: any other SIGBUS
// still ends the process (through the handler installed before, if any).
TEST_F(ShmFileTest, ASigbusElsewhereStillEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string other = path("other");
  auto died = [](int status) { return WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0); };
  EXPECT_EXIT(
      {
        ShmFile watched;
        bool created = false;
        if (!watched.openOrCreate(path("slots"), &created) || !watched.truncate(4096) || !watched.map(4096)) {
          std::_Exit(0);
        }
        const int fd = ::open(other.c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0 || ::ftruncate(fd, 4096) != 0) std::_Exit(0);
        auto* p = static_cast<volatile uint8_t*>(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
        if (p == MAP_FAILED || ::ftruncate(fd, 0) != 0) std::_Exit(0);
        (void)p[0];  // past the end of the file, in no table mapping
        std::_Exit(0);
      },
      died, "");
}

}  // namespace
