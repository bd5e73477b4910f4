#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <utility>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/address_family.h"
#include "mroute/runtime/net/eth_addr.h"
#include "mroute/runtime/net/ip_addr.h"
#include "testing/expect_assert.h"

namespace Orvet {
namespace {

TEST(IpAddrText, Ipv4RoundTripAndByteOrder) {
  IpAddr a = IpAddr::fromText("10.1.2.3");
  EXPECT_EQ(a.hostValue(), 0x0a010203u);
  EXPECT_EQ(a.value(), htonl(0x0a010203u));
  EXPECT_EQ(a, IpAddr(10, 1, 2, 3));
  EXPECT_EQ(a.text(), "10.1.2.3");
  EXPECT_LT(IpAddr::fromText("9.255.255.255"), a);
  EXPECT_TRUE(IpAddr::fromText("224.0.0.1").isMulticast());
  EXPECT_TRUE(IpAddr::fromText("239.255.255.255").isMulticast());
  EXPECT_FALSE(IpAddr::fromText("240.0.0.1").isMulticast());
  for (const char* bad :
       {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "01.2.3.4", "1..2.3", "1.2.3.4 ", "a.b.c.d"}) {
    EXPECT_THROW(IpAddr::fromText(bad), Kiv::RangeException) << bad;
  }
}

// Every accepted form must agree with the C library; printing must give the
// compressed form (lower case, longest zero run, no lone-zero compression).
TEST(IpAddrText, Ipv6ParseAgreesWithLibcAndPrintsCompressed) {
  const std::pair<const char*, const char*> cases[] = {
      {"ff3e::1", "ff3e::1"},
      {"::", "::"},
      {"::1", "::1"},
      {"1::", "1::"},
      {"2001:DB8:0:0:0:0:2:1", "2001:db8::2:1"},
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
      {"0:0:0:0:0:ffff:192.0.2.1", "::ffff:192.0.2.1"},
      {"::ffff:c000:201", "::ffff:192.0.2.1"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"fe80::0001:0abc", "fe80::1:abc"},
  };
  for (const auto& [in, out] : cases) {
    uint8_t expected[16];
    ASSERT_EQ(inet_pton(AF_INET6, in, expected), 1) << in;
    IpGenAddr a = IpGenAddr::fromText(in);
    EXPECT_EQ(a.af(), ipv6());
    EXPECT_EQ(std::memcmp(a.bytes(), expected, 16), 0) << in;
    EXPECT_EQ(a.text(), out) << in;
    EXPECT_EQ(IpGenAddr::fromText(a.text()), a);
  }
  for (const char* bad : {":", ":::", "1:::2", "1::2::3", "1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7", "12345::",
                          "g::1", ":1::2", "1::2:", "::1.2.3", "1.2.3.4::", "1:2:3:4:5:6:7:1.2.3.4"}) {
    uint8_t ignored[16];
    EXPECT_NE(inet_pton(AF_INET6, bad, ignored), 1) << bad;
    EXPECT_THROW(IpGenAddr::fromText(bad), Kiv::RangeException) << bad;
  }
}

// Random addresses with zero runs of every length and position: the printed
// form must match the C library's (which differs only for the deprecated
// IPv4-compatible form, skipped here) and read back to the same bytes.
TEST(IpAddrText, Ipv6RandomFormsMatchLibc) {
  std::mt19937 rng(5952);
  for (int n = 0; n < 2000; ++n) {
    uint8_t b[16];
    for (uint8_t& x : b) x = static_cast<uint8_t>(rng() % 3 == 0 ? rng() : 0);
    bool compat = std::all_of(b, b + 12, [](uint8_t x) { return x == 0; });
    if (compat) continue;
    char want[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, b, want, sizeof want), nullptr);
    IpGenAddr::Bytes bytes;
    std::memcpy(bytes.data(), b, 16);
    IpGenAddr a = IpGenAddr::fromIpv6(bytes);
    EXPECT_EQ(a.text(), want);
    EXPECT_EQ(IpGenAddr::fromText(want), a);
  }
}

TEST(IpAddrText, GenericAddressFamiliesAndHash) {
  IpGenAddr v4 = IpAddr(232, 1, 1, 1);
  EXPECT_EQ(v4.af(), ipv4());
  EXPECT_EQ(v4.v4(), IpAddr(232, 1, 1, 1));
  EXPECT_TRUE(v4.isMulticast());
  EXPECT_EQ(IpGenAddr::fromText("232.1.1.1"), v4);
  EXPECT_TRUE(IpGenAddr::fromText("ff02::1").isMulticast());
  EXPECT_FALSE(IpGenAddr::fromText("fe80::1").isMulticast());
  EXPECT_FALSE(IpGenAddr().isMulticast());
  EXPECT_EQ(IpGenAddr().text(), "unset");
  EXPECT_EQ(IpGenAddr::fromText("unset"), IpGenAddr());
  EXPECT_LT(v4, IpGenAddr::fromText("::"));  // family first
  EXPECT_ASSERTION(IpGenAddr::fromText("::1").v4(), "af() == ipv4()");

  // The hash is stable (tables place keys by it) and sees every word.
  EXPECT_EQ(ipv6AddressHash(IpGenAddr::fromText("ff3e::1")),
            ipv6AddressHash(IpGenAddr::fromText("ff3e:0::1")));
  EXPECT_NE(ipv6AddressHash(IpGenAddr::fromText("ff3e::1")), ipv6AddressHash(IpGenAddr::fromText("ff3f::1")));
  EXPECT_NE(ipv6AddressHash(IpGenAddr::fromText("1::")), ipv6AddressHash(IpGenAddr::fromText("::1")));
}

TEST(IpAddrText, EthAddrAndFamily) {
  EthAddr e = EthAddr::fromText("01:00:5E:1:2:03");
  EXPECT_EQ(e, EthAddr(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03));
  EXPECT_EQ(e.text(), "01:00:5e:01:02:03");
  EXPECT_TRUE(e.isMulticast());
  EXPECT_TRUE(EthAddr().isZero());
  for (const char* bad : {"", "01:00:5e:01:02", "01:00:5e:01:02:03:04", "001:00:5e:01:02:03",
                          "0g:00:5e:01:02:03", "01:00:5e:01:02:"}) {
    EXPECT_THROW(EthAddr::fromText(bad), Kiv::RangeException) << bad;
  }
  std::ostringstream os;
  os << ipv4() << ' ' << ipv6() << ' ' << afUnknown();
  EXPECT_EQ(os.str(), "ipv4 ipv6 unknown");
  EXPECT_EQ(AddressFamily::fromText("ipv6"), ipv6());
}

}  // namespace
}  // namespace Orvet
