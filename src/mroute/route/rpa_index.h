// RpaIndex: the index of a rendezvous-point address of a bidirectional group.
//
// Any 16-bit value is valid. A default-constructed RpaIndex holds 65535 (no
// rendezvous point); a route built from a key stores 0 instead.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <cstdint>
#include <string_view>

#include "mroute/entity/bounded_value.h"

namespace Brume::Multicast::Fib {

class RpaIndex : public Kiv::BoundedValue<RpaIndex, uint16_t, 0, 65535, 65535> {
 public:
  using BoundedValue::BoundedValue;
  static constexpr std::string_view kShortName = "RpaIndex";
};

static_assert(sizeof(RpaIndex) == 2);

}  // namespace Brume::Multicast::Fib
