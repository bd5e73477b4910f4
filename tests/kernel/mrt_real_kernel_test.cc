// The upcall path against the running kernel, in throw-away network
// namespaces (see netns_lab.h). Skipped with a message when not root.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/mroute.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "kernel/netns_lab.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/kernel/mrt_stock_socket_pam.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/pam/socket_at.h"

namespace Routing::Multicast::Notify {
namespace {

using Orvet::IntfId;
using Orvet::IpAddr;
using Orvet::IpGenAddr;

in_addr inAddr(IpAddr a) { return in_addr{a.value()}; }

void setInt(int fd, int option, int value) {
  ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, option, &value, sizeof value), 0) << "option " << option;
}

void addVif(int fd, vifi_t vif, IpAddr local, unsigned char flags = 0) {
  vifctl v{};
  v.vifc_vifi = vif;
  v.vifc_flags = flags;
  v.vifc_threshold = 1;
  v.vifc_lcl_addr = inAddr(local);
  ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v), 0) << "vif " << vif;
}

void addMfc(int fd, IpAddr src, IpAddr grp, vifi_t parent, const std::map<vifi_t, unsigned char>& oifs) {
  mfcctl m{};
  m.mfcc_origin = inAddr(src);
  m.mfcc_mcastgrp = inAddr(grp);
  m.mfcc_parent = parent;
  for (int i = 0; i < MAXVIFS; ++i) m.mfcc_ttls[i] = 255;
  for (auto [vif, ttl] : oifs) m.mfcc_ttls[vif] = ttl;
  ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m), 0);
}

// A UDP sender in the host namespace, leaving by the link whose address is
// `local`.
class Sender {
 public:
  Sender(const std::string& ns, IpAddr local) {
    fd_ = Orvet::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
    EXPECT_GE(fd_, 0);
    in_addr a = inAddr(local);
    EXPECT_EQ(::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &a, sizeof a), 0);
    int ttl = 8;
    EXPECT_EQ(::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl), 0);
  }
  ~Sender() { ::close(fd_); }
  void send(IpAddr group, const std::string& payload) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    to.sin_addr = inAddr(group);
    ASSERT_EQ(::sendto(fd_, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(payload.size()));
  }

 private:
  int fd_ = -1;
};

const IpAddr kHa(10, 1, 0, 2), kRa(10, 1, 0, 1), kHb(10, 2, 0, 2), kRb(10, 2, 0, 1);

class MrtRealKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string reason = lab::unavailable();
    if (!reason.empty()) GTEST_SKIP() << reason;
    ASSERT_TRUE(lab_.build()) << "lab step failed: " << lab_.failed();
    // The vif map as the kernel agent publishes it for the default VRF.
    Kiv::Ptr<Routing::KernelMfib::Status> vifs = status_->vrfStatus("default");
    vifs->intfIdCollIs(0, IntfId("Ethernet1"));
    vifs->intfIdCollIs(1, IntfId("Ethernet2"));
    vifs->intfIdCollIs(2, IntfId("Register0"));
  }
  void TearDown() override {
    sm_.reset();
    if (mgr_ && mgr_->pam()) mgr_->pam()->enabledIs(false);
  }

  // Opens the stock upcall socket in the router namespace with `options`
  // and adds vifs 0 (ra) and 1 (rb) through it.
  void start(uint32_t options) {
    mgr_ = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv4(), lab_.router(), loop_,
                                                      MrtUpcallSource::stockKernel, brevet_);
    mgr_->handlePamInit();
    mgr_->pam()->optionsIs(options);
    sm_ = std::make_unique<MrtNotifySm>(
        loop_, mgr_, Kiv::Ptr<const Routing::KernelMfib::Status>(status_->vrfStatus("default")), brevet_);
    sm_->handleInitialized();
    ASSERT_TRUE(mgr_->pam()->enabled());
    fd_ = mgr_->pam()->fileDesc()->descriptor();
    addVif(fd_, 0, kRa);
    addVif(fd_, 1, kRb);
  }

  template <typename Pred>
  bool runUntil(Pred done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!done() && std::chrono::steady_clock::now() < end) loop_.runOnce(std::chrono::milliseconds(20));
    return done();
  }

  lab::NetnsLab lab_;
  Mroute::Loop::EventLoop loop_;
  Mroute::Brevet brevet_{"Kernel", 1024};
  Kiv::Ptr<Routing::KernelMfib::StatusColl> status_ = Routing::KernelMfib::StatusCollIs("kernelMfibStatus");
  Kiv::Ptr<MrtNotifyPamManager> mgr_;
  std::unique_ptr<MrtNotifySm> sm_;
  int fd_ = -1;
};

TEST_F(MrtRealKernelTest, StockKernelRefusesTheDeviceRegistration) {
  Kiv::Ptr<MrtNotifySocketPam> pam = MrtNotifySocketPam::MrtNotifySocketPamIs("MrtNotify");
  pam->eventLoopIs(&loop_);
  pam->netNsIs(lab_.router());
  try {
    pam->enabledIs(true);
    FAIL() << "a stock kernel accepted option 211";
  } catch (const Mroute::ErrnoException& e) {
    EXPECT_EQ(e.context(), "setsocketopt(MRT_NOTIFY_INIT)");
    EXPECT_NE(e.errnum(), 0);
    std::cout << "[ observed ] " << e.what() << "\n";
  }
  EXPECT_FALSE(pam->enabled());
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_EQ(loop_.watchCount(), 0u);
}

TEST_F(MrtRealKernelTest, NoCacheUpcallNamesSourceGroupAndArrivalInterface) {
  start(igmpNoCache | igmpWrongVif | igmpWholePkt);
  Sender s(lab_.host(), kHb);
  s.send(IpAddr(239, 1, 1, 1), "hello");
  ASSERT_TRUE(runUntil([&] { return mgr_->noCacheCounter() >= 1; }));
  const auto& m = *mgr_->noCacheMessage();
  EXPECT_EQ(m.source(), IpGenAddr(kHb));
  EXPECT_EQ(m.group(), IpGenAddr(IpAddr(239, 1, 1, 1)));
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(mgr_->wrongVifCounter() + mgr_->wholePktCounter(), 0u);
  EXPECT_NE(brevet_.dumpText().find("NoCacheMessage on intf:Ethernet2 for src: 10.2.0.2 and grp: 239.1.1.1"),
            std::string::npos);
}

TEST_F(MrtRealKernelTest, WrongVifUpcallWhenArrivingOnAnOutgoingInterface) {
  start(igmpNoCache | igmpWrongVif);
  setInt(fd_, MRT_ASSERT, 1);
  // (10.2.0.2, 239.1.1.2) is expected on vif 0 and forwarded to vif 1, but
  // arrives on vif 1.
  addMfc(fd_, kHb, IpAddr(239, 1, 1, 2), 0, {{1, 1}});
  Sender s(lab_.host(), kHb);
  s.send(IpAddr(239, 1, 1, 2), "assert me");
  ASSERT_TRUE(runUntil([&] { return mgr_->wrongVifCounter() >= 1; }));
  const auto& m = *mgr_->wrongVifMessage();
  EXPECT_EQ(m.source(), IpGenAddr(kHb));
  EXPECT_EQ(m.group(), IpGenAddr(IpAddr(239, 1, 1, 2)));
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(mgr_->noCacheCounter(), 0u) << "the MFC entry exists";
}

TEST_F(MrtRealKernelTest, WholePacketThroughRegisterVifAndFilteringByOptions) {
  start(igmpNoCache);
  addVif(fd_, 2, kRa, VIFF_REGISTER);
  addMfc(fd_, kHa, IpAddr(239, 1, 1, 3), 0, {{2, 1}});
  Sender s(lab_.host(), kHa);
  s.send(IpAddr(239, 1, 1, 3), "first");
  auto* stock = static_cast<MrtStockSocketPam*>(mgr_->pam().ptr());
  ASSERT_TRUE(runUntil([&] { return stock->rxFiltered() >= 1; })) << "whole packets not asked for";
  EXPECT_EQ(mgr_->wholePktCounter(), 0u);

  mgr_->pam()->optionsIs(igmpNoCache | igmpWholePkt);
  const std::string payload = "register me";
  s.send(IpAddr(239, 1, 1, 3), payload);
  ASSERT_TRUE(runUntil([&] { return mgr_->wholePktCounter() >= 1; }));
  const auto& m = *mgr_->wholePktMessage();
  EXPECT_EQ(m.intfId(), IntfId("Register0"));
  EXPECT_EQ(m.source(), IpGenAddr(kHa));
  EXPECT_EQ(m.group(), IpGenAddr(IpAddr(239, 1, 1, 3)));
  // What is left is the packet as sent: IPv4 header, UDP header, payload.
  const Kiv::Ptr<Orvet::Pkt>& pkt = m.rcvdPkt();
  ASSERT_TRUE(pkt);
  ASSERT_EQ(pkt->size(), 20 + 8 + payload.size());
  EXPECT_EQ(pkt->data()[0], 0x45);
  EXPECT_EQ(pkt->data()[9], IPPROTO_UDP);
  EXPECT_EQ(pkt->view().substr(28), payload);
}

// Each read costs one step of this clock, so a pass of 20 steps reads at
// most 20 upcalls whatever the machine's speed.
std::chrono::steady_clock::time_point steppingClock() {
  static std::chrono::steady_clock::time_point t{};
  t += std::chrono::milliseconds(1);
  return t;
}

TEST_F(MrtRealKernelTest, FloodIsReadAcrossBoundedPassesWithoutLoss) {
  start(igmpWholePkt);
  int rcvbuf = 8 << 20;
  ASSERT_EQ(::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf), 0);
  addVif(fd_, 2, kRa, VIFF_REGISTER);
  addMfc(fd_, kHa, IpAddr(239, 1, 1, 4), 0, {{2, 1}});
  sm_->nowIs(steppingClock);
  sm_->loopQuantumIs(0.0205);
  constexpr uint32_t kFlood = 400;
  Sender s(lab_.host(), kHa);
  for (uint32_t i = 0; i < kFlood; ++i) s.send(IpAddr(239, 1, 1, 4), "flood " + std::to_string(i));
  ASSERT_TRUE(runUntil([&] { return mgr_->wholePktCounter() >= kFlood; }))
      << "read " << mgr_->wholePktCounter() << " of " << kFlood;
  EXPECT_EQ(mgr_->wholePktCounter(), kFlood);
  EXPECT_EQ(mgr_->pam()->rxErrors(), 0u);
  EXPECT_GE(sm_->passes(), kFlood / 20);
  EXPECT_EQ(mgr_->wholePktMessage()->rcvdPkt()->view().substr(28), "flood " + std::to_string(kFlood - 1));
}

}  // namespace
}  // namespace Routing::Multicast::Notify
