#include "mroute/runtime/trace.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using Mroute::Trace::CaptureSink;

TEST(Trace, LevelsParseAndPrintBack) {
  struct Case {
    const char* text;
    int64_t mask;
  } cases[] = {{"0-9", 0x3ff}, {"39", (1 << 3) | (1 << 9)}, {"12", 0x6}, {"0-39", 0x20f}, {"5", 0x20}};
  for (const Case& c : cases) {
    EXPECT_EQ(Mroute::Trace::parseLevels(c.text), c.mask) << c.text;
    EXPECT_EQ(Mroute::Trace::levelsText(static_cast<uint32_t>(c.mask)), c.text);
  }
  EXPECT_EQ(Mroute::Trace::levelsText(0), "");
  for (const char* bad : {"9-1", "x", "3-", ""}) EXPECT_EQ(Mroute::Trace::parseLevels(bad), -1) << bad;
}

TEST(Trace, MalformedSettingIsNamedAndChangesNothing) {
  struct Case {
    const char* setting;
    const char* error;
  } cases[] = {
      {"Test::X/abc", "\"Test::X/abc\": levels are digits"},
      {"/3", "\"/3\": no facility name"},
      {"Test::X /3", "no blanks"},
      {"Te*st::X", "'*' only at its end"},
  };
  for (const Case& c : cases) {
    EXPECT_NE(Mroute::Trace::settingError(c.setting).find(c.error), std::string::npos)
        << c.setting << ": " << Mroute::Trace::settingError(c.setting);
    EXPECT_FALSE(Mroute::Trace::configure(c.setting));
  }
  EXPECT_EQ(Mroute::Trace::settingError("Mroute::Brume*/3,Test::X"), "");
  EXPECT_FALSE(Mroute::Trace::facility("Test::X").enabled(0));
}

TEST(Trace, CaptureSeesOnlyEnabledLevelsAndRestoresThemAndDisabledTracesAreNotEvaluated) {
  auto& fac = Mroute::Trace::facility("Test::Capture");
  fac.levelsIs(0);
  {
    CaptureSink sink("Test::Capture/3");
    MROUTE_TRACE(fac, 3, "pass " << 7);
    MROUTE_TRACE(fac, 9, "entry");
    EXPECT_EQ(sink.texts("Test::Capture"), std::vector<std::string>{"pass 7"});
  }
  EXPECT_EQ(fac.levels(), 0u);
  // A disabled trace does not evaluate its arguments.
  CaptureSink lazy("Test::Lazy/0");
  int evaluated = 0;
  MROUTE_TRACE(Mroute::Trace::facility("Test::Lazy"), 5, ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(lazy.lines().empty());
}

TEST(Trace, WildcardAppliesToFacilitiesCreatedLater) {
  CaptureSink sink("Test::Late*/0-1");
  auto& fac = Mroute::Trace::facility("Test::LateOne");
  EXPECT_TRUE(fac.enabled(1));
  EXPECT_FALSE(fac.enabled(2));
  // The last rule that matches decides, however often settings are applied.
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(Mroute::Trace::configure("Test::Order*/1"));
    ASSERT_TRUE(Mroute::Trace::configure("Test::OrderA/2"));
  }
  EXPECT_EQ(Mroute::Trace::facility("Test::OrderA").levels(), 1u << 2);
  EXPECT_EQ(Mroute::Trace::facility("Test::OrderB").levels(), 1u << 1);
  ASSERT_TRUE(Mroute::Trace::configure("Test::Ord*/3"));
  EXPECT_EQ(Mroute::Trace::facility("Test::OrderC").levels(), 1u << 3);
  EXPECT_EQ(Mroute::Trace::facility("Test::OrderA").levels(), 1u << 3);
}

TEST(Trace, ListsSystemAndCreatedFacilitiesWithTheirLevels) {
  CaptureSink sink("Mroute::Brume/3,Test::Listed/0-2");
  Mroute::Trace::facility("Test::Listed");
  auto list = Mroute::Trace::listFacilityLevels();
  auto levelsOf = [&list](std::string_view name) -> int64_t {
    for (const auto& f : list) {
      if (f.name == name) return f.levels;
    }
    return -1;
  };
  for (const std::string& name : Mroute::Trace::systemFacilities()) EXPECT_NE(levelsOf(name), -1) << name;
  EXPECT_EQ(levelsOf("Mroute::Brume"), 1 << 3);
  EXPECT_EQ(levelsOf("Mroute::BitMapper"), 0);
  EXPECT_EQ(levelsOf("Test::Listed"), 0x7);
  EXPECT_TRUE(std::is_sorted(list.begin(), list.end(), [](auto& a, auto& b) { return a.name < b.name; }));
}

// The environment is read once per process, so each case runs in a fresh
// one: the threadsafe death-test style re-executes this binary for the child.
class TraceEnvironment : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // In the child: sets the variables, emits one line at Mroute::Brume level 3
  // and exits 0 when environmentErrors() holds exactly `wantErrors` messages.
  static void run(const char* setting, const std::string& file, size_t wantErrors) {
    setenv("MROUTE_TRACE", setting, 1);
    setenv("MROUTE_TRACE_FILE", file.c_str(), 1);
    auto errors = Mroute::Trace::environmentErrors();
    MROUTE_TRACE(Mroute::Trace::facility("Mroute::Brume"), 3, "traced line");
    std::exit(errors.size() == wantErrors ? 0 : 1);
  }
};

TEST_F(TraceEnvironment, BadSettingsAndUnwritableFileAreReported) {
  // The re-executed child inherits the parent's directory through the environment.
  if (!getenv("TRACE_TEST_DIR")) {
    std::string pattern = ::testing::TempDir() + "trace_env_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    setenv("TRACE_TEST_DIR", pattern.c_str(), 1);
  }
  std::string dir = getenv("TRACE_TEST_DIR");
  std::string file = dir + "/trace.log";
  std::string missing = dir + "/no/such/dir/trace.log";

  EXPECT_EXIT(run("garbage", file, 1), ::testing::ExitedWithCode(0),
              "MROUTE_TRACE: \"garbage\" matches no trace facility of the library");
  EXPECT_EXIT(run("x/x", file, 1), ::testing::ExitedWithCode(0),
              "MROUTE_TRACE ignored: \"x/x\": levels are digits");
  // The line still goes out, to stderr, after the error.
  EXPECT_EXIT(run("Mroute::Brume/3", missing, 1), ::testing::ExitedWithCode(0),
              "MROUTE_TRACE_FILE \".*/no/such/dir/trace.log\" cannot be appended to: No such file or "
              "directory; traces go to stderr\n.*Mroute::Brume 3 traced line");
  EXPECT_EXIT(run("Mroute::Brume*/3", file, 0), ::testing::ExitedWithCode(0), "");

  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("Mroute::Brume 3 traced line"), std::string::npos) << text.str();
  std::filesystem::remove_all(dir);
}

}  // namespace
