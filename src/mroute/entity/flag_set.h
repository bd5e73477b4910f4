// FlagSet: the shape shared by every flag word of the entity model.
//
// A flag word is an unsigned integer of which the low N bits are named flags.
// Flag words are not written by hand: entitygen emits one from a description
// line such as `flags IntfFlags: u32 forward accept notify noRpf fastdrop frr`
// as a thin class that derives from FlagSet and supplies, as static members,
//   kTypeName    the qualified type name of its text form
//   kShortName   the name used in its range error ("RouteFlags")
//   kFlagNames   std::array of the N flag names, bit 0 first
// and one getter/`Is` setter per flag, each a one-line call to flag()/flagIs():
//
//   class IntfFlags : public Kiv::FlagSet<IntfFlags, uint32_t, 6> {
//    public:
//     using FlagSet::FlagSet;
//     ...
//     bool forward() const { return flag(0); }
//     void forwardIs(bool v) { flagIs(0, v); }
//     ...
//   };
//
// The word itself is the only data member, so a derived flag word has the size
// and alignment of Word and is trivially copyable (it is stored in
// shared-memory slots). A raw value with bits above bit N-1 set is rejected
// with Kiv::RangeException "<kShortName>::value > 0x<max> not allowed".
//
// Text form: Value('<kTypeName>', ** {'<flag>': True, ...}) with every flag in
// bit order. A type whose text is the boolean of its only flag (IifFlags)
// declares `static constexpr bool kBareFlagText = true`. The parser also takes
// a raw number ("63", "0x3f"), range checked like a constructed word.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <algorithm>
#include <array>
#include <climits>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Kiv {

// Tag base, so that std::hash can be provided once for every flag word.
struct FlagSetTag {};

template <class Derived, std::unsigned_integral Word, unsigned N>
class FlagSet : public FlagSetTag {
  static_assert(N >= 1 && N <= sizeof(Word) * CHAR_BIT, "a flag word has 1 to all of its bits as flags");

 public:
  using WordType = Word;
  static constexpr unsigned kFlags = N;
  // Shifted in two steps so that N equal to the word's width stays defined.
  static constexpr Word kMaxValue = static_cast<Word>((Word{1} << (N - 1) << 1) - 1);

  constexpr FlagSet() = default;
  constexpr explicit FlagSet(Word value) : value_(checked(value)) {}

  constexpr Word value() const { return value_; }
  void valueIs(Word value) { value_ = checked(value); }

  // REQUIRES: bit < N.
  constexpr bool flag(unsigned bit) const { return (value_ >> bit) & 1u; }
  void flagIs(unsigned bit, bool on) {
    MROUTE_ASSERT(bit < N);
    Word mask = static_cast<Word>(Word{1} << bit);
    value_ = on ? static_cast<Word>(value_ | mask) : static_cast<Word>(value_ & ~mask);
  }

  friend constexpr bool operator==(const FlagSet& a, const FlagSet& b) { return a.value_ == b.value_; }
  friend constexpr auto operator<=>(const FlagSet& a, const FlagSet& b) { return a.value_ <=> b.value_; }

  size_t hash() const { return std::hash<Word>{}(value_); }

  friend std::ostream& operator<<(std::ostream& os, const Derived& flags) {
    if constexpr (bareFlagText()) {
      TextTraits<bool>::write(os, flags.flag(0));
    } else {
      ValueWriter writer(os, Derived::kTypeName);
      for (unsigned bit = 0; bit < N; ++bit) writer.field(Derived::kFlagNames[bit], flags.flag(bit));
      writer.end();
    }
    return os;
  }

  // Reads the text form, or a raw number ("63", "0x3f") which is range
  // checked like a constructed word.
  static Derived fromText(std::string_view text) {
    std::string_view t = text.substr(std::min(text.find_first_not_of(' '), text.size()));
    if (!t.empty() && t.front() >= '0' && t.front() <= '9') {
      return Derived(checked(text_internal::readUnsigned(t, std::numeric_limits<uint64_t>::max())));
    }
    Derived flags;
    if constexpr (bareFlagText()) {
      flags.flagIs(0, TextTraits<bool>::read(text));
    } else {
      ValueReader reader(text, Derived::kTypeName);
      for (unsigned bit = 0; bit < N; ++bit) flags.flagIs(bit, reader.field<bool>(Derived::kFlagNames[bit]));
      reader.end();
    }
    return flags;
  }

  std::string text() const {
    std::ostringstream os;
    os << static_cast<const Derived&>(*this);
    return os.str();
  }

 private:
  static constexpr bool bareFlagText() {
    if constexpr (requires { Derived::kBareFlagText; }) {
      return Derived::kBareFlagText;
    } else {
      return false;
    }
  }

  static constexpr Word checked(uint64_t value) {
    if (value > kMaxValue) throwRange();
    return static_cast<Word>(value);
  }

  [[noreturn]] static void throwRange() {
    std::ostringstream os;
    os << Derived::kShortName << "::value > 0x" << std::hex << +kMaxValue << " not allowed";
    throw RangeException(os.str());
  }

  Word value_ = 0;
};

template <class T>
concept FlagSetType = std::derived_from<T, FlagSetTag>;

}  // namespace Kiv

template <Kiv::FlagSetType T>
struct std::hash<T> {
  size_t operator()(const T& flags) const { return flags.hash(); }
};
