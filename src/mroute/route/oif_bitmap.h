// OifBitmap: the 512-bit outgoing-interface bitmap of a route record.
//
// Oif index i lives in word i >> 6, bit i & 63 (bit 0 the least significant);
// word 0 comes first in memory. The bitmap is eight plain 64-bit words so that
// a route stays a fixed-size, trivially copyable shared-memory record.
//
// The walk (next()) is bounded by the route's maxOifIndex, and the bound is a
// word bound: set bits above maxOifIndex in the last scanned word are still
// returned, and a maxOifIndex of OifIndex::null yields nothing at all. Writers
// therefore raise maxOifIndex whenever they set bits. Each step is one
// find-first-set per word and never allocates.
//
// Thread-safety: a plain value; callers synchronise (routes in shared tables
// are re-checked through their version by readers).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "mroute/route/oif_index.h"
#include "mroute/runtime/assert.h"

namespace Brume::Multicast::Fib {

class OifBitmap {
 public:
  static constexpr unsigned kWords = 8;
  static constexpr unsigned kWordBits = 64;

  // REQUIRES: n < kWords for word(), wordIs() and wordDel().
  uint64_t word(uint8_t n) const {
    MROUTE_ASSERT(n < kWords);
    return words_[n];
  }
  void wordIs(uint8_t n, uint64_t w) {
    MROUTE_ASSERT(n < kWords);
    words_[n] = w;
  }
  // Zeroes word n and returns what it held.
  uint64_t wordDel(uint8_t n) {
    MROUTE_ASSERT(n < kWords);
    uint64_t old = words_[n];
    words_[n] = 0;
    return old;
  }

  // REQUIRES: i is a position (below OifIndex::null) for test(), set(), clear().
  bool test(OifIndex i) const {
    MROUTE_ASSERT(i.value() < OifIndex::kPositions);
    return (words_[i.value() >> 6] >> (i.value() & 63)) & 1u;
  }
  void set(OifIndex i) {
    MROUTE_ASSERT(i.value() < OifIndex::kPositions);
    words_[i.value() >> 6] |= uint64_t{1} << (i.value() & 63);
  }
  // Clears the bit and returns its previous value.
  bool clear(OifIndex i) {
    bool old = test(i);
    words_[i.value() >> 6] &= ~(uint64_t{1} << (i.value() & 63));
    return old;
  }

  // Number of set bits, as an 8-bit count: a full bitmap of 512 wraps to 0.
  uint8_t count() const {
    unsigned n = 0;
    for (uint64_t w : words_) n += static_cast<unsigned>(std::popcount(w));
    return static_cast<uint8_t>(n);
  }

  // The next set index after `cur` (from the start when `cur` is null),
  // scanning words 0..(max >> 6); OifIndex::null when there is none or when
  // `max` is null. A record read from shared memory may hold a max above
  // null (damage by another process): the scan still stops at the last word.
  OifIndex next(OifIndex cur, OifIndex max) const {
    if (max.isNull()) return OifIndex::null;
    const unsigned last = std::min<unsigned>(max.value() >> 6, kWords - 1);
    // The first candidate position. After bit 63 of a word it is bit 0 of the
    // next word, which is what masking the whole word and moving on gives.
    const unsigned from = cur.isNull() ? 0 : cur.value() + 1u;
    unsigned w = from >> 6;
    if (w > last) return OifIndex::null;
    uint64_t bits = words_[w] & (~uint64_t{0} << (from & 63));
    while (bits == 0) {
      if (++w > last) return OifIndex::null;
      bits = words_[w];
    }
    return OifIndex(static_cast<uint16_t>(w * kWordBits + static_cast<unsigned>(std::countr_zero(bits))));
  }

  // Ascending walk over the set indexes by repeated next(); usable as a range:
  //   for (OifIndex i : route.oifIteratorConst()) ...
  // The iterator reads the bitmap it was made from; it must not outlive it.
  class Iterator {
   public:
    using value_type = OifIndex;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    Iterator(const OifBitmap* bitmap, OifIndex max, OifIndex cur) : bitmap_(bitmap), max_(max), cur_(cur) {}

    OifIndex key() const { return cur_; }
    OifIndex operator*() const { return cur_; }
    explicit operator bool() const { return !cur_.isNull(); }
    Iterator& operator++() {
      cur_ = bitmap_->next(cur_, max_);
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const Iterator& it, std::default_sentinel_t) { return it.cur_.isNull(); }

    Iterator begin() const { return *this; }
    std::default_sentinel_t end() const { return std::default_sentinel; }

   private:
    const OifBitmap* bitmap_ = nullptr;
    OifIndex max_ = OifIndex::null;
    OifIndex cur_ = OifIndex::null;
  };

  // From the first set index.
  Iterator iterator(OifIndex max) const { return Iterator(this, max, next(OifIndex::null, max)); }
  // From `start` when it is set and within the scanned words, else from the
  // next set index after it.
  Iterator iterator(OifIndex max, OifIndex start) const {
    if (start.isNull()) return Iterator(this, max, OifIndex::null);
    if (!max.isNull() && (start.value() >> 6) <= (max.value() >> 6) && test(start)) {
      return Iterator(this, max, start);
    }
    return Iterator(this, max, next(start, max));
  }

  friend bool operator==(const OifBitmap&, const OifBitmap&) = default;

 private:
  std::array<uint64_t, kWords> words_{};
};

static_assert(sizeof(OifBitmap) == 64 && alignof(OifBitmap) == 8);
static_assert(std::is_trivially_copyable_v<OifBitmap>);

}  // namespace Brume::Multicast::Fib
