// The IPv6 upcall path against the running kernel, in throw-away network
// namespaces (netns_lab.h, build6). Skipped with a message when not root.
#include <netinet/in.h>
// clang-format off
#include <linux/mroute6.h>
// clang-format on
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel/netns_lab.h"
#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/pam/socket_at.h"

namespace Routing::Multicast::Notify {
namespace {

using Orvet::IntfId;
using Orvet::IpGenAddr;

const IpGenAddr kHa = IpGenAddr::fromText("2001:db8:1::2");
const IpGenAddr kHb = IpGenAddr::fromText("2001:db8:2::2");

// The index of interface `name` in the namespace of socket `fd`.
int ifIndex(int fd, const char* name) {
  ifreq r{};
  std::strncpy(r.ifr_name, name, IFNAMSIZ - 1);
  return ::ioctl(fd, SIOCGIFINDEX, &r) == 0 ? r.ifr_ifindex : -1;
}

sockaddr_in6 sockAddr(const IpGenAddr& a, uint16_t port = 0) {
  sockaddr_in6 s{};
  s.sin6_family = AF_INET6;
  s.sin6_port = htons(port);
  std::memcpy(&s.sin6_addr, a.bytes(), 16);
  return s;
}

// MRT6_ADD_MIF; the errno, or 0.
int addMif(int fd, mifi_t mif, const char* dev, unsigned char flags = 0) {
  mif6ctl m{};
  m.mif6c_mifi = mif;
  m.mif6c_flags = flags;
  m.vifc_threshold = 1;
  m.mif6c_pifi = static_cast<uint16_t>(dev ? ifIndex(fd, dev) : 0);
  return ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &m, sizeof m) == 0 ? 0 : errno;
}

void addMfc6(int fd, const IpGenAddr& src, const IpGenAddr& grp, mifi_t parent,
             const std::vector<mifi_t>& oifs) {
  mf6cctl m{};
  m.mf6cc_origin = sockAddr(src);
  m.mf6cc_mcastgrp = sockAddr(grp);
  m.mf6cc_parent = parent;
  for (mifi_t oif : oifs) IF_SET(oif, &m.mf6cc_ifset);
  ASSERT_EQ(::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MFC, &m, sizeof m), 0) << std::strerror(errno);
}

// A UDP sender in the host namespace, leaving by `dev`.
class Sender6 {
 public:
  Sender6(const std::string& ns, const char* dev) {
    fd_ = Orvet::socketAt(AF_INET6, SOCK_DGRAM, 0, ns);
    EXPECT_GE(fd_, 0);
    int index = ifIndex(fd_, dev);
    EXPECT_EQ(::setsockopt(fd_, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index), 0);
    int hops = 8;
    EXPECT_EQ(::setsockopt(fd_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops), 0);
  }
  ~Sender6() { ::close(fd_); }
  // Should a link still have no multicast route (ENETUNREACH), try again
  // for up to two seconds.
  void send(const IpGenAddr& group, const std::string& payload) {
    sockaddr_in6 to = sockAddr(group, 5000);
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    ssize_t n;
    while ((n = ::sendto(fd_, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof to)) < 0 &&
           errno == ENETUNREACH && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_EQ(n, static_cast<ssize_t>(payload.size())) << std::strerror(errno);
  }

 private:
  int fd_ = -1;
};

class Mrt6RealKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string reason = lab::unavailable();
    if (!reason.empty()) GTEST_SKIP() << reason;
    ASSERT_TRUE(lab_.build6()) << "lab step failed: " << lab_.failed();
    // The mif map as the kernel agent publishes it for the default VRF, in
    // the IPv6 family's status.
    Kiv::Ptr<Routing::KernelMfib::Status> mifs = status_->vrfStatus("default");
    mifs->intfIdCollIs(0, IntfId("Ethernet1"));
    mifs->intfIdCollIs(1, IntfId("Ethernet2"));
    mifs->intfIdCollIs(2, IntfId("Register0"));
  }
  void TearDown() override {
    sm_.reset();
    if (mgr_ && mgr_->pam()) mgr_->pam()->enabledIs(false);
  }

  // Opens the IPv6 upcall socket in the router namespace with `options`
  // and adds mifs 0 (ra) and 1 (rb) through it.
  void start(uint32_t options) {
    mgr_ = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv6(), lab_.router(), loop_,
                                                      MrtUpcallSource::stockKernel, brevet_);
    mgr_->handlePamInit();
    ASSERT_TRUE(mgr_->pam());
    mgr_->pam()->optionsIs(options);
    sm_ = std::make_unique<MrtNotifySm>(
        loop_, mgr_, Kiv::Ptr<const Routing::KernelMfib::Status>(status_->vrfStatus("default")), brevet_);
    sm_->handleInitialized();
    ASSERT_TRUE(mgr_->pam()->enabled());
    pam_ = static_cast<Mrt6SocketPam*>(mgr_->pam().ptr());
    fd_ = pam_->fileDesc()->descriptor();
    ASSERT_EQ(addMif(fd_, 0, "ra"), 0);
    ASSERT_EQ(addMif(fd_, 1, "rb"), 0);
  }
  // Adds mif 2 as the register mif; skips the test when the kernel has none.
  void addRegisterMif() {
    int err = addMif(fd_, 2, nullptr, MIFF_REGISTER);
    if (err) GTEST_SKIP() << "this kernel offers no IPv6 register mif: " << std::strerror(err);
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
  Kiv::Ptr<Routing::KernelMfib::StatusColl> status_ = Routing::KernelMfib::StatusCollIs("kernelMfibStatus6");
  Kiv::Ptr<MrtNotifyPamManager> mgr_;
  std::unique_ptr<MrtNotifySm> sm_;
  Mrt6SocketPam* pam_ = nullptr;
  int fd_ = -1;
};

TEST_F(Mrt6RealKernelTest, NoCacheUpcallFromRealTrafficNamesSourceGroupAndArrivalMif) {
  start(mrt6NoCache | mrt6WrongMif | mrt6WholePkt);
  const IpGenAddr group = IpGenAddr::fromText("ff0e::1:1");
  Sender6 s(lab_.host(), "hb");
  s.send(group, "hello");
  ASSERT_TRUE(runUntil([&] { return mgr_->noCacheCounter() >= 1; }));
  const auto& m = *mgr_->noCacheMessage();
  EXPECT_EQ(m.source(), kHb);
  EXPECT_EQ(m.group(), group);
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(mgr_->wrongVifCounter() + mgr_->wholePktCounter(), 0u);
  EXPECT_EQ(pam_->rxNotUpcall(), 0u) << "ICMP6_FILTER keeps neighbour discovery and MLD in the kernel";
  EXPECT_NE(
      brevet_.dumpText().find("NoCacheMessage on intf:Ethernet2 for src: 2001:db8:2::2 and grp: ff0e::1:1"),
      std::string::npos);
}

TEST_F(Mrt6RealKernelTest, WrongMifUpcallWhenArrivingOnAnOutgoingMif) {
  start(mrt6NoCache | mrt6WrongMif);
  int on = 1;
  ASSERT_EQ(::setsockopt(fd_, IPPROTO_IPV6, MRT6_ASSERT, &on, sizeof on), 0);
  // (2001:db8:2::2, ff0e::1:2) is expected on mif 0 and forwarded to mif 1,
  // but arrives on mif 1.
  const IpGenAddr group = IpGenAddr::fromText("ff0e::1:2");
  addMfc6(fd_, kHb, group, 0, {1});
  Sender6 s(lab_.host(), "hb");
  s.send(group, "assert me");
  ASSERT_TRUE(runUntil([&] { return mgr_->wrongVifCounter() >= 1; }));
  const auto& m = *mgr_->wrongVifMessage();
  EXPECT_EQ(m.source(), kHb);
  EXPECT_EQ(m.group(), group);
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(mgr_->noCacheCounter(), 0u) << "the MFC6 entry exists";
}

TEST_F(Mrt6RealKernelTest, WholePacketsThroughTheRegisterMifAndFilteringByOptions) {
  start(mrt6NoCache);
  addRegisterMif();
  const IpGenAddr group = IpGenAddr::fromText("ff0e::1:3");
  addMfc6(fd_, kHa, group, 0, {2});
  Sender6 s(lab_.host(), "ha");
  s.send(group, "first");
  ASSERT_TRUE(runUntil([&] { return pam_->rxFiltered() >= 1; })) << "whole packets not asked for";
  EXPECT_EQ(mgr_->wholePktCounter(), 0u);

  pam_->optionsIs(mrt6NoCache | mrt6WholePkt);
  const std::string payload = "register me";
  s.send(group, payload);
  ASSERT_TRUE(runUntil([&] { return mgr_->wholePktCounter() >= 1; }));
  const auto& m = *mgr_->wholePktMessage();
  EXPECT_EQ(m.intfId(), IntfId("Register0"));
  EXPECT_EQ(m.source(), kHa);
  EXPECT_EQ(m.group(), group);
  // What is left is the packet as sent: IPv6 header, UDP header, payload.
  const Kiv::Ptr<Orvet::Pkt>& pkt = m.rcvdPkt();
  ASSERT_TRUE(pkt);
  ASSERT_EQ(pkt->size(), 40 + 8 + payload.size());
  EXPECT_EQ(pkt->data()[0] >> 4, 6);
  EXPECT_EQ(pkt->data()[6], IPPROTO_UDP);
  EXPECT_EQ(std::memcmp(pkt->data() + 8, kHa.bytes(), 16), 0);
  EXPECT_EQ(pkt->view().substr(48), payload);
}

// Each read costs one step of this clock, so a pass of 20 steps reads at
// most 20 upcalls whatever the machine's speed.
std::chrono::steady_clock::time_point steppingClock() {
  static std::chrono::steady_clock::time_point t{};
  t += std::chrono::milliseconds(1);
  return t;
}

TEST_F(Mrt6RealKernelTest, FloodIsReadAcrossBoundedPassesWithoutLoss) {
  start(mrt6WholePkt);
  int rcvbuf = 8 << 20;
  ASSERT_EQ(::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf), 0);
  addRegisterMif();
  const IpGenAddr group = IpGenAddr::fromText("ff0e::1:4");
  addMfc6(fd_, kHa, group, 0, {2});
  sm_->nowIs(steppingClock);
  sm_->loopQuantumIs(0.0205);
  constexpr uint32_t kFlood = 400;
  Sender6 s(lab_.host(), "ha");
  for (uint32_t i = 0; i < kFlood; ++i) s.send(group, "flood " + std::to_string(i));
  ASSERT_TRUE(runUntil([&] { return mgr_->wholePktCounter() >= kFlood; }))
      << "read " << mgr_->wholePktCounter() << " of " << kFlood;
  EXPECT_EQ(mgr_->wholePktCounter(), kFlood);
  EXPECT_EQ(pam_->rxErrors(), 0u);
  EXPECT_GE(sm_->passes(), kFlood / 20);
  EXPECT_LE(sm_->lastPassMessages(), 20u);
  EXPECT_EQ(mgr_->wholePktMessage()->rcvdPkt()->view().substr(48), "flood " + std::to_string(kFlood - 1));
}

}  // namespace
}  // namespace Routing::Multicast::Notify
