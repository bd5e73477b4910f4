// Byte streams for the stream order of route records: numbers in network byte
// order, one after another, with no framing.
//
// RecordWriter appends to a byte vector. RecordReader reads from a byte span
// written by another process and so trusts nothing: every read is bounds
// checked and a short stream is a Kiv::RangeException; the record types check
// the ranges of the values they read.
//
// Thread-safety: not thread-safe; one stream per thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mroute/runtime/error.h"

namespace Brume::Multicast::Fib {

class RecordWriter {
 public:
  void u16(uint16_t v) { put(v, 2); }
  void u32(uint32_t v) { put(v, 4); }
  void u64(uint64_t v) { put(v, 8); }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  void put(uint64_t v, unsigned n) {
    for (unsigned i = n; i-- > 0;) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  std::vector<uint8_t> bytes_;
};

class RecordReader {
 public:
  explicit RecordReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint16_t u16() { return static_cast<uint16_t>(take(2)); }
  uint32_t u32() { return static_cast<uint32_t>(take(4)); }
  uint64_t u64() { return take(8); }
  size_t remaining() const { return bytes_.size() - pos_; }

 private:
  uint64_t take(unsigned n) {
    if (remaining() < n) {
      throw Kiv::RangeException("record stream truncated: " + std::to_string(n) + " bytes wanted, " +
                                std::to_string(remaining()) + " left");
    }
    uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i) v = (v << 8) | bytes_[pos_++];
    return v;
  }
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
};

}  // namespace Brume::Multicast::Fib
