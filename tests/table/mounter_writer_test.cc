// WriterMounter over a fake writer: corruption reports traced once,
// validation failure raised, success rewrites the ember.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/writer_mounter.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using Brume::WriterMounter;

class FakeWriter : public WriterMounter::Front {
 public:
  bool valid = true;
  std::string reason;
  bool resetWorks = true;
  std::vector<std::string> calls;
  bool validate(std::string* why) override {
    calls.push_back("validate");
    *why = reason;
    return valid;
  }
  bool rewriteEmber(std::string*) override {
    calls.push_back("rewriteEmber");
    return true;
  }
  bool resetEmberWatch() override {
    calls.push_back("resetEmberWatch");
    return resetWorks;
  }
  bool validateEmber() override {
    calls.push_back("validateEmber");
    return true;
  }
};

class WriterMounterTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(dir_.dir()); }
  void mark(const std::string& text) { std::ofstream(dir_.file("corruption-detected")) << text << "\n"; }
  auto count(const std::string& text) const { return std::ranges::count(sink_.texts("Mroute::Brume"), text); }
  TableTest::TempRoot dir_{"wm"};
  Mroute::Trace::CaptureSink sink_{"Mroute::Brume/0-9"};
  FakeWriter front_;
  WriterMounter mounter_{front_, dir_.root()};
};

TEST_F(WriterMounterTest, SameReportIsTracedOnce) {
  EXPECT_EQ(mounter_.markerPath(), dir_.dir() + "/corruption-detected");
  mark("BrumeReader::doNext() hash chain cycle detected, slotCount:9");
  mounter_.notify("corruption-detected");
  mounter_.notify("corruption-detected");
  EXPECT_EQ(count("WriterMounter::notify() corruptDetected: BrumeReader::doNext() hash chain cycle detected, slotCount:9"), 1);
  EXPECT_EQ(count("WriterMounter::notify() corruption-detected"), 2);
  mark("another finding");
  mounter_.notify("corruption-detected");
  EXPECT_EQ(count("WriterMounter::notify() corruptDetected: another finding"), 1);
  EXPECT_EQ(mounter_.lastReport(), "another finding");
}

TEST_F(WriterMounterTest, SoundTableRewritesTheEmber) {
  mounter_.notify("corruption-detected");  // marker already gone: nothing to report
  EXPECT_EQ(mounter_.lastReport(), "");
  EXPECT_EQ(front_.calls, (std::vector<std::string>{"validate", "rewriteEmber", "resetEmberWatch", "validateEmber"}));
  EXPECT_EQ(count("WriterMounter::notify() brume validation ok"), 1);
  front_.resetWorks = false;
  mounter_.notify("corruption-detected");
  EXPECT_EQ(count("EmberWatcher::resetWatch() failed to reset watch on " + dir_.dir() + "/ember"), 1);
}

TEST_F(WriterMounterTest, FailedValidationRaisesWithTheReason) {
  mark("found something");
  front_.valid = false;
  front_.reason = "Validator::validate caught: Validator::markOccupied() duplicate slot: 3";
  EXPECT_THROW_TEXT(mounter_.notify("corruption-detected"), Pavo::CorruptionDetectedException, front_.reason);
  EXPECT_EQ(front_.calls, std::vector<std::string>{"validate"});
  bool traced = false;
  for (const auto& l : sink_.lines()) {
    traced |= l.level == 0 && l.text == "WriterMounter::notify() failed brume validation " + front_.reason;
  }
  EXPECT_TRUE(traced);
}

}  // namespace
