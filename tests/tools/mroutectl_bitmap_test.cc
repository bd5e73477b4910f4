// mroutectl bitmap and dump on the tables of a live allocator.
#include <stdio.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "bitmapper/bitmapper_test_util.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;

struct ToolRun {
  int code;
  std::string out;
};

ToolRun mroutectl(const std::string& args) {
  ToolRun r{-1, ""};
  std::string command = MROUTECTL;
  command.append(" ").append(args).append(" 2>&1");
  FILE* p = ::popen(command.c_str(), "r");
  if (p == nullptr) return r;
  char buf[512];
  for (size_t n; (n = ::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int status = ::pclose(p);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

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

TEST_F(MroutectlBitmapTest, SummarisesThePoolAndDumpsBothTables) {
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

  r = mroutectl("dump bitmapper/test/bitIndexMap");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 4) << r.out;
  EXPECT_NE(r.out.find("\nValue('BitMapper::BitIndexMap', ** {'key': 12, 'bitMapperKey': "
                       "Value('BitMapper::BitMapperKey', ** {'intfId': Ethernet7, 'ipGenAddr': 10.0.0.6}), "
                       "'refCount': 2, 'isNewMapping': False})\n"),
            std::string::npos)
      << r.out;
  r = mroutectl("dump bitmapper/test/waitlistMap");
  EXPECT_EQ(r.out,
            "Value('BitMapper::WaitlistMap', ** {'key': Value('BitMapper::BitMapperKey', ** {'intfId': Ethernet8, "
            "'ipGenAddr': 10.0.0.7}), 'refCount': 1})\n");
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
