// The FIB configuration entities: defaults, reset, notification and the
// enumerations.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "mroute/entities/fib/config.h"
#include "mroute/entities/fib/counter_mode.h"
#include "mroute/entities/fib/multicast_legacy_config.h"
#include "mroute/entities/fib/vrf_config.h"
#include "mroute/runtime/net/prefix.h"
#include "testing/expect_assert.h"

namespace {

using namespace Routing::Multicast::Fib;
using Log = std::vector<std::string>;

IpGenRouteKey key(const char* s, const char* g) {
  return makeRouteKeyMroute(Orvet::Prefix::fromText(s), Orvet::Prefix::fromText(g));
}

class Recorder : public Config::Notifiee {
 public:
  explicit Recorder(Log* log) : log_(log) {}
  void onRouting() override { log_->push_back("routing"); }
  void onMultipathControl() override { log_->push_back("multipathControl"); }
  void onFastdrop() override { log_->push_back("fastdrop"); }
  void onMaxFastdrops() override { log_->push_back("maxFastdrops"); }
  void onCounterRoute(const IpGenRouteKey& k) override { log_->push_back("counterRoute " + textOf(k)); }
  void onClearCounterRoute(const IpGenRouteKey& k) override { log_->push_back("clearCounterRoute " + textOf(k)); }
  void onClearFastdrop() override { log_->push_back("clearFastdrop"); }
  void onClearMfibCount() override { log_->push_back("clearMfibCount"); }
  using Config::NotifieeConst::onClearCounterRoute;
  using Config::NotifieeConst::onCounterRoute;

 private:
  static std::string textOf(const IpGenRouteKey& k) {
    std::ostringstream os;
    os << k;
    return os.str();
  }
  Log* log_;
};

bool configAtDefaults(const Config& c) {
  return !c.routing() && c.multipathControl() == Config::MultipathControl::multipathDeterministic && c.fastdrop() &&
         c.maxFastdrops() == 1024 && c.counterRoute().empty() && c.clearCounterRoute().empty() &&
         c.clearFastdrop() == 0.0 && c.clearMfibCount() == 0;
}

class ConfigTest : public testing::Test {
 protected:
  void SetUp() override { rec.notifierIs(config); }
  Kiv::Ptr<VrfConfig> vrfConfig = VrfConfigIs("ipv4");
  Kiv::Ptr<Config> config = vrfConfig->config("default");
  Log log;
  Recorder rec{&log};
};

TEST_F(ConfigTest, FreshVrfConfigHoldsDefaultConfigAtDefaults) {
  ASSERT_EQ(vrfConfig->config().size(), 1u);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->parent(), vrfConfig.ptr());
  EXPECT_TRUE(configAtDefaults(*config));
  EXPECT_TRUE(config->isDefault());
  EXPECT_TRUE(vrfConfig->isDefault());
  EXPECT_EQ(vrfConfig->counterMode(), CounterMode::byteMode);
  EXPECT_EQ(vrfConfig->activityPollingInterval(), 60);
  EXPECT_TRUE(vrfConfig->intfConfig().empty());
}

TEST_F(ConfigTest, SettingMaxFastdropsToItsDefaultNotifiesNobody) {
  config->maxFastdropsIs(1024);
  config->fastdropIs(Config::fastdropDefault());
  EXPECT_TRUE(log.empty());
  config->maxFastdropsIs(Config::maxFastdropsDefault() + 1);
  EXPECT_EQ(log, (Log{"maxFastdrops"}));
}

TEST_F(ConfigTest, ClearMfibCountWrapsAndNotifies) {
  config->clearMfibCountIs(255);
  log.clear();
  config->clearMfibCountInc(1);
  EXPECT_EQ(config->clearMfibCount(), 0);
  EXPECT_EQ(log, (Log{"clearMfibCount"}));
}

// Request channels (clear*) are not configuration: reset leaves them.
TEST_F(ConfigTest, ResetLeavesRequestChannels) {
  IpGenRouteKey k1 = key("10.0.0.0/24", "239.1.1.1/32"), k2 = key("0.0.0.0/0", "239.2.2.2/32");
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
  log.clear();
  config->reset();
  EXPECT_TRUE(config->isDefault());
  EXPECT_EQ(config->clearMfibCount(), 5);
  EXPECT_TRUE(config->clearCounterRoute(k1));
  EXPECT_EQ(config->clearFastdrop(), 12.5);
  EXPECT_TRUE(config->counterRoute().empty());
  // Through the setters in declaration order, then one removal per member.
  ASSERT_EQ(log.size(), 6u);
  EXPECT_EQ(Log(log.begin(), log.begin() + 4), (Log{"routing", "multipathControl", "fastdrop", "maxFastdrops"}));
  EXPECT_EQ(log[4].rfind("counterRoute ", 0), 0u);
  EXPECT_EQ(log[5].rfind("counterRoute ", 0), 0u);
}

TEST_F(ConfigTest, CollectionNotificationsPerKey) {
  IpGenRouteKey k = key("10.0.0.1/32", "239.1.1.1/32");
  config->counterRouteIs(k, true);
  config->counterRouteIs(k, true);   // same value: silent
  config->counterRouteIs(k, false);  // replaced
  config->counterRouteNotify(k);
  config->counterRouteDel(k);
  config->counterRouteDel(k);  // absent: silent
  config->clearCounterRouteIs(k, true);
  std::ostringstream os;
  os << k;
  std::string t = os.str();
  EXPECT_EQ(log, (Log{"counterRoute " + t, "counterRoute " + t, "counterRoute " + t, "counterRoute " + t,
                      "clearCounterRoute " + t}));
}

// The ids are fixed by the published attribute tables: reordering a
// description must not move them.
TEST(ConfigIdsTest, AttributeIdsInDeclarationOrder) {
  EXPECT_EQ(Config::kRoutingId, 258);
  EXPECT_EQ(Config::kMaxFastdropsDefaultId, 263);
  EXPECT_EQ(Config::kCounterRouteId, 264);
  EXPECT_EQ(Config::kClearMfibCountId, 267);
  EXPECT_EQ(VrfConfig::kIntfConfigId, 265);
  EXPECT_EQ(VrfConfig::kConfigId, 266);
  EXPECT_EQ(Routing::Multicast::MulticastLegacyConfig::kVersionId, 259);
}

TEST(VrfConfigTest, ResetLeavesCollectionsAndNotifiesThroughSetters) {
  Kiv::Ptr<VrfConfig> v = VrfConfigIs("v");
  struct Watch : VrfConfig::NotifieeConst {
    void onRouting() override { log.push_back("routing"); }
    void onCounterMode() override { log.push_back("counterMode"); }
    void onActivityPollingInterval() override { log.push_back("activityPollingInterval"); }
    void onConfig(const Kiv::Name& n) override { log.push_back("config " + n.stdString()); }
    void onIntfConfig(const Kiv::Name& n) override { log.push_back("intfConfig " + n.stdString()); }
    using VrfConfig::NotifieeConst::onConfig;
    using VrfConfig::NotifieeConst::onIntfConfig;
    Log log;
  } w;
  w.notifierIs(v);
  v->configIs("red");
  v->intfConfigIs("Ethernet1")->noFastdropIs(true);
  v->counterModeIs(CounterMode::None);
  v->activityPollingIntervalIs(10);
  EXPECT_FALSE(v->isDefault());
  v->reset();
  EXPECT_TRUE(v->isDefault());
  EXPECT_EQ(v->config().size(), 2u);
  EXPECT_TRUE(v->intfConfig("Ethernet1")->noFastdrop());
  EXPECT_EQ(w.log, (Log{"config red", "intfConfig Ethernet1", "counterMode", "activityPollingInterval", "counterMode",
                        "activityPollingInterval"}));
  v->configDel("red");
  v->configDelAll();
  EXPECT_TRUE(v->config().empty());
  EXPECT_EQ(w.log.back(), "config default");
}

TEST(VrfConfigTest, MountPathByFamily) {
  EXPECT_EQ(VrfConfig::mountPath(Orvet::ipv4()), "routing/multicast/vrf/config");
  EXPECT_EQ(VrfConfig::mountPath(Orvet::ipv6()), "routing6/multicast/vrf/config");
  EXPECT_ASSERTION(VrfConfig::mountPath(Orvet::AddressFamily(3)), "false && \"Unsupported address family\"");
}

TEST(MulticastLegacyConfigTest, Defaults) {
  EXPECT_TRUE(Routing::Multicast::MulticastLegacyConfigIs("global")->legacy());
  EXPECT_EQ(Routing::Multicast::MulticastLegacyConfigIs("global")->version(), 1);
  EXPECT_FALSE(IntfConfigIs("Ethernet1")->noFastdrop());
}

// The enumeration machinery itself is covered in entity/kiv; here only what
// the FIB descriptions decide: literal numbering and the error texts.
TEST(FibEnumTest, CounterModeLiteralsAndErrors) {
  EXPECT_EQ(static_cast<unsigned>(CounterModeInstance("None")), 0u);
  EXPECT_EQ(stringValue(CounterModeInstance(2u)), "byteMode");
  EXPECT_EQ(MultipathControlInstance("multipathNone"), MultipathControlInstance(1u));
  EXPECT_EQ(MultipathControlInstance(2u), Config::MultipathControl::noMultipathDeterministic);
  EXPECT_THROW_TEXT(CounterModeInstance(3u), Kiv::RangeException,
                    "Routing::Multicast::Fib::CounterMode::value 3 > 2 not allowed");
  EXPECT_THROW_TEXT(CounterModeInstance("none"), Kiv::RangeException,
                    "Routing::Multicast::Fib::CounterMode has no literal 'none'");
}

}  // namespace
