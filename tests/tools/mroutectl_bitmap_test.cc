// mroutectl bitmap, dump, lookup and follow on the tables of a live
// allocator: tables of types the tool knows only by what they register.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <sstream>
#include <string>

#include "bitmapper/bitmapper_test_util.h"
#include "tools/tool_run.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;
using namespace ToolTest;

class MroutectlBitmapTest : public testing::Test {
 protected:
  void SetUp() override {
    brume->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer);
    config->bitMapRangeIs(10);
    sm = bitMapperSmFactory(config, statusFactory(), brume);
    for (uint32_t n = 0; n < 4; ++n) BitMapperTest::alloc(*config, key(n));
    BitMapperTest::alloc(*config, key(0));
    BitMapperTest::alloc(*config, key(6));
    BitMapperTest::alloc(*config, key(6));
    BitMapperTest::dealloc(*config, key(2));  // 12 goes to the waiting key
    BitMapperTest::alloc(*config, key(7));
  }

  Testing::ShmRootScope root{"mroutectl-bitmap"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
  Kiv::Ptr<Config> config = configFactory(4, true);
  Kiv::Ptr<BitMapperSm> sm;
};

TEST_F(MroutectlBitmapTest, SummarisesThePool) {
  ToolRun r = mroutectl("bitmap bitmapper/test --min 10 --size 4");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(r.out,
            "bitmapper/test: range 10..13 (4 indexes), used 4, free 0, waiting keys 1\n"
            "  10  Ethernet1 10.0.0.0  refCount 2  (not new)\n"
            "  11  Ethernet2 10.0.0.1  refCount 1\n"
            "  12  Ethernet7 10.0.0.6  refCount 2  (not new)\n"
            "  13  Ethernet4 10.0.0.3  refCount 1\n"
            "  waiting  Ethernet8 10.0.0.7  refCount 1\n");
  r = mroutectl("bitmap bitmapper/test");
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "bitmapper/test: used 4, waiting keys 1");
}

TEST_F(MroutectlBitmapTest, AnyTableIsLookedUpAndFollowedByTheKeysItsDumpShows) {
  // Every key that dump --json shows (an integer, a value type in its text
  // form) finds its entry again through lookup.
  const std::pair<const char*, size_t> tables[] = {{"bitmapper/test/bitIndexMap", 4}, {"bitmapper/test/waitlistMap", 1}};
  for (const auto& [table, count] : tables) {
    ToolRun r = mroutectl(std::string("dump ") + table + " --json");
    ASSERT_EQ(r.code, 0) << r.out;
    const nlohmann::json dump = nlohmann::json::parse(r.out);
    ASSERT_EQ(dump["entries"].size(), count) << r.out;
    for (const auto& e : dump["entries"]) {
      r = mroutectl(std::string("lookup ") + table + " \"" + e["key"].get<std::string>() + "\" --json");
      ASSERT_EQ(r.code, 0) << r.out;
      EXPECT_EQ(nlohmann::json::parse(r.out)["text"], e["text"]);
    }
  }
  EXPECT_EQ(mroutectl("lookup bitmapper/test/bitIndexMap 99").code, 3);
  ToolRun r = mroutectl("lookup bitmapper/test/bitIndexMap 70000");
  EXPECT_EQ(r.code, 2) << r.out;
  EXPECT_EQ(r.out, "mroutectl lookup: bad key '70000' for BitMapper::BitIndexMap: BitIndex::value < 0 or > 65535 "
                   "not allowed\n");

  // Freeing 11 hands it to the waiting key: one change of the row of 11.
  FILE* follower = start("follow bitmapper/test/bitIndexMap --seconds 2 --json");
  ASSERT_NE(follower, nullptr);
  char first[4096];
  ASSERT_NE(::fgets(first, sizeof first, follower), nullptr);  // attached
  BitMapperTest::dealloc(*config, key(1));
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  while (std::chrono::steady_clock::now() < until) loop.runOnce(std::chrono::milliseconds(10));
  r = finish(follower);
  ASSERT_EQ(r.code, 0) << r.out;
  r.out = first + r.out;
  std::istringstream lines(r.out);
  std::vector<nlohmann::json> events;
  for (std::string line; std::getline(lines, line);) events.push_back(nlohmann::json::parse(line));
  ASSERT_GE(events.size(), 3u) << r.out;
  EXPECT_EQ(events.front()["valueType"], "BitMapper::BitIndexMap");
  EXPECT_EQ(events.front()["entries"], 4);
  EXPECT_EQ(events[1]["event"], "changed") << r.out;
  EXPECT_EQ(events[1]["key"], "11");
  EXPECT_NE(events[1]["text"].get<std::string>().find("Ethernet8"), std::string::npos) << r.out;
  EXPECT_EQ(events.back()["event"], "stopped");
}

TEST_F(MroutectlBitmapTest, BadRangeIsAUsageErrorAndMissingTablesAreNotFound) {
  EXPECT_EQ(mroutectl("bitmap bitmapper/test --size 65535").code, 2);
  ToolRun r = mroutectl("bitmap bitmapper/test --min 65530 --size 10");
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "mroutectl bitmap: the range 65530 + 10 reaches the reserved indexes 65534/65535\n");
  EXPECT_EQ(mroutectl("bitmap bitmapper/none").code, 3);
  EXPECT_EQ(mroutectl("bitmap").code, 2);
}

}  // namespace
