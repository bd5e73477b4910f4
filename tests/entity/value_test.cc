// Generated value types, flag sets and enumerations.
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "testing/expect_assert.h"
#include "entitygen_sample/sample.h"

namespace {

using Sample::Marks;
using Sample::Span;
using Sample::Volume;

TEST(ValueTest, ConstructorAndSettersCheckRanges) {
  EXPECT_THROW_TEXT(Span(0, 1, Volume::quiet, ""), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(Span(4095, 1, Volume::quiet, ""), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(Span(1, 0x40, Volume::quiet, ""), Kiv::RangeException, "Span::high > 0x3f not allowed");
  Span s(4094, 0x3f, Volume::loud, "ok");
  EXPECT_THROW_TEXT(s.lowIs(0), Kiv::RangeException, "Span::low < 1 or > 4094 not allowed");
  EXPECT_EQ(s.low(), 4094);  // nothing stored on failure
}

TEST(ValueTest, TextFormRoundTrips) {
  Span s(10, 3, Volume::loud, "it's");
  std::ostringstream os;
  os << s;
  EXPECT_EQ(os.str(), "Value('Sample::Span', ** {'low': 10, 'high': 3, 'volume': 'loud', 'label': 'it\\'s'})");
  EXPECT_EQ(Span::fromText(os.str()), s);
}

TEST(ValueTest, ParseErrorsNameTheField) {
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

TEST(FlagSetTest, FlagsPrintByNameAndLimitIsChecked) {
  Marks m(3);
  EXPECT_TRUE(m.first());
  EXPECT_TRUE(m.second());
  m.firstIs(false);
  EXPECT_EQ(m.value(), 2);
  std::ostringstream os;
  os << m;
  EXPECT_EQ(os.str(), "Value('Sample::Marks', ** {'first': False, 'second': True})");
  EXPECT_EQ(Marks::fromText(os.str()), m);
  EXPECT_THROW_TEXT(Marks(4), Kiv::RangeException, "Marks::value > 0x3 not allowed");
}

TEST(GeneratedEnumTest, InstanceLiteralAndStream) {
  EXPECT_EQ(Sample::VolumeInstance(2u), Volume::loud);
  EXPECT_EQ(Sample::VolumeInstance("quiet"), Volume::quiet);
  EXPECT_THROW(Sample::VolumeInstance("shout"), Kiv::RangeException);
  EXPECT_EQ(Sample::stringValue(Volume::normal), "normal");
  EXPECT_EQ(Sample::valueToStrep(Volume::normal), "'normal'");
  std::ostringstream os;
  os << Sample::Holder::Mode::off;
  EXPECT_EQ(os.str(), "off");
  const char text[] = "on";
  Sample::Holder::Mode m = Sample::Holder::Mode::off;
  EXPECT_TRUE(Sample::sequenceToValue(text, text + 2, m));
  EXPECT_EQ(m, Sample::Holder::Mode::on);
}

}  // namespace
