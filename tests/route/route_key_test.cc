#include "mroute/route/route_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Fib {
namespace {

using ::Multicast::Group::GroupKey;
using Orvet::EthAddr;
using Orvet::IpGenPrefix;
using Orvet::Prefix;

Prefix p(const char* text) { return Prefix::fromText(text); }
IpGenPrefix gp(const char* text) { return IpGenPrefix::fromText(text); }
RouteKey key(const char* s, const char* g) { return RouteKey(p(s), p(g)); }
const EthAddr kMac(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03);

// A key of every defined kind, as both types.
std::vector<IpGenRouteKey> everyKind() {
  return {IpGenRouteKey(RouteKey()),
          makeRouteKeyVlanFloodset(10),
          makeRouteKeyMulticastFloodset(4094),
          makeRouteKeyEthGroup(100, kMac),
          makeRouteKeyMcastGroup(GroupKey(2, 7, 99)),
          makeRouteKeyVxlanCoreSideFloodset(1),
          makeRouteKeyMroute(Prefix(), p("239.1.1.1")),
          makeRouteKeyMroute(p("10.0.0.0/24"), p("232.0.0.0/8"))};
}

TEST(RouteKeyEncodingTest, ReservedKindsFoldIntoGroups) {
  IpGenRouteKey vlan = makeRouteKeyVlanFloodset(10);
  EXPECT_EQ(vlan, IpGenRouteKey(gp("0.0.0.0/0"), gp("16.10.0.0/32")));
  EXPECT_EQ(vlan.kind(), vlanFloodset_);
  EXPECT_EQ(vlan.vlanId(), Bridging::VlanId(10));
  EXPECT_TRUE(vlan.ethAddr().isZero());
  EXPECT_EQ(vlan.pretty(), "vlan10 Floodset");
  EXPECT_EQ(makeRouteKeyMulticastFloodset(10).g(), gp("32.10.0.0"));
  EXPECT_EQ(makeRouteKeyMulticastFloodset(10).pretty(), "vlan10 Multicast Floodset");
  EXPECT_EQ(makeRouteKeyVxlanCoreSideFloodset(10).g(), gp("80.10.0.0"));
  EXPECT_EQ(makeRouteKeyVxlanCoreSideFloodset(10).pretty(), "vlan10 Vxlan CoreSide Floodset");

  IpGenRouteKey eth = makeRouteKeyEthGroup(100, kMac);
  EXPECT_EQ(eth.s(), gp("94.1.2.3/32"));
  EXPECT_EQ(eth.g().v4().address().hostValue(), (0x3u << 28 | 100u << 16 | 0x0100u));
  EXPECT_EQ(eth.ethAddr(), kMac);
  EXPECT_EQ(RouteKey(eth).ethAddr(), kMac);
  EXPECT_EQ(eth.vlanId().value(), 100);
  EXPECT_EQ(eth.pretty(), "vlan100 01:00:5e:01:02:03");

  IpGenRouteKey group = makeRouteKeyMcastGroup(GroupKey(2, 7, 99));
  EXPECT_EQ(group, IpGenRouteKey(gp("0.2.0.7/32"), gp("64.0.0.0/32")));
  EXPECT_EQ(group.mcastGroup(), GroupKey(2, 7, 0));
  EXPECT_EQ(RouteKey(group).mcastGroup(), GroupKey(2, 7, 0));
  EXPECT_EQ(group.pretty(), "Mcast Group Kind 2 Index 7");
}

TEST(RouteKeyEncodingTest, RoutesAndTheirDisplay) {
  RouteKey starG = RouteKey(makeRouteKeyMroute(Prefix(), p("239.1.1.1")));
  EXPECT_EQ(starG, key("0.0.0.0/0", "239.1.1.1/32"));
  EXPECT_EQ(starG.kind(), mroute_);
  EXPECT_EQ(starG.pretty(), "(*,239.1.1.1)");
  EXPECT_EQ(key("10.0.0.1", "232.1.1.1").pretty(), "(10.0.0.1,232.1.1.1)");
  EXPECT_EQ(key("10.0.0.0/24", "232.1.1.1").pretty(), "(10.0.0.0/24,232.1.1.1)");
  EXPECT_EQ(key("10.0.0.1", "232.0.0.0/8").pretty(), "(10.0.0.1,232.0.0.0/8)");
  EXPECT_EQ(key("0.0.0.0/0", "232.0.0.0/8").pretty(), "(*,232.0.0.0)");
  EXPECT_EQ(key("0.0.0.0/0", "240.0.0.1").kind(), mroute_);
  EXPECT_EQ(IpGenRouteKey(key("0.0.0.0/0", "240.0.0.1")).kind(), mroute_);
  EXPECT_EQ(RouteKey().pretty(), "Unknown Type");
  EXPECT_EQ(IpGenRouteKey().pretty(), "Unknown Type");

  IpGenRouteKey six(gp("2001:db8::1"), gp("ff3e::1"));
  EXPECT_EQ(six.kind(), mroute_);
  EXPECT_EQ(six.pretty(), "(2001:db8::1,ff3e::1)");
  EXPECT_EQ(IpGenRouteKey(gp("::/0"), gp("ff3e::1")).pretty(), "(*,ff3e::1)");
}

// Every misuse fails with the text operators and logs know.
TEST(RouteKeyEncodingTest, MisuseTexts) {
  RouteKey route = key("0.0.0.0/0", "239.1.1.1");
  IpGenRouteKey genRoute(route);
  const std::string vlanKinds =
      "type == vlanFloodset_ or type == multicastFloodset_ or type == vxlanCoreSideFloodset_ or type == ethGroup_";
  EXPECT_ASSERTION(route.vlanId(), "key.kind() != mroute_");
  EXPECT_ASSERTION(genRoute.vlanId(), vlanKinds);
  EXPECT_THROW_TEXT(RouteKey().vlanId(), Kiv::RangeException, "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_ASSERTION(IpGenRouteKey(RouteKey()).vlanId(), vlanKinds);
  EXPECT_THROW_TEXT(IpGenRouteKey(key("0.0.0.0/0", "16.0.0.0")).vlanId(), Kiv::RangeException,
                    "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_ASSERTION(route.ethAddr(), "type != mroute_");
  EXPECT_ASSERTION(genRoute.ethAddr(), "type not_eq mroute_");
  EXPECT_ASSERTION(route.mcastGroup(), "type == mcastGroup_");
  EXPECT_ASSERTION(RouteKey(makeRouteKeyVlanFloodset(5)).mcastGroup(), "type == mcastGroup_");
  EXPECT_ASSERTION(makeRouteKeyVlanFloodset(5).mcastGroup(), "type == mcastGroup_");
  EXPECT_ASSERTION(IpGenRouteKey(gp("::/0"), gp("2001:db8::1")).kind(), "g().af() == Orvet::ipv4()");
  EXPECT_ASSERTION(key("0.0.0.0/0", "112.0.0.0").pretty(), "0 && \"Unexpected RouteKey type\"");
  EXPECT_ASSERTION(IpGenRouteKey(key("0.0.0.0/0", "208.0.0.1")).pretty(),
                   "0 && \"Unexpected RouteKey type\"");
}

TEST(RouteKeyOrderTest, GroupFirstThenSourceByPrefixRule) {
  EXPECT_LT(key("1.1.1.1", "225.1.1.1"), key("2.2.2.2", "225.1.1.1"));
  EXPECT_LT(key("9.9.9.9", "225.0.0.1"), key("1.1.1.1", "226.0.0.1"));
  EXPECT_LT(key("10.0.0.1", "225.0.0.1"), key("10.0.0.0/24", "225.0.0.1"));
  EXPECT_LT(key("10.0.0.0/24", "225.0.0.1"), key("0.0.0.0/0", "225.0.0.1"));
  EXPECT_LT(key("0.0.0.0/0", "225.0.0.1"), key("0.0.0.0/0", "225.0.0.0/8"));
  EXPECT_FALSE(key("1.1.1.1", "225.1.1.1") < key("1.1.1.1", "225.1.1.1"));

  // Both types sort IPv4 keys identically.
  std::vector<RouteKey> compact = {key("2.2.2.2", "226.0.0.1"), key("0.0.0.0/0", "225.0.0.1"),
                                   key("1.1.1.1", "226.0.0.1"), key("3.0.0.0/8", "225.0.0.1"),
                                   RouteKey(makeRouteKeyVlanFloodset(3))};
  std::vector<IpGenRouteKey> generic;
  for (const RouteKey& k : compact) generic.emplace_back(k);
  std::sort(compact.begin(), compact.end());
  std::sort(generic.begin(), generic.end());
  for (size_t i = 0; i < compact.size(); ++i) EXPECT_EQ(IpGenRouteKey(compact[i]), generic[i]) << i;
  EXPECT_EQ(compact.front(), RouteKey(makeRouteKeyVlanFloodset(3)));
  EXPECT_EQ(compact.back(), key("2.2.2.2", "226.0.0.1"));

  // IPv4 keys sort before IPv6 keys.
  EXPECT_LT(IpGenRouteKey(key("1.1.1.1", "239.0.0.1")), IpGenRouteKey(gp("::/0"), gp("ff3e::1")));
}

uint32_t referenceWang(uint32_t x) {
  x = ~x + (x << 15);
  x = x ^ (x >> 12);
  x = x + (x << 2);
  x = x ^ (x >> 4);
  x = x * 2057;
  x = x ^ (x >> 16);
  return x;
}

TEST(RouteKeyOrderTest, HashAgreesAcrossTypes) {
  for (const IpGenRouteKey& k : everyKind()) {
    RouteKey compact(k);
    EXPECT_EQ(k.hash(), compact.hash()) << k.pretty();
    EXPECT_EQ(std::hash<IpGenRouteKey>()(k), std::hash<RouteKey>()(compact));
  }
  RouteKey sg = key("10.0.0.1", "232.1.1.1");
  EXPECT_EQ(sg.hash(), referenceWang(0x0a000001u ^ 32) ^ referenceWang(0xe8010101u ^ 32));
  EXPECT_NE(sg.hash(), key("10.0.0.1", "232.1.1.2").hash());
  EXPECT_NE(key("10.0.0.0/24", "232.1.1.1").hash(), key("10.0.0.0/25", "232.1.1.1").hash());
  EXPECT_EQ(IpGenRouteKey().hash(), 0u);
  IpGenRouteKey six(gp("::/0"), gp("ff3e::1"));
  EXPECT_EQ(six.hash(),
            referenceWang(0) ^ referenceWang(Orvet::ipv6AddressHash(gp("ff3e::1").address()) ^ 128));
}

}  // namespace
}  // namespace Routing::Multicast::Fib
