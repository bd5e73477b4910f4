#include "mroute/table/queue/internal/conquer_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>


namespace {

using Brume::ConquerTable;

// A formatted image of a queue file of 10 entries, as raw bytes.
class ConquerFileImage : public ::testing::Test {
 protected:
  static constexpr size_t kFull = ConquerTable::fileSize(10);
  ConquerFileImage() { ConquerTable::format(data(), 0xABCD, 10, 0, 0); }
  unsigned char* data() { return reinterpret_cast<unsigned char*>(words_.data()); }
  template <typename T>
  void put(size_t offset, T v) { std::memcpy(data() + offset, &v, sizeof v); }
  template <typename T>
  T get(size_t offset) {
    T v;
    std::memcpy(&v, data() + offset, sizeof v);
    return v;
  }
  std::string check(size_t size, uint32_t ember = 0xABCD) {
    std::string why;
    return ConquerTable::validate(data(), size, ember, &why) ? "ok" : why;
  }
  std::vector<uint64_t> words_ = std::vector<uint64_t>(kFull / 8 + 1);  // 8-aligned
};

TEST_F(ConquerFileImage, FormatWritesTheDocumentedOffsets) {
  EXPECT_EQ(std::memcmp(data(), "BRUMECQR", 8), 0);
  EXPECT_EQ(get<uint32_t>(8), 7u);
  EXPECT_EQ(get<uint32_t>(12), 0xABCDu);
  EXPECT_EQ(get<uint32_t>(60), 10u);  // the notifications ref
  Brume::conquer::storeEntry(*ConquerTable::entry(data(), 1), 0x1122334455667788ull, 42);
  EXPECT_EQ(get<uint64_t>(84), 0x1122334455667788ull) << "entry 1 is {u64 sequence, u32 slot} at 72 + 12";
  EXPECT_EQ(get<uint32_t>(92), 42u);
  EXPECT_EQ(check(kFull), "ok");
}

TEST_F(ConquerFileImage, HeaderChecksReportTheFirstFinding) {
  EXPECT_EQ(check(71), "ConquerTable::validate() bad header file size:71 wanted:72");
  EXPECT_EQ(check(kFull - 1), "ConquerTable::validate() bad shmem size:191 wanted:192 for 10 notifications");
  EXPECT_EQ(check(kFull, 0x1234), "ConquerTable::validate() bad ember:0xabcd wanted:0x1234");
  EXPECT_EQ(check(kFull, 0), "ok") << "ember 0 expects none";
  put<uint32_t>(36, 1);
  EXPECT_EQ(check(kFull), "ok");
  put<uint32_t>(36, 2);
  EXPECT_EQ(check(kFull), "ConquerTable::validate() bad tableId:2");
  put<uint32_t>(8, 6);
  EXPECT_EQ(check(kFull), "ConquerTable::validate() bad version:6");
  data()[7] = 'X';
  EXPECT_EQ(check(kFull), "ConquerTable::validate() bad magic:0x585143454d555242");
}

}  // namespace
