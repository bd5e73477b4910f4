// The FIB configuration entities: what their descriptions decide beyond the shape the conformance
// suite checks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mroute/entities/fib/config.h"
#include "mroute/entities/fib/counter_mode.h"
#include "mroute/entities/fib/multicast_legacy_config.h"
#include "mroute/entities/fib/vrf_config.h"
#include "mroute/runtime/net/prefix.h"

namespace {

using namespace Routing::Multicast::Fib;
using Log = std::vector<std::string>;

IpGenRouteKey key(const char* s, const char* g) {
  return makeRouteKeyMroute(Orvet::Prefix::fromText(s), Orvet::Prefix::fromText(g));
}

struct Recorder : Config::NotifieeConst {
  void onRouting() override { log.push_back("routing"); }
  void onMultipathControl() override { log.push_back("multipathControl"); }
  void onFastdrop() override { log.push_back("fastdrop"); }
  void onMaxFastdrops() override { log.push_back("maxFastdrops"); }
  void onCounterRoute(const IpGenRouteKey&) override { log.push_back("counterRoute"); }
  void onClearCounterRoute(const IpGenRouteKey&) override { log.push_back("clearCounterRoute"); }
  void onClearFastdrop() override { log.push_back("clearFastdrop"); }
  void onClearMfibCount() override { log.push_back("clearMfibCount"); }
  using Config::NotifieeConst::onClearCounterRoute;
  using Config::NotifieeConst::onCounterRoute;
  Log log;
};

TEST(ConfigTest, FreshVrfConfigHoldsDefaultConfigAtDefaults) {
  Kiv::Ptr<VrfConfig> vrfConfig = VrfConfigIs("ipv4");
  ASSERT_EQ(vrfConfig->config().size(), 1u);
  const Kiv::Ptr<Config> c = vrfConfig->config("default");
  ASSERT_TRUE(c);
  EXPECT_EQ(c->parent(), vrfConfig.ptr());
  EXPECT_TRUE(!c->routing() && c->multipathControl() == Config::MultipathControl::multipathDeterministic &&
              c->fastdrop() && c->maxFastdrops() == Config::maxFastdropsDefault() && c->maxFastdrops() == 1024 &&
              c->clearFastdrop() == 0.0 && c->clearMfibCount() == 0);
  EXPECT_EQ(vrfConfig->counterMode(), CounterMode::byteMode);
  EXPECT_EQ(vrfConfig->activityPollingInterval(), 60);
  EXPECT_TRUE(Routing::Multicast::MulticastLegacyConfigIs("global")->legacy());
}

// Request channels (clear*) are not configuration: reset leaves them.
TEST(ConfigTest, ResetLeavesRequestChannelsAndNotifiesInDeclarationOrder) {
  Kiv::Ptr<Config> config = new Config("default");
  Recorder rec;
  rec.notifierIs(config);
  const IpGenRouteKey k1 = key("10.0.0.0/24", "239.1.1.1/32"), k2 = key("0.0.0.0/0", "239.2.2.2/32");
  config->clearMfibCountIs(5);
  config->clearCounterRouteIs(k1, true);
  config->clearFastdropIs(12.5);
  config->counterRouteIs(k1, true);
  config->counterRouteIs(k2, true);
  config->routingIs(true);
  config->multipathControlIs(Config::MultipathControl::multipathNone);
  config->fastdropIs(false);
  config->maxFastdropsIs(1);
  EXPECT_FALSE(config->isDefault());
  rec.log.clear();
  config->reset();
  EXPECT_TRUE(config->isDefault());
  EXPECT_EQ(config->clearMfibCount(), 5);
  EXPECT_TRUE(config->clearCounterRoute(k1));
  EXPECT_EQ(config->clearFastdrop(), 12.5);
  // Through the setters in declaration order, then one removal per member.
  EXPECT_EQ(rec.log, (Log{"routing", "multipathControl", "fastdrop", "maxFastdrops", "counterRoute", "counterRoute"}));
}

TEST(VrfConfigTest, ResetLeavesCollectionsAndNotifiesThroughSetters) {
  Kiv::Ptr<VrfConfig> v = VrfConfigIs("v");
  struct Watch : VrfConfig::NotifieeConst {
    void onCounterMode() override { log.push_back("counterMode"); }
    void onActivityPollingInterval() override { log.push_back("activityPollingInterval"); }
    void onConfig(const Kiv::Name& n) override { log.push_back("config " + n.stdString()); }
    using VrfConfig::NotifieeConst::onConfig;
    Log log;
  } w;
  w.notifierIs(v);
  v->configIs("red");
  v->intfConfigIs("Ethernet1")->noFastdropIs(true);
  v->counterModeIs(CounterMode::None);
  v->activityPollingIntervalIs(10);
  v->reset();
  EXPECT_TRUE(v->isDefault());
  EXPECT_EQ(v->config().size(), 2u);
  EXPECT_TRUE(v->intfConfig("Ethernet1")->noFastdrop());
  EXPECT_EQ(w.log, (Log{"config red", "counterMode", "activityPollingInterval", "counterMode",
                        "activityPollingInterval"}));
}

// The ids, paths and literal numbers are published: reordering a description
// must not move them.
TEST(ConfigIdsTest, AttributeIdsMountPathsAndLiteralNumbers) {
  EXPECT_EQ(Config::kRoutingId, 258);
  EXPECT_EQ(Config::kMaxFastdropsDefaultId, 263);
  EXPECT_EQ(Config::kCounterRouteId, 264);
  EXPECT_EQ(Config::kClearMfibCountId, 267);
  EXPECT_EQ(VrfConfig::kIntfConfigId, 265);
  EXPECT_EQ(VrfConfig::kConfigId, 266);
  EXPECT_EQ(Routing::Multicast::MulticastLegacyConfig::kVersionId, 259);
  EXPECT_EQ(VrfConfig::mountPath(Orvet::ipv4()), "routing/multicast/vrf/config");
  EXPECT_EQ(VrfConfig::mountPath(Orvet::ipv6()), "routing6/multicast/vrf/config");
  // The enumeration machinery is entity/kiv's and the conformance suite's;
  // the literal numbering is the descriptions'.
  EXPECT_EQ(static_cast<unsigned>(CounterModeInstance("None")), 0u);
  EXPECT_EQ(stringValue(CounterModeInstance(2u)), "byteMode");
  EXPECT_EQ(MultipathControlInstance("multipathNone"), MultipathControlInstance(1u));
  EXPECT_EQ(MultipathControlInstance(2u), Config::MultipathControl::noMultipathDeterministic);
}

}  // namespace
