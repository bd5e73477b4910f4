// Group requests: the shared outLif field of a member, member order, and
// keys that differ only in their hash.
#include <gtest/gtest.h>

#include <vector>

#include "mroute/entities/group/group.h"
#include "mroute/entities/group/port_vlan.h"
#include "testing/expect_assert.h"

namespace {

using MrouteLib::OutLif;
using MrouteLib::PortProperty;
using MrouteLib::PortVlan;
using Multicast::Group::GroupKey;

PortVlan member(const char* port, uint32_t outLif) {
  return PortVlan(Orvet::IntfId::fromText(port), OutLif(outLif), PortProperty());
}

TEST(PortVlanTest, OutLifOrVlanAndTheOneBytePropertyMask) {
  EXPECT_TRUE(member("Ethernet1", 0).isOutLif());
  EXPECT_TRUE(member("Ethernet1", 4095).isOutLif());
  EXPECT_FALSE(member("Ethernet1", 1).isOutLif());
  EXPECT_FALSE(member("Ethernet1", 4094).isOutLif());
  EXPECT_EQ(member("Ethernet1", 10).vlanId(), Bridging::VlanId(10));
  EXPECT_THROW_TEXT(member("Ethernet1", 4095).vlanId(), Kiv::RangeException,
                    "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_THROW(member("Ethernet1", 65537).vlanId(), Kiv::RangeException);  // not VLAN 1 by its low 16 bits
  PortVlan p = member("Ethernet1", 0);
  p.vlanIdIs(Bridging::VlanId(20));
  EXPECT_EQ(p.outLif().value(), 20u);
  std::ostringstream os;
  os << p;
  EXPECT_EQ(os.str(), "Value('MrouteLib::PortVlan', ** {'port': Ethernet1, 'outLif': 20, 'portProperty': "
                      "Value('MrouteLib::PortProperty', ** {'mlagPort': False, 'tagOnEgress': False})})");
  static_assert(sizeof(MrouteLib::PortPropertyMask) == 1);
  MrouteLib::PortPropertyMask m(1, 3);
  EXPECT_EQ(Kiv::textOf(m), "Value('MrouteLib::PortPropertyMask', ** {'mask': 1, 'value': 3})");
}

TEST(GroupTest, MembersIterateInPortVlanOrderAndKeysDifferByHash) {
  Kiv::Ptr<Multicast::Group::Config> config = Multicast::Group::configFactory("groups");
  Kiv::Ptr<Multicast::Group::ClientConfig> client = config->clientIs("igmp");
  Kiv::Ptr<Multicast::Group::Request> a = client->requestIs(GroupKey(2, 7, 1));
  Kiv::Ptr<Multicast::Group::Request> b = client->requestIs(GroupKey(2, 7, 2));
  EXPECT_NE(a, b);
  EXPECT_EQ(a->key(), GroupKey(2, 7, 1));
  a->portVlanIs(member("Ethernet3", 10), true);
  a->portVlanIs(member("Ethernet1", 20), true);
  a->portVlanIs(member("Ethernet1", 10), true);
  std::vector<uint32_t> order;
  for (const auto& [m, on] : a->portVlan()) order.push_back(m.outLif().value());
  EXPECT_EQ(order, (std::vector<uint32_t>{10, 20, 10}));
}

}  // namespace
