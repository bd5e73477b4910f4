#include "mroute/runtime/trace.h"

#include <gtest/gtest.h>

namespace {

using Mroute::Trace::CaptureSink;

TEST(Trace, LevelsParse) {
  EXPECT_EQ(Mroute::Trace::parseLevels("0-9"), 0x3ff);
  EXPECT_EQ(Mroute::Trace::parseLevels("39"), (1 << 3) | (1 << 9));
  EXPECT_EQ(Mroute::Trace::parseLevels("1-2"), 0x6);
  for (const char* bad : {"9-1", "x", "3-", ""}) EXPECT_EQ(Mroute::Trace::parseLevels(bad), -1) << bad;
}

TEST(Trace, CaptureSeesOnlyEnabledLevelsAndRestoresThem) {
  auto& fac = Mroute::Trace::facility("Test::Capture");
  fac.levelsIs(0);
  {
    CaptureSink sink("Test::Capture/3");
    MROUTE_TRACE(fac, 3, "pass " << 7);
    MROUTE_TRACE(fac, 9, "entry");
    EXPECT_EQ(sink.texts("Test::Capture"), std::vector<std::string>{"pass 7"});
    EXPECT_TRUE(sink.contains("Test::Capture", "pass"));
  }
  EXPECT_EQ(fac.levels(), 0u);
}

TEST(Trace, WildcardAppliesToFacilitiesCreatedLater) {
  CaptureSink sink("Test::Late*/0-1");
  auto& fac = Mroute::Trace::facility("Test::LateOne");
  EXPECT_TRUE(fac.enabled(1));
  EXPECT_FALSE(fac.enabled(2));
}

TEST(Trace, DisabledTraceDoesNotEvaluateItsArguments) {
  CaptureSink sink("Test::Lazy/0");
  auto& fac = Mroute::Trace::facility("Test::Lazy");
  int evaluated = 0;
  auto count = [&] { return ++evaluated; };
  MROUTE_TRACE(fac, 5, count());
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(sink.lines().empty());
}

TEST(Trace, MalformedSpecChangesNothing) {
  EXPECT_FALSE(Mroute::Trace::configure("Test::X/abc"));
  EXPECT_FALSE(Mroute::Trace::facility("Test::X").enabled(0));
}

}  // namespace
