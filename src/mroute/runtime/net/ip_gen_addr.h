// Orvet::IpGenAddr: an IPv4 or IPv6 address with its family word, laid out
// for shared-memory slots (20 bytes):
//
//   offset 0   uint32 af     0 unset, 1 IPv4, 2 IPv6
//   offset 4   uint8[16]     address in network order; an IPv4 address
//                            fills bytes 0..3 and the rest stay zero
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/runtime/net/address_family.h"
#include "mroute/runtime/net/ipv4_addr.h"

namespace Orvet {

class IpGenAddr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  // The unset address (family afUnknown()).
  constexpr IpGenAddr() = default;
  IpGenAddr(IpAddr v4);  // NOLINT: widening an IPv4 address is lossless
  static IpGenAddr fromIpv6(const Bytes& bytes);
  // Either "10.0.0.1" or any valid IPv6 form; "unset" gives the unset address.
  static IpGenAddr fromText(std::string_view text);

  AddressFamily af() const { return AddressFamily(af_); }
  // REQUIRES: af() == ipv4().
  IpAddr v4() const;
  // Network-order bytes; only the first four are used by IPv4.
  const uint8_t* bytes() const { return bytes_; }
  // IPv4 224.0.0.0/4 or IPv6 ff00::/8; the unset address is not multicast.
  bool isMulticast() const;
  // "10.0.0.1", "ff3e::1" (compressed form), or "unset".
  std::string text() const;

  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.af_ == b.af_ && std::memcmp(a.bytes_, b.bytes_, sizeof a.bytes_) == 0;
  }
  // By family, then numerically.
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (a.af_ != b.af_) return a.af_ <=> b.af_;
    return std::memcmp(a.bytes_, b.bytes_, sizeof a.bytes_) <=> 0;
  }

 private:
  uint32_t af_ = 0;
  uint8_t bytes_[16] = {};
};

static_assert(sizeof(IpGenAddr) == 20 && std::is_trivially_copyable_v<IpGenAddr>);

// A 32-bit hash of the sixteen address bytes. Tables place IPv6 route keys
// by it, so it must never change.
uint32_t ipv6AddressHash(const IpGenAddr& addr);
uint32_t ipv6AddressHash(const uint8_t bytes[16]);

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);

}  // namespace Orvet

template <>
struct std::hash<Orvet::IpGenAddr> {
  size_t operator()(const Orvet::IpGenAddr& a) const noexcept {
    return a.af().isIpv4() ? a.v4().hostValue() : Orvet::ipv6AddressHash(a);
  }
};
