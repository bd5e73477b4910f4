// Random byte flips in every table file: a reader answers correctly, answers
// not-found or raises Pavo::CorruptionDetectedException, and a writer that
// attaches afterwards re-uses or re-formats the files and keeps working;
// nothing crashes or loops. A file truncated under the mappings of a working
// writer and reader is reported the same way, never by SIGBUS.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>

#include "mroute/runtime/error.h"
#include "table/table_test_util.h"

namespace {

using namespace TableTest;

constexpr uint64_t kKeys = 300;

struct Flip {
  std::string file;
  size_t offset = 0;
};

class CorruptionTest : public ::testing::TestWithParam<const char*> {
 protected:
  // Writes the table, then flips one byte of the file under test: half of
  // the time in its first 512 bytes (headers, bucket heads, first slots'
  // links and status words), otherwise anywhere.
  Flip fill(std::mt19937_64& rng) {
    {
      Writer w(dir_->root(), shrinking(64));
      EXPECT_TRUE(w.attach());
      for (uint64_t k = 0; k < kKeys; ++k) w.write(value(k, 1));
      for (uint64_t k = 0; k < kKeys; k += 7) w.remove(k);
      w.write(value(3, 2));
    }
    {
      const RawFile slots(dir_->file("slots"));
      // An absent key's slot is one past the last: no flip lies in it.
      for (uint64_t k = 0; k < kKeys; ++k) slotOf_[k] = slots.slotOf(k);
    }
    Flip flip{GetParam(), 0};
    RawFile file(dir_->file(flip.file));
    if (file.size() == 0) return flip;
    flip.offset = rng() % 2 == 0 ? rng() % std::min<size_t>(512, file.size()) : rng() % file.size();
    file.base()[flip.offset] ^= static_cast<uint8_t>(1 + rng() % 255);
    return flip;
  }
  // True when the flip lies in the value bytes of key's slot: the table
  // keeps no checksum over values, so that one reads back changed.
  bool inValueOf(const Flip& flip, uint64_t key) const {
    if (flip.file != "slots") return false;
    const size_t begin = slotOffset(slotOf_.at(key)) + 16;
    return flip.offset >= begin && flip.offset < begin + sizeof(RecordValue);
  }

  void readBack(const Flip& flip) {
    Reader r(dir_->root());
    if (!r.initialize()) return;
    RecordValue out;
    for (uint64_t k = 0; k < kKeys; ++k) {
      try {
        if (r.lookup(k, out)) {
          EXPECT_EQ(out.value.key, k);
          if (!out.value.check()) {
            EXPECT_TRUE(inValueOf(flip, k)) << "key " << k << " flip at " << flip.offset;
          }
        }
      } catch (const Pavo::CorruptionDetectedException&) {
        ++raised_;
      }
    }
    try {
      uint64_t steps = 0;
      for (bool more = r.first(out); more && steps < 4 * kKeys; more = r.next(out.value.key, out)) ++steps;
      EXPECT_LT(steps, 4 * kKeys) << "iteration did not end, flip at " << flip.offset;
    } catch (const Pavo::CorruptionDetectedException&) {
      ++raised_;
    }
    for (uint32_t i = 0; i < r.capacity() + 4; ++i) r.safeValue(i, out);
  }

  void writeAgain() {
    Writer w(dir_->root(), shrinking(64));
    ASSERT_TRUE(w.attach());
    EXPECT_TRUE(valid(w));
    try {
      for (uint64_t k = 0; k < kKeys; ++k) w.write(value(k, 5));
      for (uint64_t k = 0; k < kKeys; k += 3) w.remove(k);
      for (uint64_t k = 1; k < kKeys; k += 3) EXPECT_EQ(w.lookup(k)->value.version, 5u);
    } catch (const Pavo::CorruptionDetectedException&) {
      // Files whose damage the checks could not see may still be refused
      // later, but only this way.
      ++raised_;
    }
    w.cleanup();
  }

  std::unique_ptr<TempRoot> dir_;
  std::map<uint64_t, uint32_t> slotOf_;
  int raised_ = 0;
};

TEST_P(CorruptionTest, FlippedBytesAreAnsweredRefusedOrReported) {
  std::mt19937_64 rng(std::hash<std::string>{}(GetParam()));
  const char* env = std::getenv("MROUTE_CORRUPTION_TRIALS");
  const int trials = env != nullptr ? std::atoi(env) : 150;
  for (int trial = 0; trial < trials; ++trial) {
    dir_ = std::make_unique<TempRoot>("corrupt");
    const Flip flip = fill(rng);
    readBack(flip);
    writeAgain();
    if (HasFailure()) {
      ADD_FAILURE() << "trial " << trial << " flipped " << flip.file << " at " << flip.offset;
      break;
    }
  }
  std::printf("%s: %d corruption reports in %d trials\n", GetParam(), raised_, trials);
}

TEST_P(CorruptionTest, AFileTruncatedUnderTheMappingsIsReportedNotASignal) {
  dir_ = std::make_unique<TempRoot>("truncated");
  Writer w(dir_->root(), shrinking(64));
  ASSERT_TRUE(w.attach());
  for (uint64_t k = 0; k < kKeys; ++k) w.write(value(k, 1));
  Reader r(dir_->root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  ASSERT_TRUE(r.lookup(kKeys - 1, out));

  ASSERT_EQ(::truncate(dir_->file(GetParam()).c_str(), 0), 0);
  readBack(Flip{GetParam(), 0});
  std::string report;
  try {
    for (uint64_t k = 0; k < kKeys; ++k) w.write(value(k, 2));
    for (uint64_t k = 0; k < kKeys; k += 3) w.remove(k);
  } catch (const Pavo::CorruptionDetectedException& e) {
    report = e.what();
  }
  const std::string name = GetParam();
  if (name == "slots" || name == "buckets") {
    // The writer's walks meet the zeros at once; its report names the file.
    EXPECT_NE(report.find(dir_->file(GetParam()) + " shrank under the writer's mapping: another process truncated it"),
              std::string::npos)
        << report;
  } else if (!report.empty()) {
    EXPECT_NE(report.find("another process truncated it"), std::string::npos) << report;
  }
}

INSTANTIATE_TEST_SUITE_P(EachFile, CorruptionTest,
                         ::testing::Values("slots", "buckets", "ember", "conquer.1", "conquer.2"),
                         [](const auto& info) {
                           std::string n = info.param;
                           std::replace(n.begin(), n.end(), '.', '_');
                           return n;
                         });

}  // namespace
