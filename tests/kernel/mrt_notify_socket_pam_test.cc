#include "mroute/kernel/mrt_notify_socket_pam.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "kernel/fake_mrt_sys.h"
#include "mroute/kernel/mrt_stock_socket_pam.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"

namespace Routing::Multicast::Notify {
namespace {

using fake::Datagram;
using fake::FakeMrtSys;
using fake::upcall;
using Strings = std::vector<std::string>;

const std::string kOpen = "socket(2,3,255,)";
const std::string kInit = "setsockopt(0,211,1)";

class MrtNotifySocketPamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pam_ = MrtNotifySocketPam::MrtNotifySocketPamIs("MrtNotify");
    pam_->sysIs(sys_);
    pam_->pktManagerIs(pkts_);
    pam_->eventLoopIs(&loop_);
  }
  // The texts after the "... NS:<ns> " prefix.
  Strings messages() const {
    Strings out;
    for (const std::string& t : trace_.texts("Mroute::MrtPam")) {
      auto ns = t.find(" NS:");
      auto sp = t.find(' ', ns + 1);
      if (sp != std::string::npos) out.push_back(t.substr(sp + 1));
    }
    return out;
  }

  Mroute::Trace::CaptureSink trace_{"Mroute::MrtPam/0-9"};
  Mroute::Loop::EventLoop loop_;
  FakeMrtSys sys_;
  Orvet::PktManager pkts_{2048, 16};
  Kiv::Ptr<MrtNotifySocketPam> pam_;
};

TEST_F(MrtNotifySocketPamTest, OptionsSetWhileClosedAreSentAtOpenInKindOrder) {
  pam_->optionsIs(igmpWrongVif | igmpWholePkt);
  EXPECT_TRUE(sys_.calls.empty());
  pam_->enabledIs(true);
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "setsockopt(0,213,2)", "setsockopt(0,213,3)"}));
  EXPECT_TRUE(pam_->enabled());
  ASSERT_TRUE(pam_->fileDesc());
  EXPECT_EQ(pam_->fileDesc()->name(), Kiv::Name("MrtNotify"));
  EXPECT_TRUE(pam_->fdSm());
  EXPECT_EQ(messages(),
            (Strings{"Set socket option: wrongvif", "Set socket option: wholepkt", "Mrt pam is enabled"}));
  EXPECT_EQ(trace_.texts("Mroute::MrtPam").front(),
            "void Routing::Multicast::Notify::MrtNotifySocketPam::optionsIs(uint32_t)(5) NS:");
}

TEST_F(MrtNotifySocketPamTest, ChangingOptionsWhileOpenSwitchesOnlyChangedKinds) {
  pam_->optionsIs(igmpWrongVif | igmpNoCache);
  pam_->enabledIs(true);
  sys_.calls.clear();
  trace_.clear();
  pam_->optionsIs(igmpNoCache | igmpWholePkt);
  EXPECT_EQ(sys_.calls, (Strings{"setsockopt(0,214,2)", "setsockopt(0,213,3)"}));
  EXPECT_EQ(messages(), (Strings{"oldOptions=3newOptions=6", "changedOptions=5"}));
  EXPECT_EQ(pam_->options(), 6u);

  sys_.calls.clear();
  trace_.clear();
  pam_->optionsIs(6);
  EXPECT_TRUE(sys_.calls.empty());
  EXPECT_EQ(messages(), (Strings{"oldOptions=6newOptions=6", "changedOptions=0"}));
}

TEST_F(MrtNotifySocketPamTest, OpenTwiceOpensOnceAndCloseOrTeardownSendsNoOption) {
  pam_->enabledIs(false);
  EXPECT_TRUE(sys_.calls.empty());
  pam_->enabledIs(true);
  pam_->enabledIs(true);
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit}));
  Kiv::Ptr<Orvet::FileDesc> fd = pam_->fileDesc();
  pam_->enabledIs(false);
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "close"}));
  EXPECT_FALSE(pam_->enabled());
  EXPECT_FALSE(pam_->fileDesc());
  EXPECT_FALSE(pam_->fdSm());
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_EQ(loop_.watchCount(), 0u);

  pam_->enabledIs(true);
  pam_ = nullptr;  // teardown closes an open socket
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "close", kOpen, kInit, "close"}));
  EXPECT_EQ(loop_.watchCount(), 0u);
}

TEST_F(MrtNotifySocketPamTest, OpenFailuresCloseTheSocketAndLeaveItDisabled) {
  pam_->eventLoopIs(nullptr);  // a programming error: nothing is opened
  EXPECT_ASSERTION(pam_->enabledIs(true), "eventLoop()");
  EXPECT_TRUE(sys_.calls.empty());
  pam_->eventLoopIs(&loop_);
  sys_.failSocket = EACCES;
  EXPECT_THROW_TEXT(pam_->enabledIs(true), Mroute::ErrnoException, "socket: Permission denied");
  EXPECT_EQ(messages(), (Strings{"socket open error"}));
  EXPECT_FALSE(pam_->enabled());

  sys_.failSocket = 0;
  sys_.calls.clear();
  sys_.failOption[{211, 1}] = ENOPROTOOPT;
  EXPECT_THROW_TEXT(pam_->enabledIs(true), Mroute::ErrnoException,
                    "setsocketopt(MRT_NOTIFY_INIT): Protocol not available");
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "close"}));

  sys_.failOption.clear();
  sys_.failOption[{213, 1}] = EINVAL;  // the second kind fails
  sys_.calls.clear();
  pam_->optionsIs(igmpWrongVif | igmpNoCache);
  EXPECT_THROW_TEXT(pam_->enabledIs(true), Mroute::ErrnoException,
                    "setsocketopt(MRT_NOTIFY_INIT): Invalid argument");
  EXPECT_EQ(sys_.calls, (Strings{kOpen, kInit, "setsockopt(0,213,2)", "setsockopt(0,213,1)", "close"}));
  EXPECT_FALSE(pam_->enabled());
  EXPECT_FALSE(pam_->fileDesc());
  EXPECT_EQ(loop_.watchCount(), 0u);
}

TEST_F(MrtNotifySocketPamTest, OptionFailureKeepsOldOptionsAfterEarlierKindsWereSent) {
  pam_->enabledIs(true);
  sys_.calls.clear();
  sys_.failOption[{213, 1}] = EPERM;
  EXPECT_THROW_TEXT(pam_->optionsIs(igmpWrongVif | igmpNoCache), Mroute::ErrnoException,
                    "setsockopt(IGMP_NOCACHE): Operation not permitted");
  EXPECT_EQ(sys_.calls, (Strings{"setsockopt(0,213,2)", "setsockopt(0,213,1)"}));
  EXPECT_EQ(pam_->options(), 0u);
  EXPECT_TRUE(pam_->enabled());

  sys_.failOption = {{{214, 3}, EPERM}};
  pam_->optionsIs(igmpWholePkt);  // 0 -> 4 sends 213,3
  EXPECT_THROW_TEXT(pam_->optionsIs(0), Mroute::ErrnoException,
                    "setsockopt(IGMP_WHOLEPKT): Operation not permitted");
  sys_.failOption = {{{213, 2}, EPERM}};
  EXPECT_THROW_TEXT(pam_->optionsIs(igmpWholePkt | igmpWrongVif), Mroute::ErrnoException,
                    "setsockopt(IGMP_WRONGVIF): Operation not permitted");
}

TEST_F(MrtNotifySocketPamTest, NamespaceChangeReopensThereWithCurrentOptions) {
  pam_->optionsIs(igmpNoCache);
  pam_->netNsIs("red");
  EXPECT_TRUE(sys_.calls.empty()) << "closed: only stored";
  pam_->enabledIs(true);
  sys_.calls.clear();
  pam_->netNsIs("blue");
  EXPECT_EQ(sys_.calls, (Strings{"close", "socket(2,3,255,blue)", kInit, "setsockopt(0,213,1)"}));
  EXPECT_TRUE(pam_->enabled());
  EXPECT_EQ(
      trace_.texts("Mroute::MrtPam").back(),
      "void Routing::Multicast::Notify::MrtNotifySocketPam::enabledIs(bool)(1) NS:blue Mrt pam is enabled");
}

TEST_F(MrtNotifySocketPamTest, ReceiveLaysOutTheHeaderAndRecordsAncillaryData) {
  pam_->enabledIs(true);
  in_pktinfo info{};
  info.ipi_ifindex = 7;
  info.ipi_addr.s_addr = Orvet::IpAddr(239, 1, 1, 1).value();
  int ttl = 0x3f;
  sys_.push(
      {upcall(1, 0, {10, 0, 0, 1}, {239, 1, 1, 1}), 0, {fake::cmsgRecord(IP_PKTINFO, &info, sizeof info)}});
  sys_.push({"abc", 0, {fake::cmsgRecord(IP_TTL, &ttl, sizeof ttl)}});
  pam_->doGetRxPkt();
  EXPECT_EQ(sys_.lastNameLen, 16u);
  EXPECT_EQ(sys_.lastControlLen, CMSG_SPACE(sizeof(in_pktinfo)));
  EXPECT_EQ(sys_.lastCmsgLen, CMSG_LEN(sizeof(in_pktinfo)));
  EXPECT_EQ(sys_.lastCmsgLevel, IPPROTO_IP);
  EXPECT_EQ(sys_.lastCmsgType, IP_PKTINFO);
  EXPECT_EQ(sys_.lastIovLen, 65535u);
  EXPECT_EQ(sys_.lastFlags, MSG_DONTWAIT);
  EXPECT_EQ(pam_->rxIfIndex(), 7u);
  EXPECT_EQ(pam_->rxDstIpAddr(), Orvet::IpAddr(239, 1, 1, 1));
  ASSERT_TRUE(pam_->rxPktHolder());
  EXPECT_EQ(pam_->rxPktHolder()->size(), 20u);

  Kiv::Ptr<Orvet::Pkt> first = pam_->rxPktTake();
  trace_.clear();
  Kiv::Ptr<Orvet::Pkt> second = pam_->rxPktTake();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->view(), "abc");
  EXPECT_EQ(pam_->rxTTL(), 0x3f);
  EXPECT_EQ(messages(), (Strings{"Received packet of size 3", "TTL of received packet is 0x3f",
                                 "recvmsg failed to retrieve ifindex"}));
  EXPECT_EQ(pam_->rxPktCount(), 2u);
}

TEST_F(MrtNotifySocketPamTest, EmptyDatagramsErrorsAndExhaustionDeliverNothing) {
  pam_->doGetRxPkt();
  EXPECT_EQ(messages(), (Strings{"IpSocketPam not enabled. Aborting action"}));
  pam_->enabledIs(true);
  trace_.clear();

  sys_.push({"", 0, {}});
  pam_->doGetRxPkt();
  EXPECT_EQ(pam_->rxPktCount(), 1u);
  EXPECT_FALSE(pam_->rxPktHolder());
  EXPECT_EQ(messages().back(), "Discarding empty packet");

  pam_->doGetRxPkt();  // nothing queued: EAGAIN is quiet
  EXPECT_EQ(pam_->rxErrors(), 0u);

  trace_.clear();
  sys_.push({"", ECONNREFUSED, {}});
  pam_->doGetRxPkt();
  EXPECT_EQ(pam_->rxErrors(), 1u);
  EXPECT_EQ(messages(), (Strings{"recvmsg failed with 111 (Connection refused)"}));

  pkts_.maxPktsIs(0);
  trace_.clear();
  sys_.push({"x", 0, {}});
  pam_->doGetRxPkt();
  EXPECT_EQ(messages(), (Strings{"Failed to obtain new packet object"}));
  EXPECT_EQ(sys_.queue.size(), 1u) << "the datagram stays in the kernel";
}

TEST(MrtStockSocketPamTest, OpensTheStandardSocketAndFiltersKindsNotAskedFor) {
  Mroute::Loop::EventLoop loop;
  FakeMrtSys sys;
  Kiv::Ptr<MrtStockSocketPam> pam = MrtStockSocketPam::MrtStockSocketPamIs("MrtNotify");
  pam->sysIs(sys);
  pam->eventLoopIs(&loop);
  pam->optionsIs(igmpNoCache);
  pam->enabledIs(true);
  EXPECT_EQ(sys.calls, (Strings{"socket(2,3,2,)", "setsockopt(0,200,1)"}));
  pam->optionsIs(igmpNoCache | igmpWholePkt);
  EXPECT_EQ(sys.calls.size(), 2u) << "a stock kernel is not told";

  sys.push({upcall(2, 0, {10, 0, 0, 1}, {239, 1, 1, 1}), 0, {}});               // not asked for
  sys.push({upcall(0x16, 0, {10, 0, 0, 1}, {239, 1, 1, 1}, 5, "", 2), 0, {}});  // an IGMP report
  sys.push({"short", 0, {}});
  sys.push({upcall(3, 1, {10, 0, 0, 1}, {239, 1, 1, 1}), 0, {}});
  Kiv::Ptr<Orvet::Pkt> pkt = pam->rxPktTake();
  EXPECT_FALSE(pkt) << "the first three are dropped, each pull reads one";
  while (!pkt && !sys.queue.empty()) pkt = pam->rxPktTake();
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->data()[8], 3);
  EXPECT_EQ(pam->rxFiltered(), 1u);
  EXPECT_EQ(pam->rxNotUpcall(), 2u);
  EXPECT_EQ(pam->rxPkt(), 1u);

  sys.failOption[{200, 1}] = EADDRINUSE;
  pam->enabledIs(false);
  EXPECT_THROW_TEXT(pam->enabledIs(true), Mroute::ErrnoException,
                    "setsockopt(MRT_INIT): Address already in use");
  EXPECT_FALSE(pam->enabled());
}

}  // namespace
}  // namespace Routing::Multicast::Notify
