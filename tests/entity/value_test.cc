// Generated value types, flag sets and enumerations.
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "testing/expect_assert.h"
#include "entitygen_sample/sample.h"

namespace {

using Sample::Marks;
using Sample::Octet;
using Sample::Pair;
using Sample::RackSlot;
using Sample::Slot;
using Sample::Span;
using Sample::Volume;
using Sample::Weight;

// Constructor, setters and the text reader check ranges; the text form
// round trips and a parse error names the field.
TEST(ValueTest, RangesAndTextForm) {
  EXPECT_THROW_TEXT(Span(0, 1, Volume::quiet, ""), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(Span(4095, 1, Volume::quiet, ""), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(Span(1, 0x40, Volume::quiet, ""), Kiv::RangeException, "Span::high > 0x3f not allowed");
  Span s(4094, 0x3f, Volume::loud, "ok");
  EXPECT_THROW_TEXT(s.lowIs(0), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_EQ(s.low(), 4094);  // nothing stored on failure
  Span t(10, 3, Volume::loud, "it's");
  std::ostringstream os;
  os << t;
  EXPECT_EQ(os.str(), "Value('Sample::Span', ** {'low': 10, 'high': 3, 'volume': 'loud', 'label': 'it\\'s'})");
  EXPECT_EQ(Span::fromText(os.str()), t);
  EXPECT_THROW_TEXT(Span::fromText("Value('Sample::Span', ** {'low': 0, 'high': 3, 'volume': 'loud', 'label': ''})"),
                    Kiv::DeserializationException, "low: Span::low < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(Span::fromText("Value('Sample::Span', ** {'low': 1, 'high': 3, 'volume': 'soft', 'label': ''})"),
                    Kiv::DeserializationException, "volume: Sample::Volume has no literal ''soft''");
}

TEST(ValueTest, EqualityOrderingAndHashFollowFields) {
  Span a(1, 2, Volume::quiet, "a"), b(1, 2, Volume::quiet, "b"), c(2, 0, Volume::quiet, "a");
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);  // first field decides
  EXPECT_FALSE(a == b);
  std::unordered_set<Span> set{a, b, Span(a)};
  EXPECT_EQ(set.size(), 2u);
}

TEST(ValueTest, PackedFieldsShareOneWordAndKeepTheirOwnBits) {
  static_assert(sizeof(Pair) == 1);
  Pair p;
  EXPECT_EQ(p.low(), 1);  // the default of a packed field
  p.highIs(31);
  p.lowIs(7);
  EXPECT_EQ(p, Pair(7, 31));
  p.lowIs(0);  // clears its own bits only
  EXPECT_EQ(p.high(), 31);
  EXPECT_THROW_TEXT(p.lowIs(8), Kiv::RangeException, "Pair::low > 0x7 not allowed");
  EXPECT_LT(Pair(1, 31), Pair(2, 0));  // fields in declaration order decide, not the word
  EXPECT_EQ(Pair::fromText(Kiv::textOf(p)), p);
}

// Named flags, exact texts, limit errors and a bare one-flag set are checked on the route
// flag words (route/route_values_test.cc), made by the same generator template; here what
// those do not reach: order, hash and a set that fills its whole word.
TEST(FlagSetTest, OrderHashAndWholeWords) {
  EXPECT_LT(Marks(1), Marks(2));
  std::unordered_set<Marks> set{Marks(1), Marks(2), Marks(1)};
  EXPECT_EQ(set.size(), 2u);
  Octet o(0xff);
  EXPECT_TRUE(o.b0() && o.b7());
  o.b7Is(false);
  EXPECT_EQ(o.value(), 0x7f);
  EXPECT_EQ(Octet::fromText("255"), Octet(0xff));
  EXPECT_THROW_TEXT(Octet::fromText("256"), Kiv::RangeException, "Octet::value > 0xff not allowed");
}

TEST(BoundedValueTest, DefaultsConstantsAndRangeErrors) {
  EXPECT_EQ(Slot(), Slot::none);
  EXPECT_EQ(Slot::none.value(), 9);
  EXPECT_EQ(Slot::first.value(), 0);
  EXPECT_EQ(Slot::kUsable, 9);
  EXPECT_TRUE(Slot().isNone());
  EXPECT_FALSE(Slot::first.isNone());
  const char* error = "Slot::value < Slot::first or > Slot::none not allowed";
  EXPECT_THROW_TEXT(Slot(10), Kiv::RangeException, error);
  EXPECT_THROW_TEXT(Slot::fromText("10"), Kiv::RangeException, error);
  Slot s(3);
  EXPECT_THROW_TEXT(s.valueIs(200), Kiv::RangeException, error);
  EXPECT_EQ(s.value(), 3);  // nothing stored on failure
  std::ostringstream os;
  os << s;
  EXPECT_EQ(os.str(), "3");
  EXPECT_EQ(Slot::fromText(os.str()), s);
  // The generic error names the limits; the default is the low end.
  EXPECT_EQ(Weight(), Weight(0));
  EXPECT_EQ(Weight(1000).value(), 1000);
  EXPECT_THROW_TEXT(Weight(1001), Kiv::RangeException, "Weight::value < 0 or > 1000 not allowed");
  EXPECT_LT(Weight(2), Weight(300));
  std::unordered_set<Weight> set{Weight(7), Weight(7), Weight(8)};
  EXPECT_EQ(set.size(), 2u);
}

// Constants made by functions, each with its test: none() is the default,
// waiting() alone is not ready.
TEST(BoundedValueTest, ConstantFunctionsAndTheirTests) {
  EXPECT_EQ(RackSlot(), RackSlot::none());
  const struct {
    RackSlot slot;
    uint16_t value;
    bool none, ready;
  } cases[] = {{RackSlot::none(), 65535, true, true},
               {RackSlot::waiting(), 65534, false, false},
               {RackSlot(65533), 65533, false, true},
               {RackSlot(0), 0, false, true}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.slot.value(), c.value);
    EXPECT_EQ(c.slot.isNone(), c.none) << c.value;
    EXPECT_EQ(c.slot.isReady(), c.ready) << c.value;
  }
}

}  // namespace
