#include "mroute/runtime/loop/dir_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace Mroute::Loop {
namespace {

using std::chrono::milliseconds;
namespace fs = std::filesystem;

class DirWatchTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(fs::create_directory(dir_)); }

  void touch(const std::string& name, const char* text = "") {
    FILE* f = std::fopen((dir_ + "/" + name).c_str(), "a");
    ASSERT_NE(f, nullptr);
    std::fputs(text, f);
    std::fclose(f);
  }
  // Drains the loop until no more events arrive.
  void settle() {
    while (loop.runOnce(milliseconds(20)) > 0) {
    }
  }

  Testing::ScratchDir scratch_{"dirwatch"};
  const std::string dir_ = scratch_.dir();
  EventLoop loop;
  std::vector<std::string> seen_;
  DirWatch::Callback recorder() {
    return [this](DirEvent e, std::string_view name) {
      seen_.push_back(std::string(dirEventName(e)) + ":" + std::string(name));
    };
  }
};

TEST_F(DirWatchTest, CreateModifyDeleteCarryTheName) {
  DirWatch w(loop, dir_, recorder());
  touch("ember");
  touch("ember", "v2");
  fs::remove(dir_ + "/ember");
  settle();
  EXPECT_EQ(seen_, (std::vector<std::string>{"created:ember", "modified:ember", "deleted:ember"}));
}

TEST_F(DirWatchTest, DirectoryRemovedReportsGone) {
  std::string sub = dir_ + "/sub";
  fs::create_directory(sub);
  DirWatch w(loop, sub, recorder());
  fs::remove(sub);
  settle();
  ASSERT_FALSE(seen_.empty());
  EXPECT_EQ(seen_.back(), "dirGone:");
}

TEST_F(DirWatchTest, DestroyedInsideCallbackDropsTheRest) {
  int calls = 0;
  std::unique_ptr<DirWatch> w;
  w = std::make_unique<DirWatch>(loop, dir_, [&](DirEvent, std::string_view) {
    ++calls;
    w.reset();
  });
  touch("a");
  touch("b");
  settle();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(loop.watchCount(), 0u);
}

TEST_F(DirWatchTest, MissingDirectoryThrowsNamingThePath) {
  std::string missing = dir_ + "/missing";
  EXPECT_THROW_TEXT(DirWatch(loop, missing, recorder()), ErrnoException,
                    "inotify_add_watch(" + missing + "): No such file or directory");
  touch("file");
  EXPECT_THROW_TEXT(DirWatch(loop, dir_ + "/file", recorder()), ErrnoException,
                    "inotify_add_watch(" + dir_ + "/file): Not a directory");
  EXPECT_EQ(loop.watchCount(), 0u);
}

}  // namespace
}  // namespace Mroute::Loop
