// mroutectl routes on table sets that three applications publish (this test is their writer).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "mroute/route/mfib_status.h"
#include "testing/shm_root_scope.h"
#include "tools/tool_run.h"

namespace {

using Brume::Multicast::Fib::OifIndex;
using Brume::Multicast::Fib::OifIndexIntf;
using Brume::Multicast::Fib::Route;
using Brume::Multicast::Fib::Status;
using ToolTest::mroutectl;
using ToolTest::ToolRun;
using testing::HasSubstr;

template <typename T>
std::string image(const T& v) {
  return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

// Overwrites the file's bytes at `at` (else the first occurrence of `from`)
// with `to`, as another process damaging the table would.
bool patchFile(const std::string& path, const std::string& from, const std::string& to, size_t at = 0) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (!from.empty()) at = bytes.find(from);
  if (at == std::string::npos || at + to.size() > bytes.size()) return false;
  f.seekp(static_cast<std::streamoff>(at));
  f.write(to.data(), static_cast<std::streamsize>(to.size()));
  return f.good();
}

class MroutectlRoutesTest : public testing::Test {
 protected:
  Kiv::Ptr<Status> publish(const char* vrf, const char* app, uint8_t priority, std::initializer_list<int> groups,
                           int af = 4) {
    Kiv::Ptr<Status> s = Brume::Multicast::Fib::StatusIs(app);
    s->mountTables(loop, Status::mountPath(Orvet::AddressFamily(af == 4 ? 1 : 2), L3::VrfName(vrf), app),
                   Brume::BrumeType::writer);
    s->oifIndexIntfIs(OifIndexIntf(OifIndex(3), Orvet::IntfId("Ethernet" + std::to_string(priority + 1)), 1));
    for (int g : groups) {
      const std::string source = af == 4 ? "10.0.0.1/32" : "2001:db8::1/128";
      const std::string group = (af == 4 ? "239.1.1." : "ff3e::") + std::to_string(g) + (af == 4 ? "/32" : "/128");
      Route r(Routing::Multicast::Fib::IpGenRouteKey(Orvet::IpGenPrefix::fromText(source),
                                                     Orvet::IpGenPrefix::fromText(group)));
      r.routePriorityIs(Brume::Multicast::Fib::RoutePriority(priority));
      r.iifIs(Orvet::IntfId("Vlan" + std::to_string(100 + priority)));
      r.routeFlagsIs(Route::RouteFlags(1));
      r.oifIs(OifIndex(3), true);
      r.maxOifIndexIs(OifIndex(3));
      s->routeIs(r);
    }
    return s;
  }
  Testing::ShmRootScope root{"routescmd"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<Status> pim = publish("default", "pim", 2, {1, 2});
  Kiv::Ptr<Status> igmp = publish("default", "igmp", 1, {1, 3});
  Kiv::Ptr<Status> quiet = publish("default", "quiet", 0, {4});
  Kiv::Ptr<Status> red = publish("red", "pim", 1, {9});
};

TEST_F(MroutectlRoutesTest, OneWinnerPerKeyWithItsInterfacesByName) {
  const ToolRun r = mroutectl("routes --vrf default");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(r.out,
            "VRF default (IPv4): 3 application(s)\n"
            "  (10.0.0.1,239.1.1.1)  app pim  prio 2  iif Vlan102  oifs Ethernet3  flags valid\n"
            "  (10.0.0.1,239.1.1.2)  app pim  prio 2  iif Vlan102  oifs Ethernet3  flags valid\n"
            "  (10.0.0.1,239.1.1.3)  app igmp  prio 1  iif Vlan101  oifs Ethernet2  flags valid\n");
}

TEST_F(MroutectlRoutesTest, AllShowsEveryCandidateAndJsonCarriesTheSame) {
  ToolRun r = mroutectl("routes --all");
  ASSERT_EQ(r.code, 0) << r.out;
  // Candidates come in the collection's order; the winner carries the mark.
  const size_t key1 = r.out.find("  (10.0.0.1,239.1.1.1)\n");
  const size_t key2 = r.out.find("  (10.0.0.1,239.1.1.2)\n");
  ASSERT_NE(key1, std::string::npos) << r.out;
  const std::string first = r.out.substr(key1, key2 - key1);
  EXPECT_THAT(first, HasSubstr("\n      app igmp  prio 1  iif Vlan101  oifs Ethernet2  flags valid\n"));
  EXPECT_THAT(first, HasSubstr("\n    * app pim  prio 2  iif Vlan102  oifs Ethernet3  flags valid\n"));
  EXPECT_EQ(r.out.find("quiet"), std::string::npos) << "a priority-0 route alone is no winner";
  EXPECT_THAT(r.out, HasSubstr("VRF red (IPv4): 1 application(s)\n  (10.0.0.1,239.1.1.9)\n    * app pim  prio 1"));
  r = mroutectl("routes --vrf red --json");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(nlohmann::json::parse(r.out), nlohmann::json::parse(R"j([{"vrf": "red", "af": 4, "routes": [
      {"key": "(10.0.0.1,239.1.1.9)", "candidates": [{"app": "pim", "priority": 1, "iif": "Vlan101",
       "oifs": ["Ethernet2"], "flags": ["valid"], "winner": true}]}]}])j"));
}

TEST_F(MroutectlRoutesTest, BadArgumentsExitTwoAndEachFamilyShowsItsOwn) {
  EXPECT_EQ(mroutectl("routes --af 5").code, 2);
  EXPECT_EQ(mroutectl("routes --vrf").code, 2);
  const ToolRun longName = mroutectl("routes --vrf " + std::string(101, 'v'));
  EXPECT_EQ(longName.code, 2);
  EXPECT_THAT(longName.out, HasSubstr("': longer than 100 bytes\n"));
  ToolRun r = mroutectl("routes --af 6");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  Kiv::Ptr<Status> pim6 = publish("red", "pim", 2, {1}, 6);
  Kiv::Ptr<Status> igmp6 = publish("red", "igmp", 1, {1, 2}, 6);
  r = mroutectl("routes --af 6");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(r.out,
            "VRF red (IPv6): 2 application(s)\n"
            "  (2001:db8::1,ff3e::1)  app pim  prio 2  iif Vlan102  oifs Ethernet3  flags valid\n"
            "  (2001:db8::1,ff3e::2)  app igmp  prio 1  iif Vlan101  oifs Ethernet2  flags valid\n");
  EXPECT_EQ(mroutectl("routes --vrf red").out.find("ff3e"), std::string::npos) << "IPv4 shows no IPv6 route";
}

// A record whose key another process garbled shows as damaged where its
// route would be; a table set whose reader refuses a table is named, not
// silently left out. Both exit 1.
TEST_F(MroutectlRoutesTest, DamagedRecordsAndUnreadableTablesAreNamed) {
  using Routing::Multicast::Fib::IpGenRouteKey;
  const IpGenRouteKey key(Orvet::IpGenPrefix::fromText("10.0.0.1/32"), Orvet::IpGenPrefix::fromText("239.1.1.2/32"));
  // The source's prefix length is where two prefixes differing only by it differ.
  const std::string a = image(Orvet::IpGenPrefix::fromText("10.0.0.0/24"));
  const std::string b = image(Orvet::IpGenPrefix::fromText("10.0.0.0/25"));
  const size_t lengthAt = static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
  ASSERT_EQ(lengthAt % 4, 0u);
  // A length the reader's bucket check cannot tell from the true one (the
  // same low hash bits): the damage reaches the tool.
  std::string garbled;
  uint32_t length = 33;
  for (;; ++length) {
    garbled = image(key);
    std::memcpy(garbled.data() + lengthAt, &length, sizeof length);
    IpGenRouteKey k;
    std::memcpy(&k, garbled.data(), sizeof k);
    if ((k.hash() & 15) == (key.hash() & 15)) break;
  }
  const std::string set = root.dir() + "/routing/multicast/routestatus/default/";
  ASSERT_TRUE(patchFile(set + "pim/route/slots", image(key), garbled));
  ASSERT_TRUE(patchFile(set + "igmp/route/buckets", "", std::string(16, '\xff')));  // its header
  ASSERT_TRUE(std::filesystem::create_directories(set + "ghost"));  // an application with no tables yet
  const ToolRun r = mroutectl("routes --vrf default");
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_THAT(r.out, HasSubstr("\n  application igmp: cannot read routing/multicast/routestatus/default/igmp/route "
                               "(damaged, or its writer is re-creating it); its routes are left out\n"));
  EXPECT_THAT(r.out, HasSubstr("\n  application ghost: cannot read routing/multicast/routestatus/default/ghost/route "
                               "(missing) and routing/multicast/routestatus/default/ghost/oifIndexIntf (missing); its "
                               "routes are left out\n"));
  EXPECT_THAT(r.out, HasSubstr("  app pim  prio 2  damaged record: key prefix length " + std::to_string(length) +
                               " beyond its family's 32\n"));
  EXPECT_THAT(r.out, HasSubstr("  (10.0.0.1,239.1.1.1)  app pim  prio 2  iif Vlan102  oifs Ethernet3  flags valid\n"));
  EXPECT_EQ(r.out.find("239.1.1.3"), std::string::npos) << "igmp's routes are not read: " << r.out;
  EXPECT_THAT(r.out, HasSubstr("mroutectl routes: 2 application table set(s) cannot be read and 1 damaged "
                               "record(s) (mroutectl validate says more)\n"));
}

}  // namespace
