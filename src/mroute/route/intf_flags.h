// IntfFlags: how a route uses one of its interfaces, as reported by the route
// interface iterators (an outgoing interface reads forward|notify).
//
// Do not renumber the bits: they are shared with the status entities' own
// interface flag word.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "mroute/entity/flag_set.h"

namespace Brume::Multicast::Fib {

class IntfFlags : public Kiv::FlagSet<IntfFlags, uint32_t, 6> {
 public:
  using FlagSet::FlagSet;
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::IntfFlags";
  static constexpr std::string_view kShortName = "IntfFlags";
  static constexpr std::array<std::string_view, 6> kFlagNames = {"forward", "accept",   "notify",
                                                                 "noRpf",   "fastdrop", "frr"};

  bool forward() const { return flag(0); }
  void forwardIs(bool v) { flagIs(0, v); }
  bool accept() const { return flag(1); }
  void acceptIs(bool v) { flagIs(1, v); }
  bool notify() const { return flag(2); }
  void notifyIs(bool v) { flagIs(2, v); }
  bool noRpf() const { return flag(3); }
  void noRpfIs(bool v) { flagIs(3, v); }
  bool fastdrop() const { return flag(4); }
  void fastdropIs(bool v) { flagIs(4, v); }
  bool frr() const { return flag(5); }
  void frrIs(bool v) { flagIs(5, v); }
};

static_assert(sizeof(IntfFlags) == 4);

}  // namespace Brume::Multicast::Fib
