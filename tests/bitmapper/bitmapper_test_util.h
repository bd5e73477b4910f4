// Test support for the allocator: keys that carry their own number, and an
// allocator over freshly mounted tables in a private shared-memory root.
#pragma once

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
