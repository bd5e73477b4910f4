#include "mroute/runtime/net/prefix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace Orvet {
namespace {

Prefix p(const char* text) { return Prefix::fromText(text); }
IpGenPrefix gp(const char* text) { return IpGenPrefix::fromText(text); }

TEST(PrefixTest, TextLengthsAndHostBits) {
  EXPECT_EQ(p("10.0.0.0/24").text(), "10.0.0.0/24");
  EXPECT_EQ(p("10.0.0.7/24"), p("10.0.0.0/24"));  // host bits cleared
  EXPECT_EQ(p("10.0.0.7").length(), 32u);
  EXPECT_TRUE(p("10.0.0.7").isHost());
  EXPECT_EQ(p("0.0.0.0/0").text(), "0.0.0.0/0");
  EXPECT_THROW_TEXT(Prefix(IpAddr(), 33), Kiv::RangeException, "Prefix::length > 32 not allowed");
  for (const char* bad : {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/024", "/8", "10.0.0/8"}) {
    EXPECT_THROW(Prefix::fromText(bad), Kiv::RangeException) << bad;
  }
  EXPECT_TRUE(p("224.0.0.0/4").isMulticast());
  EXPECT_FALSE(p("224.0.0.0/3").isMulticast());
  EXPECT_FALSE(p("240.0.0.1").isMulticast());
}

// A more specific prefix sorts first; non-nesting prefixes sort by address;
// the shorter length being 0 makes the longer one the lesser.
TEST(PrefixTest, RoutingOrder) {
  EXPECT_LT(p("10.0.0.0/8"), p("11.0.0.0/16"));
  EXPECT_LT(p("128.0.0.0/1"), p("0.0.0.0/0"));
  EXPECT_LT(p("127.0.0.0/8"), p("128.0.0.0/1"));

  std::vector<Prefix> v = {p("0.0.0.0/0"), p("10.0.0.0/8"), p("9.0.0.0/8"), p("10.1.0.0/16"), p("10.0.0.1")};
  std::sort(v.begin(), v.end());
  std::vector<Prefix> want = {p("9.0.0.0/8"), p("10.0.0.1"), p("10.1.0.0/16"), p("10.0.0.0/8"),
                              p("0.0.0.0/0")};
  EXPECT_EQ(v, want);
}

// std::sort and ordered maps need a strict weak order consistent with ==;
// check it over prefixes that nest, overlap and share addresses.
TEST(PrefixTest, RoutingOrderIsAStrictWeakOrder) {
  std::mt19937 rng(7);
  std::vector<Prefix> v;
  for (int i = 0; i < 60; ++i) {
    uint32_t base = (rng() % 4) << 30 | (rng() % 4) << 22 | (rng() % 2);
    v.emplace_back(IpAddr::fromHost(base), static_cast<uint32_t>(rng() % 33));
  }
  for (const Prefix& a : v) {
    EXPECT_FALSE(a < a);
    for (const Prefix& b : v) {
      EXPECT_EQ(a == b, !(a < b) && !(b < a)) << a << " " << b;
      if (a < b) {
        EXPECT_FALSE(b < a);
        for (const Prefix& c : v) {
          if (b < c) {
            EXPECT_LT(a, c) << a << " " << b << " " << c;
          }
        }
      }
    }
  }
}

TEST(PrefixTest, GenericPrefix) {
  EXPECT_EQ(sizeof(IpGenPrefix), 24u);
  IpGenPrefix six = gp("ff3e::1/128");
  uint8_t raw[24];
  std::memcpy(raw, &six, sizeof raw);
  uint32_t af, length;
  std::memcpy(&af, raw, 4);
  std::memcpy(&length, raw + 20, 4);
  EXPECT_EQ(af, 2u);
  EXPECT_EQ(length, 128u);
  EXPECT_EQ(raw[4], 0xff);

  EXPECT_EQ(gp("ff00::/8").text(), "ff00::/8");
  EXPECT_EQ(gp("ff3e:1::/8"), gp("ff00::/8"));
  EXPECT_TRUE(gp("ff00::/8").isMulticast());
  EXPECT_FALSE(gp("ff00::/7").isMulticast());
  EXPECT_TRUE(six.isHost());
  EXPECT_TRUE(gp("10.0.0.1").isHost());
  EXPECT_EQ(IpGenPrefix(p("10.0.0.0/24")).text(), "10.0.0.0/24");
  EXPECT_EQ(gp("10.0.0.0/24").v4(), p("10.0.0.0/24"));
  EXPECT_EQ(IpGenPrefix().text(), "unset");
  EXPECT_EQ(gp("unset"), IpGenPrefix());
  EXPECT_FALSE(IpGenPrefix().isMulticast());
  EXPECT_ASSERTION(six.v4(), "af() == ipv4()");
  EXPECT_THROW_TEXT(IpGenPrefix(IpGenAddr::fromText("::"), 129), Kiv::RangeException,
                    "IpGenPrefix::length > 128 not allowed");
  for (const char* bad : {"ff00::/129", "10.0.0.0/33", "zz::/8", ""}) {
    EXPECT_THROW(IpGenPrefix::fromText(bad), Kiv::RangeException) << bad;
  }

  // Family first, then the routing order within the family.
  EXPECT_LT(IpGenPrefix(), gp("0.0.0.0/0"));
  EXPECT_LT(gp("0.0.0.0/0"), gp("::/0"));
  EXPECT_LT(gp("ff3e::1"), gp("ff3e::/16"));
  EXPECT_LT(gp("ff3e::/16"), gp("ff3f::/16"));
  EXPECT_LT(gp("ff3f::/16"), gp("::/0"));
}

}  // namespace
}  // namespace Orvet
