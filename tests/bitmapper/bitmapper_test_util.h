// Test support for the allocator: keys that carry their own number, and an
// allocator over freshly mounted tables in a private shared-memory root.
#pragma once

#include <sstream>
#include <string>

#include "mroute/bitmapper/bitmapper_sm.h"
#include "mroute/runtime/loop/event_loop.h"
#include "testing/shm_root_scope.h"

namespace BitMapperTest {

constexpr const char* kMount = "bitmapper/test";

// Key n: interface "Ethernet<n + 1>" and address 10.0.<n / 256>.<n % 256>, so a
// reader can tell a whole key from a torn one.
inline BitMapper::BitMapperKey key(uint32_t n) {
  return BitMapper::BitMapperKey(
      Orvet::IntfId::fromText("Ethernet" + std::to_string(n + 1)),
      Orvet::IpGenAddr::fromText("10.0." + std::to_string(n / 256) + "." + std::to_string(n % 256)));
}

// The number of a key made by key(); -1 for any other key.
inline int64_t keyNumber(const BitMapper::BitMapperKey& k) {
  std::ostringstream os;
  os << k.intfId();
  const std::string text = os.str();
  if (text.rfind("Ethernet", 0) != 0 || text.size() == 8 || text.size() > 13) return -1;
  if (text.find_first_not_of("0123456789", 8) != std::string::npos) return -1;
  const int64_t n = std::stoll(text.substr(8)) - 1;
  return n >= 0 && key(static_cast<uint32_t>(n)) == k ? n : -1;
}

// A requester's two requests.
inline void alloc(BitMapper::Config& config, const BitMapper::BitMapperKey& k) {
  config.allocRequestKeyIs(k);
  config.allocRequestCountInc(1);
}
inline void dealloc(BitMapper::Config& config, const BitMapper::BitMapperKey& k) {
  config.deallocRequestKeyIs(k);
  config.deallocRequestCountInc(1);
}

}  // namespace BitMapperTest
