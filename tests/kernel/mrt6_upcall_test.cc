// The IPv6 upcall source through the fake socket seam, down to the message entities IPv4 fills too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kernel/fake_mrt_sys.h"
#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Notify {
namespace {

using fake::FakeMrtSys;
using fake::steppingClock;
using fake::upcall6;
using Orvet::IntfId;
using Orvet::IpGenAddr;
using Strings = std::vector<std::string>;

const IpGenAddr kSrc = IpGenAddr::fromText("2001:db8:2::2");
const IpGenAddr kGrp = IpGenAddr::fromText("ff0e::1:1");
const std::string kOpen = "socket(10,3,58,red)";
const std::string kInit = "setsockopt(41,200,1)";
const std::string kFilter = "setsockopt(58,1,0)";  // a 32-byte value: not an int

class Mrt6Test : public ::testing::Test {
 protected:
  void SetUp() override {
    vifs_.intfIdCollIs(258, IntfId("Ethernet5"));
    vifs_.intfIdCollIs(2, IntfId("Register0"));
    mgr_->handlePamInit();
    pam_ = static_cast<Mrt6SocketPam*>(mgr_->pam().ptr());
    ASSERT_TRUE(pam_);
    pam_->sysIs(sys_);
    pam_->pktManagerIs(pkts_);
  }
  void TearDown() override {
    sm_.reset();
    if (pam_) pam_->enabledIs(false);
  }
  Kiv::Ptr<Orvet::Pkt> pkt(const std::string& bytes) { return fake::pktOf(pkts_, bytes); }

  Mroute::Trace::CaptureSink trace_{"Mroute::MrtPam/0-9,Mroute::MrtNotify/0-9"};
  Mroute::Loop::EventLoop loop_;
  Mroute::Brevet brevet_{"Test", 64};
  Orvet::PktManager pkts_{2048, 64};
  FakeMrtSys sys_;
  Routing::KernelMfib::PlainVifIntfMap vifs_;
  Kiv::Ptr<MrtNotifyPamManager> mgr_ = MrtNotifyPamManager::MrtNotifyPamManagerIs(
      Orvet::ipv6(), "red", loop_, MrtUpcallSource::stockKernel, brevet_);
  Mrt6SocketPam* pam_ = nullptr;
  std::unique_ptr<MrtNotifySm> sm_;
};

TEST_F(Mrt6Test, OpensAndReopensAnIcmpv6SocketThatOwnsTheTableAndBlocksRealIcmpv6) {
  EXPECT_EQ(pam_->name(), Kiv::Name("MrtNotify6"));
  EXPECT_EQ(pam_->netNs(), Orvet::NamespaceName("red"));
  EXPECT_EQ(pam_->eventLoop(), &loop_);
  pam_->optionsIs(mrt6NoCache | mrt6WholePkt);
  pam_->enabledIs(true);
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, kFilter}));
  EXPECT_EQ(sys_.lastOptionBytes, std::string(32, '\xff')) << "every ICMPv6 type blocked";
  EXPECT_TRUE(
      trace_.contains("Mroute::MrtPam",
             "void Routing::Multicast::Notify::Mrt6SocketPam::enabledIs(bool)(1) NS:red Mrt pam is enabled"));
  pam_->optionsIs(mrt6WrongMif);
  EXPECT_EQ(sys_.calls.size(), 3u) << "the kernel is not told";
  sys_.calls.clear();
  pam_->netNsIs("blue");
  EXPECT_EQ(sys_.calls, (Strings{"close", "socket(10,3,58,blue)", kInit, kFilter}));
  EXPECT_TRUE(trace_.contains("Mroute::MrtPam",
                     "void Routing::Multicast::Notify::Mrt6SocketPam::optionsIs(uint32_t)(1) NS:red "
                     "oldOptions=6newOptions=1"));
}

TEST_F(Mrt6Test, RegistrationFailuresCloseTheSocketWithTheirContext) {
  sys_.failOption[{200, 1}] = EADDRINUSE;
  EXPECT_THROW_TEXT(pam_->enabledIs(true), Mroute::ErrnoException,
                    "setsockopt(MRT6_INIT): Address already in use");
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "close"}));
  sys_.failOption = {{{1, 0}, EINVAL}};
  sys_.calls.clear();
  EXPECT_THROW_TEXT(pam_->enabledIs(true), Mroute::ErrnoException,
                    "setsockopt(ICMP6_FILTER): Invalid argument");
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, kFilter, "close"}));
  EXPECT_FALSE(pam_->enabled());
  EXPECT_EQ(loop_.watchCount(), 0u);
}

TEST_F(Mrt6Test, ReceiveUsesTheIpv6LayoutAndFiltersWhatWasNotAskedFor) {
  pam_->optionsIs(mrt6NoCache);
  pam_->enabledIs(true);
  in6_pktinfo info{};
  info.ipi6_ifindex = 9;
  std::memcpy(&info.ipi6_addr, kGrp.bytes(), 16);
  int hops = 0x40;
  // The control buffer has room for one record: the hop limit comes alone.
  sys_.push(
      {upcall6(1, 258, kSrc, kGrp), 0, {fake::cmsgRecord(IPV6_PKTINFO, &info, sizeof info, IPPROTO_IPV6)}});
  sys_.push(
      {upcall6(2, 1, kSrc, kGrp), 0, {fake::cmsgRecord(IPV6_HOPLIMIT, &hops, sizeof hops, IPPROTO_IPV6)}});
  sys_.push({upcall6(0x8f, 0, kSrc, kGrp, "", 0x8f), 0, {}});  // an MLD report
  sys_.push({std::string(39, '\0'), 0, {}});                   // shorter than mrt6msg
  Kiv::Ptr<Orvet::Pkt> first = pam_->rxPktTake();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->size(), 40u);
  EXPECT_EQ(sys_.lastNameLen, sizeof(sockaddr_in6));
  EXPECT_EQ(sys_.lastControlLen, CMSG_SPACE(sizeof(in6_pktinfo)));
  EXPECT_EQ(sys_.lastCmsgLevel, IPPROTO_IPV6);
  EXPECT_EQ(sys_.lastCmsgType, IPV6_PKTINFO);
  EXPECT_EQ(pam_->rxIfIndex(), 9u);
  EXPECT_EQ(pam_->rxDstIp6Addr(), kGrp);
  EXPECT_TRUE(
      trace_.contains("Mroute::MrtPam",
             "void Routing::Multicast::Notify::Mrt6SocketPam::doGetRxPkt()() NS:red Packet arrived on "
             "interface index 9 with destination IP of ff0e::1:1"));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(pam_->rxPktTake());
  EXPECT_EQ(pam_->rxHopLimit(), 0x40);
  EXPECT_EQ(pam_->rxFiltered(), 1u);
  EXPECT_EQ(pam_->rxNotUpcall(), 2u);
  EXPECT_EQ(pam_->rxPktCount(), 4u);
}

TEST_F(Mrt6Test, EachKindFillsTheSameMessageEntitiesAsIpv4) {
  mgr_->readMrtMessage(pkt(upcall6(1, 258, kSrc, kGrp, std::string(40, 'u'))), vifs_);
  const auto& nc = *mgr_->noCacheMessage();
  EXPECT_EQ(nc.source(), kSrc);
  EXPECT_EQ(nc.group(), kGrp);
  EXPECT_EQ(nc.intfId(), IntfId("Ethernet5"));
  EXPECT_EQ(mgr_->noCacheCounter(), 1u);
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "sAddr: 2001:db8:2::2 gAddr: ff0e::1:1 mif 258"));
  EXPECT_TRUE(trace_.contains("Mroute::MrtNotify", "mrt6msg type: 1"));

  mgr_->readMrtMessage(pkt(upcall6(2, 7, kGrp, kSrc)), vifs_);
  EXPECT_EQ(mgr_->wrongVifCounter(), 1u);
  EXPECT_EQ(mgr_->wrongVifMessage()->source(), kGrp);
  EXPECT_TRUE(mgr_->wrongVifMessage()->intfId().isNull()) << "mif 7 is not mapped";

  const std::string inner = "\x60 the copied IPv6 packet";
  mgr_->readMrtMessage(pkt(upcall6(3, 2, kSrc, kGrp, inner)), vifs_);
  const auto& wp = *mgr_->wholePktMessage();
  ASSERT_TRUE(wp.rcvdPkt());
  EXPECT_EQ(wp.rcvdPkt()->view(), inner);
  EXPECT_EQ(wp.intfId(), IntfId("Register0"));
  EXPECT_EQ(mgr_->wholePktCounter(), 1u);

  const std::string text = brevet_.dumpText();
  EXPECT_THAT(text, testing::HasSubstr("NoCacheMessage on intf:Ethernet5 for src: 2001:db8:2::2 and grp: ff0e::1:1"));
  EXPECT_THAT(text, testing::HasSubstr("WholePktMessage on intf:Register0 for src: 2001:db8:2::2 and grp: ff0e::1:1"));
}

TEST_F(Mrt6Test, UnknownKindsAndNonUpcallsChangeNothing) {
  mgr_->readMrtMessage(pkt(upcall6(0, 1, kSrc, kGrp)), vifs_);
  mgr_->readMrtMessage(pkt(upcall6(4, 1, kSrc, kGrp)), vifs_);  // wrong mif with the whole packet
  mgr_->readMrtMessage(pkt(upcall6(1, 1, kSrc, kGrp, "", 0x86)), vifs_);
  mgr_->readMrtMessage(pkt(upcall6(1, 1, kSrc, kGrp).substr(0, 39)), vifs_);
  EXPECT_EQ(mgr_->noCacheCounter() + mgr_->wrongVifCounter() + mgr_->wholePktCounter(), 0u);
  EXPECT_EQ(mgr_->noCacheMessage()->source(), IpGenAddr());
  EXPECT_EQ(mgr_->truncated(), 2u);
  EXPECT_EQ(std::ranges::count(trace_.texts("Mroute::MrtNotify"), "MrtNotify Rcv: Invalid mrt6msg Alert"), 2);
  EXPECT_EQ(brevet_.written(), 0u);
}

TEST_F(Mrt6Test, FloodWithSkippedDatagramsIsReadInBoundedPassesWithoutLoss) {
  pam_->optionsIs(mrt6NoCache);
  sm_ = std::make_unique<MrtNotifySm>(loop_, mgr_, vifs_, brevet_);
  sm_->nowIs(steppingClock);
  sm_->loopQuantumIs(0.0095);  // 10 reads a pass
  sm_->handleInitialized();
  for (uint8_t i = 0; i < 40; ++i) {
    IpGenAddr::Bytes b = {0x20, 0x01, 0x0d, 0xb8};
    b[15] = i;
    sys_.push({upcall6(1, 258, IpGenAddr::fromIpv6(b), kGrp), 0, {}});
    if (i % 4 == 0) sys_.push({upcall6(3, 2, kSrc, kGrp), 0, {}});  // filtered: no whole packets
  }
  for (int i = 0; i < 20 && mgr_->noCacheCounter() < 40; ++i) loop_.runOnce(std::chrono::milliseconds(0));
  EXPECT_EQ(mgr_->noCacheCounter(), 40u);
  EXPECT_EQ(sm_->messages(), 40u);
  EXPECT_EQ(pam_->rxFiltered(), 10u);
  EXPECT_GE(sm_->passes(), 5u);
  EXPECT_LE(sm_->lastPassMessages(), 10u);
  EXPECT_EQ(mgr_->noCacheMessage()->source().bytes()[15], 39);
  EXPECT_EQ(pam_->rxPkt(), sm_->passes()) << "only the packet that starts a pass goes through the holder";
}

}  // namespace
}  // namespace Routing::Multicast::Notify
