// Values and enumerations, run over every generated one: text forms round
// trip and name the type, equal values hash alike, literals read back every way.
#include <string>

#include "conformance.h"
#include "mroute/bitmapper/bit_index.h"
#include "mroute/bitmapper/records.h"
#include "mroute/entities/fib/counter_mode.h"
#include "mroute/entities/group/port_vlan.h"
#include "mroute/kernel/mrt_message_type.h"
#include "mroute/route/oif_index.h"
#include "mroute/route/route_flags.h"
#include "mroute/route/route_key_type.h"
#include "mroute/route/route_priority.h"
#include "mroute/route/rpa_index.h"
#include "mroute/route/intf_flags.h"

namespace Conformance {
namespace {

// ---------------------------------------------------------------- values

template <class V>
class ValueShape : public testing::Test {};

using Values = testing::Types<BitMapper::BitIndex, BitMapper::BitMapperKey, BitMapper::BitIndexMap,
                              BitMapper::WaitlistMap, BitMapper::TableInfo, Fib::Counter, Fib::Intf, Fib::IntfFlags,
                              Hw::HwFlags, PimIntf::PrefixKey, PimIntf::PrefixMroute, MrouteLib::OutLif,
                              MrouteLib::PortProperty, MrouteLib::PortPropertyMask, MrouteLib::PortVlan,
                              BFib::Route::RouteFlags, BFib::Route::IifFlags, BFib::IntfFlags, BFib::OifIndex,
                              BFib::RpaIndex, BFib::RoutePriority>;
TYPED_TEST_SUITE(ValueShape, Values);

TYPED_TEST(ValueShape, TextFormRoundTripsAndNamesTheType) {
  const TypeParam v{};
  const std::string text = Kiv::textOf(v);
  EXPECT_EQ(TypeParam::fromText(text), v) << text;
  EXPECT_EQ(Kiv::textOf(TypeParam::fromText(text)), text);
  if (text.starts_with("Value(")) {
    EXPECT_TRUE(text.starts_with("Value('" + TypeParam::type().name + "', ** {")) << text;
  }
  EXPECT_EQ(Kiv::findType(TypeParam::type().name), &TypeParam::type());
}

TYPED_TEST(ValueShape, EqualValuesHashAlikeAndOrderIsStrict) {
  const TypeParam a{}, b{};
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<TypeParam>()(a), std::hash<TypeParam>()(b));
  EXPECT_FALSE(a < b);
  static_assert(std::is_trivially_copyable_v<TypeParam> || !std::is_same_v<TypeParam, Fib::Counter>);
}

// ---------------------------------------------------------------- enumerations

template <class E>
class EnumerationShape : public testing::Test {};

using Enumerations = testing::Types<Fib::CounterMode, Fib::Config::MultipathControl, Fib::RouteKeyType,
                                    Orvet::MrtMessageType>;
TYPED_TEST_SUITE(EnumerationShape, Enumerations);

TYPED_TEST(EnumerationShape, EveryLiteralReadsBackEveryWay) {
  const Kiv::TypeRecord& type = Kiv::EnumInfo<TypeParam>::type();
  ASSERT_FALSE(type.literals.empty());
  EXPECT_EQ(Kiv::findType(type.name), &type);
  for (const Kiv::EnumLiteral& l : type.literals) {
    const TypeParam e = Kiv::enumInstance<TypeParam>(l.value);
    EXPECT_EQ(Kiv::enumInstance<TypeParam>(l.name), e);
    EXPECT_EQ(std::string_view(stringValue(e)), l.name);
    const std::string strep = valueToStrep(e);
    EXPECT_EQ(strep, "'" + l.name + "'");
    TypeParam parsed{};
    EXPECT_TRUE(sequenceToValue(strep.data(), strep.data() + strep.size(), parsed));
    EXPECT_EQ(parsed, e);
  }
  TypeParam untouched = Kiv::enumInstance<TypeParam>(type.literals.back().value);
  const std::string bogus = "'noSuchLiteral'";
  EXPECT_FALSE(sequenceToValue(bogus.data(), bogus.data() + bogus.size(), untouched));
  EXPECT_EQ(untouched, Kiv::enumInstance<TypeParam>(type.literals.back().value));
}

}  // namespace
}  // namespace Conformance
