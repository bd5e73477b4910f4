#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route_key.h"
#include "mroute/route/route_key_input.h"
#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Fib {
namespace {

using ::Multicast::Group::GroupKey;
using Orvet::IpGenPrefix;
using Orvet::Prefix;

const std::string kHead = "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {";

TEST(RouteKeyTextTest, CompactFormByKindRoundTrips) {
  const std::pair<RouteKey, std::string> cases[] = {
      {RouteKey(), kHead + "'kind': 'unknownRouteKeyType'})"},
      {RouteKey(makeRouteKeyVlanFloodset(10)), kHead + "'kind': 'vlanFloodset', 'vlanId': 10})"},
      {RouteKey(makeRouteKeyMulticastFloodset(4094)),
       kHead + "'kind': 'multicastFloodset', 'vlanId': 4094})"},
      {RouteKey(makeRouteKeyVxlanCoreSideFloodset(1)),
       kHead + "'kind': 'vxlanCoreSideFloodset', 'vlanId': 1})"},
      {RouteKey(makeRouteKeyEthGroup(100, Orvet::EthAddr::fromText("01:00:5e:01:02:03"))),
       kHead + "'kind': 'ethGroup', 'vlanId': 100, 'ethGroup': 01:00:5e:01:02:03})"},
      {RouteKey(makeRouteKeyMcastGroup(GroupKey(2, 7, 99))),
       kHead + "'kind': 'mcastGroup', 'kind': 2, 'index': 7})"},
      {RouteKey(Prefix(), Prefix::fromText("239.1.1.1")),
       kHead + "'kind': 'mroute', 's': 0.0.0.0/0, 'g': 239.1.1.1/32})"},
      {RouteKey(Prefix::fromText("10.0.0.0/24"), Prefix::fromText("240.0.0.0/4")),
       kHead + "'kind': 'mroute', 's': 10.0.0.0/24, 'g': 240.0.0.0/4})"},
  };
  for (const auto& [key, text] : cases) {
    EXPECT_EQ(Kiv::textOf(key), text);
    EXPECT_EQ(RouteKey::fromText(text), key) << text;
    EXPECT_EQ(Kiv::textOf(RouteKey::fromText(text)), text);
  }
  // An undefined kind prints its number alone.
  EXPECT_EQ(Kiv::textOf(RouteKey(Prefix(), Prefix::fromText("112.0.0.1"))), kHead + "'kind': 7})");
}

TEST(RouteKeyTextTest, GenericFormRoundTrips) {
  IpGenRouteKey keys[] = {
      IpGenRouteKey(),
      makeRouteKeyEthGroup(100, Orvet::EthAddr::fromText("01:00:5e:01:02:03")),
      makeRouteKeyMroute(Prefix::fromText("10.0.0.0/24"), Prefix::fromText("232.1.1.1")),
      IpGenRouteKey(IpGenPrefix::fromText("2001:db8::/32"), IpGenPrefix::fromText("ff3e::1")),
  };
  for (const IpGenRouteKey& k : keys) {
    std::string text = Kiv::textOf(k);
    IpGenRouteKey back = IpGenRouteKey::fromText(text);
    EXPECT_EQ(back, k) << text;
    EXPECT_EQ(Kiv::textOf(back), text);
  }
  EXPECT_EQ(Kiv::textOf(keys[2]), kHead + "'s': 10.0.0.0/24, 'g': 232.1.1.1/32})");
  EXPECT_EQ(Kiv::textOf(keys[3]), kHead + "'s': 2001:db8::/32, 'g': ff3e::1/128})");
  EXPECT_EQ(Kiv::textOf(keys[0]), kHead + "'s': unset, 'g': unset})");
  EXPECT_THROW_TEXT(IpGenRouteKey::fromText(kHead + "'s': 10.0.0.0/24, 'g': 232.1.1.300})"),
                    Kiv::DeserializationException, "g: IpGenPrefix '232.1.1.300' not allowed");
  EXPECT_THROW(IpGenRouteKey::fromText(kHead + "'g': 232.1.1.1, 's': 10.0.0.1})"),
               Kiv::DeserializationException);
}

TEST(RouteKeyTextTest, CompactParserFailures) {
  EXPECT_ASSERTION(RouteKey::fromText("(*,239.1.1.1)"), "matches == 1");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 7})"), "matches == 1");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'vlanFloodset', 'vlan': 10})"), "matches == 1");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'ethGroup', 'vlanId': 10})"), "matches == 2");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'mcastGroup', 'kind': 2})"), "matches == 2");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'mroute', 's': 10.0.0.1/32})"), "matches == 2");
  // The IPv6 form has no compact reading: the pattern stops at the colon.
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'mroute', 's': ::/0, 'g': ff3e::1/128})"),
                   "matches == 2");
  EXPECT_THROW_TEXT(RouteKey::fromText(kHead + "'kind': 'vlanFloodset', 'vlanId': 0})"), Kiv::RangeException,
                    "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_THROW_TEXT(
      RouteKey::fromText(kHead + "'kind': 'ethGroup', 'vlanId': 4095, 'ethGroup': 01:00:5e:0:0:1})"),
      Kiv::RangeException, "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_THROW(RouteKey::fromText(kHead + "'kind': 'ethGroup', 'vlanId': 5, 'ethGroup': 01:00:5e})"),
               Kiv::RangeException);
  EXPECT_THROW(RouteKey::fromText(kHead + "'kind': 'mroute', 's': 10.0.0.1/33, 'g': 239.1.1.1/32})"),
               Kiv::RangeException);
  EXPECT_THROW(RouteKey::fromText(kHead + "'kind': 'bogus'})"), Kiv::RangeException);
}

// Out-of-range numbers are refused, never narrowed: 70000 must not become
// index 4464, nor 2^32 + 10 VLAN 10.
TEST(RouteKeyTextTest, CompactParserRefusesNumbersOutOfRange) {
  const std::string groupLimit = "GroupKey::kind or index > 65535 not allowed";
  EXPECT_THROW_TEXT(RouteKey::fromText(kHead + "'kind': 'mcastGroup', 'kind': 2, 'index': 70000})"),
                    Kiv::RangeException, groupLimit);
  EXPECT_THROW_TEXT(RouteKey::fromText(kHead + "'kind': 'mcastGroup', 'kind': 65536, 'index': 7})"),
                    Kiv::RangeException, groupLimit);
  EXPECT_THROW_TEXT(
      RouteKey::fromText(kHead + "'kind': 'mcastGroup', 'kind': 2, 'index': 18446744073709551623})"),
      Kiv::RangeException, groupLimit);
  EXPECT_EQ(RouteKey::fromText(kHead + "'kind': 'mcastGroup', 'kind': 65535, 'index': 65535})"),
            RouteKey(makeRouteKeyMcastGroup(GroupKey(65535, 65535, 0))));
  EXPECT_THROW_TEXT(RouteKey::fromText(kHead + "'kind': 'vlanFloodset', 'vlanId': 4294967306})"),
                    Kiv::RangeException, "VlanId '4294967306' not allowed");
  EXPECT_THROW_TEXT(
      RouteKey::fromText(kHead + "'kind': 'ethGroup', 'vlanId': 4294967396, 'ethGroup': 01:00:5e:0:0:1})"),
      Kiv::RangeException, "VlanId '4294967396' not allowed");
  EXPECT_ASSERTION(RouteKey::fromText(kHead + "'kind': 'vxlanCoreSideFloodset', 'vlanId': -4294967286})"),
                   "matches == 1");
}

// What an operator types reads back to the key whose exact display it is;
// blanks count nowhere, and every refusal names the part that is wrong.
TEST(RouteKeyTextTest, OperatorDisplayReadsBack) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"(*,239.1.1.1)", "(*,239.1.1.1)", "(*,239.1.1.1)"},
      {"(*,239.1.1.1/24)", "(*,239.1.1.0/24)", "(*,239.1.1.0)"},
      {" ( 10.0.0.0/24 , 232.1.1.1 ) ", "(10.0.0.0/24,232.1.1.1)", "(10.0.0.0/24,232.1.1.1)"},
      {"(*, ff3e::/16)", "(*,ff3e::/16)", "(*,ff3e::)"},
  };
  for (const auto& [typed, exact, pretty] : cases) {
    IpGenRouteKey key = routeKeyFromDisplay(typed);
    EXPECT_EQ(exactDisplay(key), exact) << typed;
    EXPECT_EQ(key.pretty(), pretty) << typed;
    EXPECT_EQ(routeKeyFromDisplay(exactDisplay(key)), key) << typed;
  }
  EXPECT_EQ(exactDisplay(makeRouteKeyVlanFloodset(10)), "vlan10 Floodset");
  const std::pair<const char*, const char*> bad[] = {
      {"*,239.1.1.1", "bad key '*,239.1.1.1': expected (S,G) or (*,G)"},
      {"(*,239.1.1.1,1)", "bad key '(*,239.1.1.1,1)': expected (S,G) or (*,G)"},
      {"(*,10.0.0.1)", "bad group '10.0.0.1': not a multicast group"},
      {"(*,239.1.1.300)", "bad group '239.1.1.300': expected an address or a prefix such as 10.0.0.0/24"},
      {"(10.0.0.1/33,239.1.1.1)", "bad source '10.0.0.1/33': expected an address or a prefix such as 10.0.0.0/24"},
      {"(2001:db8::1,239.1.1.1)", "bad key '(2001:db8::1,239.1.1.1)': source and group families differ"},
  };
  for (const auto& [typed, error] : bad) EXPECT_THROW_TEXT(routeKeyFromDisplay(typed), Kiv::RangeException, error);
}

TEST(RouteKeyTextTest, OperatorVlanIdIsOneTo4094) {
  EXPECT_EQ(vlanIdFromText(" 1").value(), 1);
  EXPECT_EQ(vlanIdFromText("4094 ").value(), 4094);
  for (const char* bad : {"0", "4095", "65536", "abc", "", "-1", "10x"}) {
    EXPECT_THROW_TEXT(vlanIdFromText(bad), Kiv::RangeException,
                      "bad VLAN id '" + std::string(bad) + "': expected a number 1..4094");
  }
}

}  // namespace
}  // namespace Routing::Multicast::Fib
