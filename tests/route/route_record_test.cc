#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/mfib_brume_dir_route_key.h"
#include "mroute/route/route.h"
#include "testing/expect_assert.h"

namespace Brume::Multicast::Fib {
namespace {

using Routing::Multicast::Fib::IpGenRouteKey;
using Routing::Multicast::Fib::makeRouteKeyMroute;

IpGenRouteKey key(const char* s, const char* g) {
  return makeRouteKeyMroute(Orvet::Prefix::fromText(s), Orvet::Prefix::fromText(g));
}

Orvet::IntfId intf(const char* name) { return Orvet::IntfId(name); }

std::vector<uint16_t> oifsOf(const Route& r) {
  std::vector<uint16_t> out;
  for (OifIndex i : r.oifIteratorConst()) out.push_back(i.value());
  return out;
}

// oifIs never clears a bit, oifDel returns the old one, and the walk is
// bounded by maxOifIndex (unset: nothing is walked).
TEST(RouteRecord, OifBitsAndTheWalkBoundedByMaxOifIndex) {
  Route r(key("0.0.0.0/0", "239.1.1.1/32"));
  EXPECT_EQ(r.rpaId(), RpaIndex(0));  // a key's route: not RpaIndex's own default of 65535
  r.oifIs(OifIndex(7), false);
  EXPECT_TRUE(r.oif(OifIndex(7)));
  r.oifIs(OifIndex(7), false);
  EXPECT_TRUE(r.oif(OifIndex(7)));
  EXPECT_TRUE(r.oifDel(OifIndex(7)));
  EXPECT_FALSE(r.oifDel(OifIndex(7)));
  EXPECT_FALSE(r.oif(OifIndex(7)));
  EXPECT_ASSERTION(r.oif(OifIndex::null), "i.value() < OifIndex::kPositions");
  r.oifIs(OifIndex(3), true);
  r.oifIs(OifIndex(70), true);
  EXPECT_EQ(r.nextOif(OifIndex::null), OifIndex::null);
  EXPECT_TRUE(oifsOf(r).empty());
  r.maxOifIndexIs(OifIndex(70));
  EXPECT_EQ(oifsOf(r), (std::vector<uint16_t>{3, 70}));
  EXPECT_EQ(r.oifIteratorConst(OifIndex(4)).key(), OifIndex(70));
  EXPECT_EQ(r.oifs(), 2);

  // A record copied out of shared memory that another process damaged can
  // hold any maxOifIndex: the walk still ends at the bitmap's last word.
  r.oifIs(OifIndex(511), true);
  const uint16_t damaged = 0xffff;
  std::memcpy(reinterpret_cast<unsigned char*>(&r) + 94, &damaged, sizeof damaged);  // maxOifIndex
  EXPECT_EQ(oifsOf(r), (std::vector<uint16_t>{3, 70, 511}));
}

Route sample() {
  Route r(key("10.0.0.0/24", "232.1.1.1/32"));
  r.iifIs(intf("Ethernet1"));
  r.notifyIs(intf("Vlan100"));
  r.notifyProgrammableIs(true);
  r.routeFlagsIs(Route::RouteFlags(0x11));
  r.iifFlagsIs(Route::IifFlags(1));
  r.rpaIdIs(RpaIndex(4));
  r.maxOifIndexIs(OifIndex(450));
  r.routePriorityIs(RoutePriority(200));
  r.versionIs(9);
  r.oifBitmapIs(0, 0x2a);
  r.oifBitmapIs(7, 0x10000);
  return r;
}

// The brume string shows the oif words high first; the text form reads back.
TEST(RouteRecord, PrintedForms) {
  Route r = sample();
  EXPECT_EQ(r.brumeString(),
            "[(10.0.0.0/24,232.1.1.1)] F 0x11 0x1 I Ethernet1 N Vlan100 S null F null "
            "O 0x10000 0x0 0x0 0x0 0x0 0x0 0x0 0x2a max 450 ver 9 priority 200");
  std::string t = Kiv::textOf(r);
  EXPECT_TRUE(t.starts_with(
      "Value('Brume::Multicast::Fib::Route', ** {'key': Value('Routing::Multicast::Fib::IpGenRouteKey'"))
      << t;
  EXPECT_THAT(t, testing::HasSubstr("'notifyProgrammable': True, 'routeFlags': "
                                    "Value('Brume::Multicast::Fib::Route::RouteFlags', "));
  EXPECT_THAT(t, testing::HasSubstr("'iifFlags': True, 'rpaId': 4, 'maxOifIndex': 450, 'routePriority': 200, "
                                    "'version': 9, 'oifBitmap1': 42, 'oifBitmap2': 0"));
  EXPECT_TRUE(t.ends_with("'oifBitmap8': 65536})")) << t;
  EXPECT_EQ(Route::fromText(t), r);
  EXPECT_EQ(Route::fromText(Kiv::textOf(Route())), Route());
}

// Replaces the text of one attribute in a printed route.
std::string withField(std::string t, const std::string& name, const std::string& value) {
  size_t at = t.find("'" + name + "': ") + name.size() + 4;
  size_t len = Kiv::valueTokenLength(std::string_view(t).substr(at));
  return t.replace(at, len, value);
}

TEST(RouteRecord, RangeErrorsNameTheAttribute) {
  const std::string t = Kiv::textOf(sample());
  struct Case {
    const char* attribute;
    const char* value;
    const char* cause;
  } cases[] = {
      {"routeFlags", "64", "RouteFlags::value > 0x3f not allowed"},
      {"iifFlags", "2", "IifFlags::value > 0x1 not allowed"},
      {"routePriority", "256", "RoutePriority::value < 0 or > 255 not allowed"},
      {"maxOifIndex", "513", "OifIndex::value < OifIndex::min or > OifIndex::null not allowed"},
  };
  for (const Case& c : cases) {
    EXPECT_THROW_TEXT(Route::fromText(withField(t, c.attribute, c.value)), Kiv::DeserializationException,
                      std::string(c.attribute) + ": " + c.cause);
  }
}

TEST(RouteRecord, DifferenceKeepsWhatDisagrees) {
  Route a = sample();
  Route b(key("1.1.1.1/32", "239.9.9.9/32"));
  b.iifIs(intf("Ethernet1"));       // same as a: dropped
  b.fastdropIs(intf("Ethernet2"));  // only b has one: b's
  b.notifyIs(intf("Ethernet3"));    // both differ: a's
  b.routeFlagsIs(Route::RouteFlags(0x01));
  b.oifBitmapIs(0, 0x0f);
  b.versionIs(77);
  // Fields outside the difference are those of a route built from the key.
  Route want(a.key());
  want.fastdropIs(intf("Ethernet2"));
  want.notifyIs(intf("Vlan100"));
  want.routeFlagsIs(Route::RouteFlags(0x10));
  want.iifFlagsIs(Route::IifFlags(1));
  want.oifBitmapIs(0, 0x25);
  want.oifBitmapIs(7, 0x10000);
  want.maxOifIndexIs(OifIndex(511));
  EXPECT_EQ(Kiv::textOf(a ^ b), Kiv::textOf(want));
  Route same(a.key());
  same.maxOifIndexIs(OifIndex(511));
  EXPECT_EQ(Kiv::textOf(a ^ a), Kiv::textOf(same));
}

TEST(RouteRecord, MaskSelectsPartsOfTheOther) {
  Route mask(key("0.0.0.0/0", "239.1.1.1/32"));
  mask.iifIs(intf("Ethernet9"));  // any non-null value selects the other's
  mask.oifBitmapIs(1, 0xff);
  Route other = sample();
  other.oifBitmapIs(1, 0x1f0);
  other.fastdropIs(intf("Ethernet5"));
  Route want(mask.key());
  want.iifIs(intf("Ethernet1"));
  want.iifFlagsIs(other.iifFlags());
  want.routeFlagsIs(other.routeFlags());
  want.oifBitmapIs(1, 0xf0);
  want.versionIs(9);
  want.maxOifIndexIs(OifIndex(511));
  EXPECT_EQ(Kiv::textOf(mask & other), Kiv::textOf(want));

  Route noIif(mask.key());
  EXPECT_EQ((noIif & other).iifFlags().value(), 0u);  // iifFlags come only with iif
}

TEST(MfibBrumeDirRouteKey, OrdersByRouteKeyThenBrumeKey) {
  IpGenRouteKey g1 = key("2.2.2.2/32", "225.0.0.1/32");
  IpGenRouteKey g2 = key("1.1.1.1/32", "226.0.0.1/32");
  MfibBrumeDirRouteKey a(5, g1), b(9, g1), c(1, g2);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);  // the route key decides whatever the brumeKey
  EXPECT_NE(a, b);
  const std::string t = Kiv::textOf(c);
  EXPECT_TRUE(
      t.starts_with("Value('Brume::Multicast::Fib::MfibBrumeDirRouteKey', ** {'brumeKey': 1, "
                           "'routeKey': Value('Routing::Multicast::Fib::IpGenRouteKey'"))
      << t;
  EXPECT_EQ(MfibBrumeDirRouteKey::fromText(t), c);
}

}  // namespace
}  // namespace Brume::Multicast::Fib
