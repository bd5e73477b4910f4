// Text forms of raw IPv4 and IPv6 addresses, shared by the address and prefix
// types. The parsers are strict so that every accepted text prints back the
// same way (IPv4: four decimal parts without leading zeros; IPv6: any form
// RFC 4291 admits, printed in the compressed form of RFC 5952).
//
// Thread-safety: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Orvet::net_internal {

// Host-order value of "a.b.c.d", or nothing if the text is not exactly that.
std::optional<uint32_t> parseIpv4(std::string_view text);
std::string formatIpv4(uint32_t hostValue);

// Sixteen bytes in network order, or false if the text is not an IPv6 address.
bool parseIpv6(std::string_view text, uint8_t out[16]);
std::string formatIpv6(const uint8_t bytes[16]);

// The value of one hex digit of either case, or -1.
constexpr int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decimal number without sign or leading zeros, at most `max`.
std::optional<uint32_t> parseDecimal(std::string_view text, uint32_t max);

constexpr uint32_t byteSwap(uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xff00u) | ((v << 8) & 0xff0000u) | (v << 24);
}

}  // namespace Orvet::net_internal
