#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kernel/fake_mrt_sys.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Notify {
namespace {

using fake::FakeMrtSys;
using fake::steppingClock;
using fake::upcall;
using Orvet::IntfId;
using Orvet::IpAddr;
using testing::HasSubstr;

struct CounterWatch : MrtNotifyPamManager::NotifieeConst {
  int noCache = 0;
  void onNoCacheCounter() override { ++noCache; }
};

struct MessageWatch : MrtMessage::NotifieeConst {
  std::vector<std::string> seen;
  void onSource() override { seen.push_back("source"); }
  void onGroup() override { seen.push_back("group"); }
  void onIntfId() override { seen.push_back("intfId"); }
};

class MrtNotifyReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vifs_.intfIdCollIs(258, IntfId("Ethernet5"));
    vifs_.intfIdCollIs(1, IntfId("Register0"));
  }
  Kiv::Ptr<Orvet::Pkt> pkt(const std::string& bytes) { return fake::pktOf(pkts_, bytes); }

  Mroute::Trace::CaptureSink trace_{"Mroute::MrtNotify/0-9"};
  Mroute::Loop::EventLoop loop_;
  Mroute::Brevet brevet_{"Test", 64};
  Orvet::PktManager pkts_{2048, 64};
  Routing::KernelMfib::PlainVifIntfMap vifs_;
  Kiv::Ptr<MrtNotifyPamManager> mgr_ = MrtNotifyPamManager::MrtNotifyPamManagerIs(
      Orvet::ipv4(), "red", loop_, MrtUpcallSource::deviceKernel, brevet_);
};

TEST_F(MrtNotifyReaderTest, NoCacheUpcallSetsTheMessageAndCounts) {
  CounterWatch counters;
  counters.notifierIs(mgr_);
  MessageWatch message;
  message.notifierIs(mgr_->noCacheMessage());
  // vif 0x0102: low byte at 10, high byte at 11.
  mgr_->readMrtMessage(pkt(upcall(1, 0x0102, {10, 0, 0, 1}, {239, 1, 1, 1})), vifs_);
  const auto& m = *mgr_->noCacheMessage();
  EXPECT_EQ(m.msgType(), Orvet::MrtMessageType::noCacheAlert);
  EXPECT_EQ(m.source(), Orvet::IpGenAddr(IpAddr(10, 0, 0, 1)));
  EXPECT_EQ(m.group(), Orvet::IpGenAddr(IpAddr(239, 1, 1, 1)));
  EXPECT_EQ(m.intfId(), IntfId("Ethernet5"));
  EXPECT_EQ(mgr_->noCacheCounter(), 1u);
  EXPECT_EQ(counters.noCache, 1);
  EXPECT_EQ(message.seen, (std::vector<std::string>{"source", "group", "intfId"}));
  EXPECT_EQ(mgr_->wrongVifCounter() + mgr_->wholePktCounter(), 0u);
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "sAddr: 10.0.0.1 gAddr: 239.1.1.1 vif 258"));
  EXPECT_EQ(brevet_.written(), 1u);
  EXPECT_THAT(brevet_.dumpText(), HasSubstr("NoCacheMessage on intf:Ethernet5 for src: 10.0.0.1 and grp: 239.1.1.1"));
}

// A wrong vif on an unmapped vif yields the null interface; a whole packet
// loses exactly the upcall header.
TEST_F(MrtNotifyReaderTest, WrongVifAndWholePacketFillTheirOwnMessages) {
  mgr_->readMrtMessage(pkt(upcall(2, 9, {10, 0, 0, 2}, {239, 2, 2, 2})), vifs_);
  EXPECT_EQ(mgr_->wrongVifCounter(), 1u);
  EXPECT_EQ(mgr_->wrongVifMessage()->source(), Orvet::IpGenAddr(IpAddr(10, 0, 0, 2)));
  EXPECT_TRUE(mgr_->wrongVifMessage()->intfId().isNull());
  // A 24-byte header (IHL 6) proves the header length is read, not assumed.
  std::string inner = "\x45inner-packet";
  mgr_->readMrtMessage(pkt(upcall(3, 1, {10, 0, 0, 3}, {239, 3, 3, 3}, 6, inner)), vifs_);
  const auto& m = *mgr_->wholePktMessage();
  ASSERT_TRUE(m.rcvdPkt());
  EXPECT_EQ(m.rcvdPkt()->view(), inner);
  EXPECT_EQ(m.intfId(), IntfId("Register0"));
  EXPECT_EQ(m.group(), Orvet::IpGenAddr(IpAddr(239, 3, 3, 3)));
  EXPECT_EQ(mgr_->wholePktCounter(), 1u);
}

TEST_F(MrtNotifyReaderTest, UnknownTypesAndShortDatagramsChangeNothing) {
  mgr_->readMrtMessage(pkt(upcall(0, 1, {10, 0, 0, 1}, {239, 1, 1, 1})), vifs_);
  mgr_->readMrtMessage(pkt(upcall(4, 1, {10, 0, 0, 1}, {239, 1, 1, 1})), vifs_);
  mgr_->readMrtMessage(pkt(std::string(19, '\x45')), vifs_);
  std::string longHeader = upcall(1, 1, {10, 0, 0, 1}, {239, 1, 1, 1});
  longHeader[0] = '\x4f';  // IHL 15: a header beyond the data
  mgr_->readMrtMessage(pkt(longHeader), vifs_);
  EXPECT_EQ(mgr_->noCacheCounter() + mgr_->wrongVifCounter() + mgr_->wholePktCounter(), 0u);
  EXPECT_EQ(mgr_->noCacheMessage()->source(), Orvet::IpGenAddr());
  EXPECT_EQ(mgr_->truncated(), 2u);
  EXPECT_EQ(std::ranges::count(trace_.texts("Mroute::MrtNotify"), "MrtNotify Rcv: Invalid igmp Alert"), 2);
  EXPECT_EQ(brevet_.written(), 0u);
}

TEST_F(MrtNotifyReaderTest, AddressFamilies) {
  mgr_->handlePamInit();
  ASSERT_TRUE(mgr_->pam());
  EXPECT_EQ(mgr_->pam()->name(), Kiv::Name("MrtNotify"));
  EXPECT_EQ(mgr_->pam()->netNs(), Orvet::NamespaceName("red"));
  EXPECT_EQ(mgr_->pam()->eventLoop(), &loop_);

  auto v6 = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv6(), "", loop_);
  v6->handlePamInit();
  EXPECT_FALSE(v6->pam());
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "Ignoring initializing Pam for IPv6"));
  v6->readMrtMessage(pkt(upcall(1, 0, {10, 0, 0, 1}, {239, 1, 1, 1})), vifs_);
  EXPECT_EQ(v6->noCacheCounter(), 0u);

  auto bad = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::afUnknown(), "", loop_);
  EXPECT_ASSERTION(bad->handlePamInit(), "0 && \"Unsupported address family.\"");
  EXPECT_ASSERTION(bad->readMrtMessage(pkt("x"), vifs_), "0 && \"Unknown address family not supported\"");
}

class MrtNotifySmTest : public MrtNotifyReaderTest {
 protected:
  void SetUp() override {
    MrtNotifyReaderTest::SetUp();
    mgr_->handlePamInit();
    mgr_->pam()->sysIs(sys_);
    mgr_->pam()->pktManagerIs(pkts_);
    mgr_->pam()->optionsIs(igmpNoCache);
    sm_.nowIs(steppingClock);
  }
  void TearDown() override { mgr_->pam()->enabledIs(false); }

  FakeMrtSys sys_;
  MrtNotifySm sm_{loop_, mgr_, vifs_, brevet_};
};

TEST_F(MrtNotifySmTest, FloodIsReadInBoundedPassesWithoutLoss) {
  sm_.handleInitialized();
  EXPECT_EQ(mgr_->pam()->maxRxPktData(), 65535u);
  EXPECT_EQ(Orvet::PktManager::global().pktSize(), 65535u);
  EXPECT_EQ(sys_.calls,
            (std::vector<std::string>{"socket(2,3,255,red)", "setsockopt(0,211,1)", "setsockopt(0,213,1)"}));
  // Each message costs one clock step; a pass lasts 10 steps.
  sm_.loopQuantumIs(0.0095);
  for (uint8_t i = 0; i < 50; ++i) sys_.push({upcall(1, 258, {10, 0, 0, i}, {239, 1, 1, 1}), 0, {}});
  for (int i = 0; i < 20 && mgr_->noCacheCounter() < 50; ++i) loop_.runOnce(std::chrono::milliseconds(0));
  EXPECT_EQ(mgr_->noCacheCounter(), 50u);
  EXPECT_EQ(sm_.messages(), 50u);
  EXPECT_GE(sm_.passes(), 5u);
  EXPECT_EQ(mgr_->pam()->readableCount(), sm_.passes()) << "each pass starts when the loop finds the socket readable";
  EXPECT_EQ(mgr_->noCacheMessage()->source(), Orvet::IpGenAddr(IpAddr(10, 0, 0, 49)));
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "RX: Error - No Packet"));
}

TEST_F(MrtNotifySmTest, PassWhoseQuantumHasPassedReadsNothingAndLosesNothing) {
  sm_.handleInitialized();
  sm_.loopQuantumIs(0);
  sys_.push({upcall(1, 258, {10, 0, 0, 1}, {239, 1, 1, 1}), 0, {}});
  sys_.push({upcall(1, 258, {10, 0, 0, 2}, {239, 1, 1, 1}), 0, {}});
  loop_.runOnce(std::chrono::milliseconds(0));
  loop_.runOnce(std::chrono::milliseconds(0));
  EXPECT_EQ(sm_.messages(), 0u);
  EXPECT_EQ(sm_.passes(), 2u);
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "Processed 0 messages in 0.002 seconds."));
  sm_.loopQuantumIs(1);
  loop_.runOnce(std::chrono::milliseconds(0));
  EXPECT_EQ(mgr_->noCacheCounter(), 2u);
  EXPECT_THAT(brevet_.dumpText(), HasSubstr("Start review of kernel upcalls"));
  EXPECT_THAT(brevet_.dumpText(), HasSubstr("Finished review of 2 kernel upcalls in"));
}

}  // namespace
}  // namespace Routing::Multicast::Notify
