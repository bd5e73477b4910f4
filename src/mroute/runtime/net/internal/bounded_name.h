// A name of at most N bytes held inline, so that the types built on it stay
// trivially copyable and can live in shared memory. The unused tail is kept
// zeroed so that byte-wise equality and hashing are exact.
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "mroute/runtime/error.h"

namespace Orvet::net_internal {

template <size_t N>
class BoundedName {
 public:
  static_assert(N < 256, "the size is kept in one byte");

  constexpr BoundedName() = default;
  // `tooLong` is the range-error text used when the name exceeds N bytes.
  BoundedName(std::string_view name, const char* tooLong) {
    if (name.size() > N) throw Kiv::RangeException(tooLong);
    std::memcpy(bytes_, name.data(), name.size());
    size_ = static_cast<uint8_t>(name.size());
  }

  std::string_view view() const { return std::string_view(bytes_, size_); }

  friend bool operator==(const BoundedName& a, const BoundedName& b) { return a.view() == b.view(); }
  friend std::strong_ordering operator<=>(const BoundedName& a, const BoundedName& b) {
    int c = a.view().compare(b.view());
    return c < 0   ? std::strong_ordering::less
           : c > 0 ? std::strong_ordering::greater
                   : std::strong_ordering::equal;
  }

 private:
  char bytes_[N] = {};
  uint8_t size_ = 0;
};

}  // namespace Orvet::net_internal
