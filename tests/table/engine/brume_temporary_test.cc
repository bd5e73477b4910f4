// BrumeTemporary: a table in private memory that behaves like a shared one
// and leaves nothing in the shared-memory file system.
#include "mroute/table/engine/brume_temporary.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "table/table_test_util.h"

namespace {

using namespace TableTest;
using Temporary = Brume::BrumeTemporary<RecordOps>;

// Entries of /dev/shm whose path mentions `name` (other tests may remove
// theirs meanwhile: errors only end the walk early).
int shmEntriesNaming(const std::string& name) {
  int n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator("/dev/shm", ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    n += it->path().string().find(name) != std::string::npos;
  }
  return n;
}

TEST(BrumeTemporaryTest, PrivateTableGrowsShrinksAndLeavesNoFiles) {
  Temporary a("routes", shrinking(4, 1024));
  Temporary b("routes", shrinking(4, 1024));
  EXPECT_EQ(a.name().rfind("BrumeTemp-routes-", 0), 0u) << a.name();
  EXPECT_NE(a.name(), b.name());
  for (uint64_t k = 0; k < 500; ++k) a.writer().write(value(k, 2));
  b.writer().write(value(7, 9));
  RecordValue out;
  for (uint64_t k = 0; k < 500; ++k) {
    ASSERT_TRUE(a.reader().lookup(k, out)) << k;
    EXPECT_TRUE(out.value.check());
  }
  EXPECT_EQ(a.reader().members(), 500u);
  ASSERT_TRUE(b.reader().lookup(7, out));
  EXPECT_EQ(out.value.version, 9u);
  EXPECT_FALSE(b.reader().lookup(8, out));
  for (uint64_t k = 10; k < 500; ++k) a.writer().remove(k);
  EXPECT_LT(a.writer().capacity(), 512u);
  for (uint64_t k = 0; k < 10; ++k) EXPECT_TRUE(a.reader().lookup(k, out)) << k;
  EXPECT_TRUE(valid(a.writer()));
  EXPECT_EQ(shmEntriesNaming("BrumeTemp-"), 0);
}

}  // namespace
