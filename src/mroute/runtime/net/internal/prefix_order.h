// The routing order of prefixes, shared by Orvet::Prefix and
// Orvet::IpGenPrefix: compare the bits both prefixes cover; if they differ
// the smaller address is the lesser, otherwise (one contains the other) the
// longer, more specific prefix is the lesser. A /0 prefix therefore sorts
// after everything of its family.
//
// Thread-safety: pure functions.
#pragma once

#include <compare>
#include <cstdint>

namespace Orvet::net_internal {

// Addresses in network order; `bytes` is their size (4 or 16).
std::strong_ordering comparePrefixes(const uint8_t* a, uint32_t aLength, const uint8_t* b, uint32_t bLength,
                                     int bytes);

// Clears the bits of `addr` beyond `length`.
void clearHostBits(uint8_t* addr, uint32_t length, int bytes);

}  // namespace Orvet::net_internal
