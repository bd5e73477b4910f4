#include "mroute/route/route_key_type.h"

#include <gtest/gtest.h>

#include <sstream>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/group_key.h"
#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Fib {
namespace {

// Literals both ways are the conformance suite's; here: what is outside them.
TEST(RouteKeyTypeTest, NumbersOutsideTheLiteralsAndTheConverter) {
  std::ostringstream os;
  os << mcastGroup_ << ' ' << static_cast<RouteKeyType>(9);
  EXPECT_EQ(os.str(), "mcastGroup 9");
  EXPECT_EQ(valueToStrep(static_cast<RouteKeyType>(9)), "9");
  EXPECT_THROW(RouteKeyTypeInstance(7u), Kiv::RangeException);
  EXPECT_THROW(RouteKeyTypeInstance("mroute_"), Kiv::RangeException);
  const std::string text = "'mcastGroup' and more";
  RouteKeyType t = unknownRouteKeyType_;
  EXPECT_TRUE(sequenceToValue(text.data(), text.data() + 12, t));
  EXPECT_EQ(t, mcastGroup_);

  RouteKeyTypeConverter c(ethGroup_);
  EXPECT_EQ(Kiv::textOf(c), "'ethGroup'");
  EXPECT_EQ(RouteKeyTypeConverter::fromText("'ethGroup'"), c);
  EXPECT_NE(RouteKeyTypeConverter(mroute_), c);
  EXPECT_THROW_TEXT(RouteKeyTypeConverter::fromText("'bogus'"), Kiv::DeserializationException,
                    "value: RouteKeyType 'bogus' not allowed");
}

TEST(RouteKeyTypeTest, GroupKeyOrderAndText) {
  using ::Multicast::Group::GroupKey;
  EXPECT_LT(GroupKey(1, 9, 9), GroupKey(2, 0, 0));
  EXPECT_LT(GroupKey(2, 0, 9), GroupKey(2, 1, 0));
  EXPECT_LT(GroupKey(2, 1, 0), GroupKey(2, 1, 0xffffffff));
  GroupKey k(2, 7, 99);
  EXPECT_EQ(Kiv::textOf(k), "Value('Multicast::Group::GroupKey', ** {'kind': 2, 'index': 7, 'hash': 99})");
  EXPECT_EQ(GroupKey::fromText(Kiv::textOf(k)), k);
  EXPECT_THROW_TEXT(GroupKey::fromText("Value('Multicast::Group::GroupKey', ** {'kind': 2, 'index': 70000, "
                                       "'hash': 99})"),
                    Kiv::DeserializationException, "index: 70000 > 65535 not allowed");
}

}  // namespace
}  // namespace Routing::Multicast::Fib
