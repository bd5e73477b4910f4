// BoundedValue: the shape shared by the small index and number value types.
//
// An unsigned value with an inclusive range [Min, Max] and a default. The
// concrete types are not written by hand: entitygen emits one from a
// description line such as `bounded RoutePriority: u8 = 1` as a thin class
// that derives from BoundedValue and supplies, as static members,
//   kShortName    the name used in its range error ("VlanId")
//   kRangeError   (optional) the full range-error text; when absent the text is
//                 "<kShortName>::value < <Min> or > <Max> not allowed"
// plus the named constants of its description (OifIndex::null):
//
//   class OifIndex : public Kiv::BoundedValue<OifIndex, uint16_t, 0, 512, 512> {
//    public:
//     using BoundedValue::BoundedValue;
//     static constexpr std::string_view kShortName = "OifIndex";
//     ...
//   };
//
// Construction, valueIs() and fromText() throw Kiv::RangeException outside the
// range; a value is never clamped. The value is the only data member, so the
// type has the size of Word and is trivially copyable. Values compare and hash
// as their numbers and print as a plain decimal number.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/runtime/error.h"

namespace Kiv {

// Tag base, so that std::hash can be provided once for every bounded value.
struct BoundedValueTag {};

template <class Derived, std::unsigned_integral Word, Word Min, Word Max, Word Default>
class BoundedValue : public BoundedValueTag {
  static_assert(Min <= Default && Default <= Max, "the default must lie in the range");

 public:
  using WordType = Word;
  static constexpr Word kMin = Min;
  static constexpr Word kMax = Max;
  static constexpr Word kDefault = Default;

  constexpr BoundedValue() = default;
  constexpr explicit BoundedValue(Word value) : value_(checked(value)) {}

  constexpr Word value() const { return value_; }
  void valueIs(Word value) { value_ = checked(value); }

  friend constexpr bool operator==(const BoundedValue& a, const BoundedValue& b) {
    return a.value_ == b.value_;
  }
  friend constexpr auto operator<=>(const BoundedValue& a, const BoundedValue& b) {
    return a.value_ <=> b.value_;
  }

  size_t hash() const { return std::hash<Word>{}(value_); }

  friend std::ostream& operator<<(std::ostream& os, const Derived& v) {
    TextTraits<Word>::write(os, v.value());
    return os;
  }

  // Reads a plain number; any number outside [Min, Max] is the range error of
  // the type.
  static Derived fromText(std::string_view text) {
    return Derived(checked(text_internal::readUnsigned(text, std::numeric_limits<uint64_t>::max())));
  }

  // Range-checks a raw number, for readers of byte streams.
  static constexpr Word checked(uint64_t value) {
    bool below = false;
    if constexpr (Min > 0) below = value < Min;  // spares the always-false compare of unsigned < 0
    if (below || value > Max) throwRange();
    return static_cast<Word>(value);
  }

 private:
  [[noreturn]] static void throwRange() {
    if constexpr (requires { Derived::kRangeError; }) {
      throw RangeException(std::string(Derived::kRangeError));
    } else {
      throw RangeException(std::string(Derived::kShortName) + "::value < " + std::to_string(+Min) + " or > " +
                           std::to_string(+Max) + " not allowed");
    }
  }

  Word value_ = Default;
};

template <class T>
concept BoundedValueType = std::derived_from<T, BoundedValueTag>;

}  // namespace Kiv

template <Kiv::BoundedValueType T>
struct std::hash<T> {
  size_t operator()(const T& v) const { return v.hash(); }
};
