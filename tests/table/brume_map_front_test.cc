// The table front in one process: paths under the shared-memory root, the
// four kinds, change callbacks, readiness, cleanup.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include "table/table_test_util.h"
#include "testing/expect_assert.h"
#include "mroute/table/internal/front_restamp.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm_root.h"

namespace {

using Brume::BrumeType;
using namespace TableTest;
using Testing::runUntil;

TEST(ShmRootTest, RefusesPathsThatLeaveTheRoot) {
  Testing::ShmRootScope scope;
  const struct {
    const char* mount;
    const char* name;
    const char* why;
  } refused[] = {
      {"routing/../etc", "t", "mount path 'routing/../etc' has a '..' component"},
      {"/etc", "t", "mount path '/etc' is absolute; it must be relative to the shared-memory root"},
      {"a//b", "t", "mount path 'a//b' has an empty component"},
      {"a/b/", "t", "mount path 'a/b/' has an empty component"},
      {"", "t", "mount path '' is empty"},
      {"a", "..", "table name '..' has a '..' component"},
      {"a", "x/y", "table name 'x/y' must be a single component"},
      {"a/./b", "t", "mount path 'a/./b' has a '.' component"},
  };
  for (const auto& r : refused) {
    EXPECT_THROW_TEXT(Brume::tableRoot(r.mount, r.name), Pavo::InvalidInitializeException,
                      std::string("BrumeMap ") + r.why);
  }
  Mroute::Loop::EventLoop loop;
  EXPECT_THROW(RecordMap(loop, "x/../../y", "t", BrumeType::reader, fastOptions()), Pavo::InvalidInitializeException);
}

TEST(ShmRootTest, RootFromEnvironmentAndChrootPrefix) {
  ::unsetenv("MROUTE_SHM_ROOT");
  EXPECT_EQ(Brume::shmRoot(), "/dev/shm/mroute");
  EXPECT_EQ(Brume::tableRoot("routing/multicast/fib", "route").dir(), "/dev/shm/mroute/routing/multicast/fib/route");
  ::setenv("MROUTE_SHM_ROOT", "/dev/shm/elsewhere/", 1);
  EXPECT_EQ(Brume::tableRoot("a", "b").dir(), "/dev/shm/elsewhere/a/b");
  ::setenv("Q9_CHROOT", "/chroot/x", 1);
  const Mem::RootPath chrooted = Brume::tableRoot("a", "b");
  EXPECT_EQ(chrooted.dir(), "/chroot/x/dev/shm/elsewhere/a/b");
  EXPECT_TRUE(chrooted.chrooted());
  ::unsetenv("Q9_CHROOT");
  ::setenv("MROUTE_SHM_ROOT", "relative/root", 1);
  EXPECT_THROW_TEXT(Brume::shmRoot(), Pavo::InvalidInitializeException,
                    "BrumeMap MROUTE_SHM_ROOT 'relative/root' must be an absolute path");
  ::setenv("MROUTE_SHM_ROOT", "/dev/shm/../etc", 1);
  EXPECT_THROW(Brume::shmRoot(), Pavo::InvalidInitializeException);
  ::unsetenv("MROUTE_SHM_ROOT");
}

// Collects the keys a front reports.
struct Changes {
  std::vector<uint64_t> keys;
  void attach(RecordMap& m) {
    m.onChangeIs([this](const uint64_t& k) { keys.push_back(k); });
  }
  std::set<uint64_t> set() const { return {keys.begin(), keys.end()}; }
};

class BrumeMapFrontTest : public ::testing::Test {
 protected:
  Testing::ShmRootScope scope_;
  Mroute::Loop::EventLoop loop_;
};

TEST_F(BrumeMapFrontTest, ReaderKindsFollowTheWriter) {
  RecordMap writer(loop_, "routing/multicast/fib", "route", BrumeType::writer, fastOptions());
  ASSERT_TRUE(writer.ready());
  for (uint64_t k = 1; k <= 5; ++k) writer.write(value(k, 1));
  RecordMap shadow(loop_, "routing/multicast/fib", "route", BrumeType::shadow, fastOptions());
  RecordMap keys(loop_, "routing/multicast/fib", "route", BrumeType::keyshadow, fastOptions());
  RecordMap reader(loop_, "routing/multicast/fib", "route", BrumeType::reader, fastOptions());
  ASSERT_TRUE(shadow.ready() && keys.ready() && reader.ready());
  EXPECT_EQ(shadow.attachState(), 2);
  EXPECT_EQ(keys.attachState(), 2);
  EXPECT_EQ(reader.attachState(), 1);
  EXPECT_EQ(shadow.emberId(), writer.emberId());
  EXPECT_EQ(shadow.members(), 5u);
  EXPECT_TRUE(keys.containsKey(3));
  ASSERT_TRUE(runUntil(loop_, [&] { return writer.numReaders() == 3; }));

  Changes s, k, r;
  s.attach(shadow);
  k.attach(keys);
  r.attach(reader);
  writer.write(value(2, 7));   // update
  writer.remove(4);            // removal
  writer.write(value(9, 1));   // insert
  const std::set<uint64_t> expected{2, 4, 9};
  ASSERT_TRUE(runUntil(loop_, [&] { return s.set() == expected && k.set() == expected && r.set() == expected; }));
  EXPECT_EQ(shadow.lookup(2)->value.version, 7u);
  EXPECT_FALSE(shadow.lookup(4).has_value());
  EXPECT_FALSE(keys.containsKey(4));
  EXPECT_TRUE(keys.containsKey(9));
  EXPECT_EQ(reader.lookup(9)->value.key, 9u);
  EXPECT_EQ(shadow.members(), 5u);

  // Acknowledgements reached the writer: nothing is left unacknowledged.
  ASSERT_TRUE(runUntil(loop_, [&] { return !writer.writer()->conquer()->waitingForReaders(); }));
}

TEST_F(BrumeMapFrontTest, SecondWriterSaysWhoHoldsTheTableAndRefusesWrites) {
  RecordMap first(loop_, "a", "t", BrumeType::writer, fastOptions());
  ASSERT_TRUE(first.ready());
  RecordMap second(loop_, "a", "t", BrumeType::writer, fastOptions());
  EXPECT_FALSE(second.ready());
  const Brume::AttachStatus st = second.attachStatus();
  EXPECT_EQ(st.error, Brume::AttachError::heldByAnotherWriter);
  EXPECT_EQ(st.holderPid, ::getpid());
  const std::string reason = "BrumeWriter::attach() cannot lock: held by another writer (pid " +
                             std::to_string(::getpid()) + "): " + first.root().dir() + "/writer.lock";
  EXPECT_EQ(st.message, reason);
  EXPECT_THROW_TEXT(second.write(value(1)), Pavo::InvalidInitializeException,
                    "BrumeWriter::write() Brume table not attached: " + reason);
  EXPECT_THROW_TEXT(second.remove(1), Pavo::InvalidInitializeException,
                    "BrumeWriter::remove() Brume table not attached: " + reason);
  EXPECT_FALSE(second.lookup(1).has_value());
  EXPECT_EQ(first.attachStatus().error, Brume::AttachError::none);
  // A root under a regular file cannot hold a table.
  ::setenv("MROUTE_SHM_ROOT", (first.root().dir() + "/slots").c_str(), 1);
  RecordMap misplaced(loop_, "a", "t", BrumeType::writer, fastOptions());
  EXPECT_EQ(misplaced.attachStatus().error, Brume::AttachError::badRoot) << misplaced.attachStatus().message;
}

// A lock file that another process replaced by a link keeps the writer out,
// and it says why; a FIFO in place of the corruption report is not waited on.
TEST_F(BrumeMapFrontTest, WriterSaysWhyItCannotLockAndNeverWaitsOnAFifo) {
  const Mem::RootPath root = Brume::tableRoot("a", "t");
  std::filesystem::create_directories(root.dir());
  const std::string lock = root.file(Brume::AttachLock::kFileName);
  ASSERT_EQ(::symlink("/dev/null", lock.c_str()), 0);
  {
    RecordMap linked(loop_, "a", "t", BrumeType::writer, fastOptions());
    EXPECT_FALSE(linked.ready());
    const std::string why = "cannot lock attach.lock: open(" + lock +
                            "): Too many levels of symbolic links (a symbolic link: table files are never links)";
    EXPECT_EQ(linked.attachStatus().error, Brume::AttachError::failed);
    EXPECT_EQ(linked.attachStatus().message, why);
    EXPECT_THROW_TEXT(linked.write(value(1)), Pavo::InvalidInitializeException,
                      "BrumeWriter::write() Brume table not attached: " + why);
  }
  ASSERT_EQ(::unlink(lock.c_str()), 0);
  RecordMap writer(loop_, "a", "t", BrumeType::writer, fastOptions());
  ASSERT_TRUE(writer.ready()) << writer.attachStatus().message;
  // The writer reads a report as it appears and removes it once answered.
  const std::string marker = root.file(Brume::kCorruptionMarkerName);
  ASSERT_EQ(::mkfifo(marker.c_str(), 0600), 0);
  ASSERT_TRUE(runUntil(loop_, [&] { return !std::filesystem::exists(marker); }));
  writer.write(value(1));
  RecordMap reader(loop_, "a", "t", BrumeType::reader, fastOptions());
  ASSERT_TRUE(runUntil(loop_, [&] { return reader.lookup(1).has_value(); }));
}

TEST_F(BrumeMapFrontTest, ReadersCreateNothingAndAttachWhenTheWriterMakesTheTable) {
  Brume::BrumeMapOptions slow = fastOptions();
  slow.remountPeriod = std::chrono::seconds(60);  // only the directory watches can attach in time
  RecordMap reader(loop_, "deep/mount/path", "t", BrumeType::reader, slow);
  RecordMap shadow(loop_, "deep/mount/path", "t", BrumeType::shadow, slow);
  bool readyCalled = false;
  shadow.onReadyIs([&](bool r) { readyCalled = r; });
  for (int i = 0; i < 5; ++i) loop_.runOnce(std::chrono::milliseconds(5));
  EXPECT_FALSE(shadow.ready());
  EXPECT_EQ(shadow.emberId(), 0u);
  EXPECT_FALSE(std::filesystem::exists(scope_.dir())) << "a reader created the root";
  {
    Testing::ShmRootScope outside("missing");
    RecordMap lost(loop_, "a", "t", BrumeType::reader, slow);
    EXPECT_FALSE(std::filesystem::exists(outside.dir()));
  }
  ::setenv("MROUTE_SHM_ROOT", scope_.dir().c_str(), 1);
  RecordMap writer(loop_, "deep/mount/path", "t", BrumeType::writer, slow);
  writer.write(value(3, 1));
  ASSERT_TRUE(runUntil(loop_, [&] { return reader.ready() && shadow.lookup(3).has_value(); }));
  EXPECT_TRUE(reader.lookup(3).has_value());
  EXPECT_TRUE(readyCalled);
  EXPECT_EQ(shadow.emberId(), writer.emberId());
  EXPECT_TRUE(shadow.channelConnected());
}

TEST_F(BrumeMapFrontTest, ReaderWokenWhileTheWriterAttachesLooksAgainSoon) {
  Brume::BrumeMapOptions slow = fastOptions();
  slow.remountPeriod = std::chrono::seconds(60);  // only the attach-lock retry can attach in time
  RecordMap writer(loop_, "a", "t", BrumeType::writer, slow);
  writer.write(value(5, 1));
  auto attaching = std::make_unique<Brume::AttachLock>(writer.root());
  ASSERT_TRUE(attaching->acquire());
  RecordMap reader(loop_, "a", "t", BrumeType::reader, slow);
  for (int i = 0; i < 5; ++i) loop_.runOnce(std::chrono::milliseconds(5));
  EXPECT_FALSE(reader.ready());
  attaching.reset();  // no file event follows the release
  ASSERT_TRUE(runUntil(loop_, [&] { return reader.ready(); }));
  EXPECT_TRUE(reader.lookup(5).has_value());
}

TEST_F(BrumeMapFrontTest, WriterOnlyOperationsAndCleanup) {
  RecordMap writer(loop_, "a", "t", BrumeType::writer, fastOptions());
  RecordMap reader(loop_, "a", "t", BrumeType::reader, fastOptions());
  EXPECT_THROW_TEXT(reader.write(value(1)), Pavo::NoPermissionException, "write to read-only Brume table");
  EXPECT_THROW_TEXT(reader.remove(1), Pavo::NoPermissionException, "remove to read-only Brume table");
  EXPECT_THROW_TEXT(reader.cleanup(), Pavo::NoPermissionException, "cleanup to read-only Brume table");
  EXPECT_THROW_TEXT(reader.validate(), Pavo::NoPermissionException, "validate to read-only Brume table");
  EXPECT_THROW_TEXT(reader.validateFiles(), Pavo::NoPermissionException, "validateFiles to read-only Brume table");
  std::string why;
  EXPECT_TRUE(writer.validate(&why)) << why;
  EXPECT_TRUE(writer.validateFiles(&why)) << why;

  struct stat st {};
  ASSERT_EQ(::stat((writer.root().dir() + "/notify.sock").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);  // the table files' mode is ShmFileTest's

  writer.cleanup();
  EXPECT_FALSE(writer.ready());
  for (const char* file : {"slots", "notify.sock", "ember"}) {
    EXPECT_FALSE(std::filesystem::exists(writer.root().dir() + "/" + file)) << file;
  }
  // The ember file went away: the reader lets go of the files.
  ASSERT_TRUE(runUntil(loop_, [&] { return !reader.ready(); }));
}

TEST_F(BrumeMapFrontTest, PausedFrontIsNotCalledBack) {
  RecordMap writer(loop_, "a", "t", BrumeType::writer, fastOptions());
  RecordMap shadow(loop_, "a", "t", BrumeType::shadow, fastOptions());
  ASSERT_TRUE(runUntil(loop_, [&] { return writer.numReaders() == 1; }));
  Changes s;
  s.attach(shadow);
  shadow.notifyingIs(false);
  writer.write(value(5));
  for (int i = 0; i < 20; ++i) loop_.runOnce(std::chrono::milliseconds(2));
  EXPECT_TRUE(s.keys.empty());
  shadow.notifyingIs(true);
  writer.write(value(6));
  ASSERT_TRUE(runUntil(loop_, [&] { return s.set().count(6) == 1; }));
}

}  // namespace
