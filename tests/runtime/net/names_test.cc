#include <gtest/gtest.h>

#include <string>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/intf_id.h"
#include "mroute/runtime/net/namespace_name.h"
#include "mroute/runtime/net/vlan_id.h"
#include "mroute/runtime/net/vrf_name.h"
#include "testing/expect_assert.h"

namespace {

using Orvet::IntfId;

TEST(IntfIdTest, NamesRoundTripAndOrderByKindThenNumbers) {
  for (const char* name : {"Ethernet1", "Ethernet3/1", "Ethernet3/1/2", "Ethernet16777214/65534/65534",
                           "Vlan1", "Vlan4094", "Port-Channel7", "Register0", "Loopback0", "Management1/1",
                           "Vxlan1", "Tunnel0", "Cpu", "Recirc-Channel1"}) {
    IntfId id(name);
    EXPECT_FALSE(id.isNull()) << name;
    EXPECT_EQ(id.name(), name);
    EXPECT_EQ(IntfId::fromText(id.name()), id);
  }
  EXPECT_TRUE(IntfId().isNull());
  EXPECT_EQ(IntfId().name(), "null");
  EXPECT_EQ(IntfId::fromText("null"), IntfId());
  EXPECT_EQ(IntfId("Vlan100").kind(), IntfId::Kind::vlan);
  // Distinct names never share an id.
  EXPECT_NE(IntfId("Ethernet3"), IntfId("Ethernet3/0"));
  EXPECT_NE(IntfId("Ethernet1/2"), IntfId("Ethernet2/1"));
  EXPECT_NE(IntfId("Loopback0"), IntfId("Register0"));
  // Ordered by kind, then by the numbers.
  EXPECT_LT(IntfId(), IntfId("Ethernet1"));
  EXPECT_LT(IntfId("Ethernet3"), IntfId("Ethernet3/1"));
  EXPECT_LT(IntfId("Ethernet3/1"), IntfId("Ethernet3/2"));
  EXPECT_LT(IntfId("Ethernet3/2"), IntfId("Ethernet10/1"));
  EXPECT_LT(IntfId("Ethernet10/1"), IntfId("Vlan1"));
}

TEST(IntfIdTest, BadNamesAreRangeErrors) {
  for (const char* bad : {"Foo1", "Vlan0", "Vlan4095", "Ethernet", "Ethernet0", "Ethernet1/2/3/4",
                          "Ethernet3/", "Ethernet01", "Ethernet3a", "Vlan1/1", "ethernet1", "Cpu1",
                          "Ethernet16777215", "", "Ethernet1/65535", "Port-Channel"}) {
    EXPECT_THROW_TEXT(IntfId{std::string_view(bad)}, Kiv::RangeException,
                      "IntfId '" + std::string(bad) + "' not allowed");
  }
}

TEST(BoundedValuesTest, VlanAndNames) {
  EXPECT_EQ(Bridging::VlanId(4094).value(), 4094);
  for (uint32_t bad : {0u, 4095u, 70000u}) {
    EXPECT_THROW_TEXT(Bridging::VlanId{bad}, Kiv::RangeException, "VlanId::value < 1 or > 4094 not allowed");
  }
  EXPECT_EQ(Bridging::VlanId::fromText("10"), Bridging::VlanId(10));
  EXPECT_THROW(Bridging::VlanId::fromText("x"), Kiv::RangeException);

  EXPECT_EQ(L3::VrfName().view(), "default");
  EXPECT_TRUE(L3::VrfName("default").isDefault());
  EXPECT_EQ(L3::VrfName(std::string(100, 'v')).view().size(), 100u);
  EXPECT_THROW_TEXT(L3::VrfName(std::string(101, 'v')), Kiv::RangeException,
                    "VrfName::bytes > 100 not allowed");
  EXPECT_LT(L3::VrfName("blue"), L3::VrfName("red"));
  EXPECT_TRUE(Orvet::NamespaceName().isCurrent());
  EXPECT_EQ(Orvet::NamespaceName("ns-mgmt").str(), "ns-mgmt");
  EXPECT_THROW_TEXT(Orvet::NamespaceName(std::string(256, 'n')), Kiv::RangeException,
                    "NamespaceName::bytes > 255 not allowed");
}

}  // namespace
