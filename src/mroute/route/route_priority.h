// RoutePriority: the rank of an application's route among the routes that
// several applications publish for one key; the strictly highest wins and 0
// never wins (best-route selection).
//
// Any 8-bit value is valid; the default is 1.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <cstdint>
#include <string_view>

#include "mroute/entity/bounded_value.h"

namespace Brume::Multicast::Fib {

class RoutePriority : public Kiv::BoundedValue<RoutePriority, uint8_t, 0, 255, 1> {
 public:
  using BoundedValue::BoundedValue;
  static constexpr std::string_view kShortName = "RoutePriority";
};

static_assert(sizeof(RoutePriority) == 1);

}  // namespace Brume::Multicast::Fib
