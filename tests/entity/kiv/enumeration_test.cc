#include "mroute/entity/kiv/enumeration.h"

#include <gtest/gtest.h>

#include <sstream>

#include "testing/expect_assert.h"
#include "mroute/entity/kiv/text_form.h"

namespace KivTest {
enum class Shade : uint8_t { None = 0, light = 1, dark = 2 };
}  // namespace KivTest

template <>
struct Kiv::EnumInfo<KivTest::Shade> {
  static const TypeRecord& type() {
    static const TypeRecord& r =
        registerType("KivTest::Shade", TypeKind::enumeration, {{"None", 0}, {"light", 1}, {"dark", 2}});
    return r;
  }
};

namespace {

using KivTest::Shade;

TEST(EnumerationTest, InstanceByValueAndByLiteral) {
  EXPECT_EQ(Kiv::enumInstance<Shade>(0u), Shade::None);
  EXPECT_EQ(Kiv::enumInstance<Shade>("dark"), Shade::dark);
  EXPECT_THROW_TEXT(Kiv::enumInstance<Shade>(3u), Kiv::RangeException, "KivTest::Shade::value 3 > 2 not allowed");
  EXPECT_THROW_TEXT(Kiv::enumInstance<Shade>("Dark"), Kiv::RangeException, "KivTest::Shade has no literal 'Dark'");
}

TEST(EnumerationTest, LiteralStrepAndStream) {
  EXPECT_EQ(Kiv::enumLiteral(Shade::light), "light");
  EXPECT_EQ(Kiv::enumStrep(Shade::None), "'None'");
  std::ostringstream os;
  Kiv::writeEnum(os, Shade::dark);
  Kiv::writeEnum(os, static_cast<Shade>(9));  // no literal: the number
  EXPECT_EQ(os.str(), "dark9");
}

TEST(EnumerationTest, SequenceToValueTakesBareOrQuotedLiteral) {
  Shade s = Shade::None;
  std::string text = "'light'";
  EXPECT_TRUE(Kiv::enumFromSequence(text.data(), text.data() + text.size(), s));
  EXPECT_EQ(s, Shade::light);
  text = "dark";
  EXPECT_TRUE(Kiv::enumFromSequence(text.data(), text.data() + text.size(), s));
  EXPECT_EQ(s, Shade::dark);
  text = "darker";
  EXPECT_FALSE(Kiv::enumFromSequence(text.data(), text.data() + text.size(), s));
  EXPECT_EQ(s, Shade::dark);
}

TEST(EnumerationTest, TextTraitsRoundTripAndUnknownLiteral) {
  EXPECT_EQ(Kiv::textOf(Shade::dark), "'dark'");
  EXPECT_EQ(Kiv::TextTraits<Shade>::read(Kiv::textOf(Shade::None)), Shade::None);
  EXPECT_THROW_TEXT(Kiv::TextTraits<Shade>::read("'pale'"), Kiv::RangeException,
                    "KivTest::Shade has no literal ''pale''");
  // Inside a value's text the reader names the field.
  Kiv::ValueReader r("Value('KivTest::Box', ** {'shade': 'pale'})", "KivTest::Box");
  EXPECT_THROW_TEXT(r.field<Shade>("shade"), Kiv::DeserializationException,
                    "shade: KivTest::Shade has no literal ''pale''");
}

TEST(EnumerationTest, RegistryHoldsLiteralsInValueOrder) {
  const Kiv::TypeRecord* rec = Kiv::findType("KivTest::Shade");
  ASSERT_NE(rec, nullptr);
  ASSERT_EQ(rec->literals.size(), 3u);
  EXPECT_EQ(rec->literals[2].name, "dark");
  EXPECT_EQ(rec->literal(3u), nullptr);
}

TEST(EnumerationTest, LiteralsMustCountFromZero) {
  EXPECT_ASSERTION(Kiv::registerType("KivTest::Gappy", Kiv::TypeKind::enumeration, {{"a", 1}}),
                   "literals[i].value == i");
}

}  // namespace
