// The two flag words of a route record: RouteFlags and IifFlags.
//
// Both are stored in the route as 32-bit words (Route::RouteFlags and
// Route::IifFlags name them there). Do not renumber the bits: they are part of
// the shared-memory route format.
//
// Thread-safety: plain values; no shared state.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "mroute/entity/flag_set.h"

namespace Brume::Multicast::Fib {

class RouteFlags : public Kiv::FlagSet<RouteFlags, uint32_t, 6> {
 public:
  using FlagSet::FlagSet;
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::Route::RouteFlags";
  static constexpr std::string_view kShortName = "RouteFlags";
  static constexpr std::array<std::string_view, 6> kFlagNames = {
      "valid", "toCpu", "iifRegister", "oifRegister", "programmable", "skipKernelProgramming"};

  bool valid() const { return flag(0); }
  void validIs(bool v) { flagIs(0, v); }
  bool toCpu() const { return flag(1); }
  void toCpuIs(bool v) { flagIs(1, v); }
  bool iifRegister() const { return flag(2); }
  void iifRegisterIs(bool v) { flagIs(2, v); }
  bool oifRegister() const { return flag(3); }
  void oifRegisterIs(bool v) { flagIs(3, v); }
  bool programmable() const { return flag(4); }
  void programmableIs(bool v) { flagIs(4, v); }
  bool skipKernelProgramming() const { return flag(5); }
  void skipKernelProgrammingIs(bool v) { flagIs(5, v); }
};

// Prints and parses as the boolean of noRpf alone.
class IifFlags : public Kiv::FlagSet<IifFlags, uint32_t, 1> {
 public:
  using FlagSet::FlagSet;
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::Route::IifFlags";
  static constexpr std::string_view kShortName = "IifFlags";
  static constexpr std::array<std::string_view, 1> kFlagNames = {"noRpf"};
  static constexpr bool kBareFlagText = true;

  bool noRpf() const { return flag(0); }
  void noRpfIs(bool v) { flagIs(0, v); }
};

static_assert(sizeof(RouteFlags) == 4 && sizeof(IifFlags) == 4);

}  // namespace Brume::Multicast::Fib
