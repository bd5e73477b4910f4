#include "mroute/entity/kiv/enumeration.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "mroute/entity/kiv/hash_map.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/entity/kiv/text_form.h"
#include "testing/expect_assert.h"

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

// The literal functions of every generated enumeration are checked over all
// of them in the conformance suite; here what that suite does not reach.
TEST(EnumerationTest, ErrorsNameTheTypeAndNumbersWithoutLiteralPrintAsNumbers) {
  EXPECT_THROW_TEXT(Kiv::enumInstance<Shade>(3u), Kiv::RangeException, "KivTest::Shade::value 3 > 2 not allowed");
  EXPECT_THROW_TEXT(Kiv::enumInstance<Shade>("Dark"), Kiv::RangeException, "KivTest::Shade has no literal 'Dark'");
  std::ostringstream os;
  Kiv::writeEnum(os, Shade::dark);
  Kiv::writeEnum(os, static_cast<Shade>(9));
  EXPECT_EQ(os.str(), "dark9");
  Shade s = Shade::None;
  const std::string bare = "dark";  // unquoted, as a sequence may hold it
  EXPECT_TRUE(Kiv::enumFromSequence(bare.data(), bare.data() + bare.size(), s));
  EXPECT_EQ(s, Shade::dark);
  EXPECT_EQ(Kiv::findType("KivTest::Shade")->literal(3u), nullptr);
  EXPECT_ASSERTION(Kiv::registerType("KivTest::Gappy", Kiv::TypeKind::enumeration, {{"a", 1}}),
                   "literals[i].value == i");  // literals count from zero
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

TEST(StringTest, TextFormIsSingleQuotedAndReadsBackAndOrderAndHashAreByContent) {
  Kiv::Name n("Ethernet1");
  EXPECT_EQ(Kiv::textOf(n), "'Ethernet1'");
  Kiv::String8 tricky("it's");
  EXPECT_EQ(Kiv::textOf(tricky), "'it\\'s'");
  EXPECT_EQ(Kiv::TextTraits<Kiv::String8>::read(Kiv::textOf(tricky)), tricky);
  std::ostringstream os;
  os << n;
  EXPECT_EQ(os.str(), "Ethernet1");
  EXPECT_LT(Kiv::Name("a"), Kiv::Name("b"));
  std::unordered_set<Kiv::String> set{"x", "y"};
  EXPECT_EQ(set.count(Kiv::String(std::string("x"))), 1u);
}

// Key order of the tree map is checked through the generated ordered
// collections (entity/collection_test.cc).
TEST(KeyedCollectionTest, LookupDoesNotInsert) {
  Kiv::HashMap<Kiv::Name, int> h;
  EXPECT_EQ(h.lookup("a"), nullptr);
  EXPECT_TRUE(h.empty());
  h.emplace("a", 1);
  EXPECT_EQ(*h.lookup("a"), 1);
  const Kiv::RbTreeMap<int, int> t{{3, 0}};
  EXPECT_EQ(t.lookup(4), nullptr);
}

}  // namespace
