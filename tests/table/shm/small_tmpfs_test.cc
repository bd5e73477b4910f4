// Tables in a small tmpfs of the test's own (needs root; skipped otherwise):
// growth until the file system is full must end in TableFullException with
// every entry written still there, a new table's attach must fail saying so,
// and nothing may die of SIGBUS on the way. The scenario runs in a child
// process, so that the file system is unmounted even when it dies.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mroute/table/shm/ember_file.h"
#include "table/table_test_util.h"

namespace {

using namespace TableTest;

class SmallTmpfsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount a small tmpfs";
    char dir[] = "/tmp/mroute-tmpfs-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr) << std::strerror(errno);
    dir_ = dir;
    if (::mount("mroute-test", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=256k,mode=0700") != 0) {
      const int err = errno;
      ::rmdir(dir_.c_str());
      dir_.clear();
      GTEST_SKIP() << "cannot mount a tmpfs: " << std::strerror(err);
    }
    mounted_ = true;
  }
  // Runs after a failed assertion too. MNT_DETACH: a mapping left by a
  // failure does not keep the file system mounted.
  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(::umount2(dir_.c_str(), MNT_DETACH), 0) << std::strerror(errno);
    }
    if (!dir_.empty()) ::rmdir(dir_.c_str());
  }
  // Runs body in a child process; fails when it fails or dies.
  template <typename Body>
  void inChild(Body body) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      body();
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (WIFSIGNALED(status) ? "died of " + std::string(::strsignal(WTERMSIG(status))) : "failed");
  }
  Mem::RootPath table(const std::string& name) const { return Mem::RootPath(dir_ + "/" + name); }

  std::string dir_;
  bool mounted_ = false;
};

TEST_F(SmallTmpfsTest, GrowthUntilFullIsTableFullAndKeepsEveryEntry) {
  inChild([this] {
    Writer w(table("t"), config(16));
    ASSERT_TRUE(w.attach());
    Reader live(table("t"));
    ASSERT_TRUE(live.initialize());
    uint64_t written = 0;
    std::string full;
    for (; written < 100000; ++written) {
      try {
        w.write(value(written));
      } catch (const Brume::TableFullException& e) {
        full = e.what();
        break;
      }
    }
    ASSERT_FALSE(full.empty()) << "256 KiB held " << written << " entries";
    EXPECT_NE(full.find("(the file system is full)"), std::string::npos) << full;
    EXPECT_GT(written, 500u);
    // Updates need no space; a reader that mapped early and a new one see all.
    w.write(value(0, 2));
    Reader fresh(table("t"));
    ASSERT_TRUE(fresh.initialize());
    RecordValue out;
    for (uint64_t k = 0; k < written; ++k) {
      ASSERT_TRUE(fresh.lookup(k, out)) << k;
      ASSERT_TRUE(live.lookup(k, out)) << k;
      EXPECT_TRUE(out.value.check());
    }
    EXPECT_EQ(out.value.version, 1u);
    ASSERT_TRUE(fresh.lookup(0, out));
    EXPECT_EQ(out.value.version, 2u);
    // A reader's corruption report in a full file system is lost, not fatal.
    Brume::writeCorruptionMarker(Mem::systemShmFs(), table("t"), std::string(300000, 'x'));
    // A new table cannot be made: attach says why.
    Writer second(table("u"), config(512));
    EXPECT_FALSE(second.attach());
    EXPECT_EQ(second.attachStatus().error, Brume::AttachError::noSpace) << second.attachStatus().message;
    // Removing makes room again.
    for (uint64_t k = 0; k < written; k += 2) ASSERT_TRUE(w.remove(k));
    EXPECT_TRUE(valid(w));
  });
}

}  // namespace
