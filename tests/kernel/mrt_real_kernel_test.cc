// The upcall path of both families against the running kernel, in throw-away
// network namespaces (see netns_lab.h). Skipped with a message when not root.
#include <arpa/inet.h>
#include <netinet/in.h>
// clang-format off
#include <linux/mroute.h>
#include <linux/mroute6.h>
// clang-format on
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel/fake_mrt_sys.h"
#include "kernel/netns_lab.h"
#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/kernel/mrt_stock_socket_pam.h"
#include "mroute/pam/socket_at.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/loop/event_loop.h"
#include "testing/shm_root_scope.h"

namespace Routing::Multicast::Notify {
namespace {

using Orvet::IntfId;
using Orvet::IpGenAddr;

// The index of interface `name` in the namespace of socket `fd`.
int ifIndex(int fd, const char* name) {
  ifreq r{};
  std::strncpy(r.ifr_name, name, IFNAMSIZ - 1);
  return ::ioctl(fd, SIOCGIFINDEX, &r) == 0 ? r.ifr_ifindex : -1;
}

// What differs between the families: the lab's addresses, the kernel's
// socket options and structures, and where the IP header keeps its fields.
struct V4 {
  static constexpr int kFamily = AF_INET, kLevel = IPPROTO_IP, kAssert = MRT_ASSERT;
  static constexpr size_t kIpHeader = 20, kProtocolAt = 9, kSourceAt = 12;
  static constexpr unsigned kVersion = 4;
  static constexpr const char* kStatus = "kernelMfibStatus";
  static Orvet::AddressFamily af() { return Orvet::ipv4(); }
  static bool build(lab::NetnsLab& lab) { return lab.build(); }
  static IpGenAddr host(int link) { return IpGenAddr::fromText(link == 0 ? "10.1.0.2" : "10.2.0.2"); }
  static IpGenAddr group(int n) { return IpGenAddr::fromText("239.1.1." + std::to_string(n)); }

  static sockaddr_in sockAddr(const IpGenAddr& a, uint16_t port = 0) {
    sockaddr_in s{};
    s.sin_family = AF_INET;
    s.sin_port = htons(port);
    std::memcpy(&s.sin_addr, a.bytes(), 4);
    return s;
  }
  // The vif of router link `dev` (the register vif when null); the errno, or 0.
  static int addVif(int fd, int vif, const char* dev) {
    vifctl v{};
    v.vifc_vifi = static_cast<vifi_t>(vif);
    v.vifc_flags = dev ? 0 : VIFF_REGISTER;
    v.vifc_threshold = 1;
    v.vifc_lcl_addr = sockAddr(IpGenAddr::fromText("10.1.0.1")).sin_addr;
    if (dev && std::string(dev) == "rb") v.vifc_lcl_addr = sockAddr(IpGenAddr::fromText("10.2.0.1")).sin_addr;
    return ::setsockopt(fd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v) == 0 ? 0 : errno;
  }
  static int addMfc(int fd, const IpGenAddr& src, const IpGenAddr& grp, int parent, int oif) {
    mfcctl m{};
    m.mfcc_origin = sockAddr(src).sin_addr;
    m.mfcc_mcastgrp = sockAddr(grp).sin_addr;
    m.mfcc_parent = static_cast<vifi_t>(parent);
    for (int i = 0; i < MAXVIFS; ++i) m.mfcc_ttls[i] = 255;
    m.mfcc_ttls[oif] = 1;
    return ::setsockopt(fd, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m) == 0 ? 0 : errno;
  }
  static void leaveBy(int fd, const char* dev) {
    ip_mreqn m{};
    m.imr_ifindex = ifIndex(fd, dev);
    EXPECT_EQ(::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof m), 0);
    int ttl = 8;
    EXPECT_EQ(::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl), 0);
  }
};

struct V6 {
  static constexpr int kFamily = AF_INET6, kLevel = IPPROTO_IPV6, kAssert = MRT6_ASSERT;
  static constexpr size_t kIpHeader = 40, kProtocolAt = 6, kSourceAt = 8;
  static constexpr unsigned kVersion = 6;
  static constexpr const char* kStatus = "kernelMfibStatus6";
  static Orvet::AddressFamily af() { return Orvet::ipv6(); }
  static bool build(lab::NetnsLab& lab) { return lab.build6(); }
  static IpGenAddr host(int link) { return IpGenAddr::fromText(link == 0 ? "2001:db8:1::2" : "2001:db8:2::2"); }
  static IpGenAddr group(int n) { return IpGenAddr::fromText("ff0e::1:" + std::to_string(n)); }

  static sockaddr_in6 sockAddr(const IpGenAddr& a, uint16_t port = 0) {
    sockaddr_in6 s{};
    s.sin6_family = AF_INET6;
    s.sin6_port = htons(port);
    std::memcpy(&s.sin6_addr, a.bytes(), 16);
    return s;
  }
  static int addVif(int fd, int mif, const char* dev) {
    mif6ctl m{};
    m.mif6c_mifi = static_cast<mifi_t>(mif);
    m.mif6c_flags = dev ? 0 : MIFF_REGISTER;
    m.vifc_threshold = 1;
    m.mif6c_pifi = static_cast<uint16_t>(dev ? ifIndex(fd, dev) : 0);
    return ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &m, sizeof m) == 0 ? 0 : errno;
  }
  static int addMfc(int fd, const IpGenAddr& src, const IpGenAddr& grp, int parent, int oif) {
    mf6cctl m{};
    m.mf6cc_origin = sockAddr(src);
    m.mf6cc_mcastgrp = sockAddr(grp);
    m.mf6cc_parent = static_cast<mifi_t>(parent);
    IF_SET(oif, &m.mf6cc_ifset);
    return ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MFC, &m, sizeof m) == 0 ? 0 : errno;
  }
  static void leaveBy(int fd, const char* dev) {
    int index = ifIndex(fd, dev);
    EXPECT_EQ(::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index), 0);
    int hops = 8;
    EXPECT_EQ(::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops), 0);
  }
};

// A UDP sender in the host namespace, leaving by host link `dev`.
template <class F>
class Sender {
 public:
  Sender(const std::string& ns, const char* dev) {
    fd_ = Orvet::socketAt(F::kFamily, SOCK_DGRAM, 0, ns);
    EXPECT_GE(fd_, 0);
    F::leaveBy(fd_, dev);
  }
  ~Sender() { ::close(fd_); }
  // A fresh IPv6 link may have no multicast route yet (ENETUNREACH): try
  // again for up to two seconds.
  void send(const IpGenAddr& group, const std::string& payload) {
    auto to = F::sockAddr(group, 5000);
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

template <class F>
class MrtRealKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string reason = lab::unavailable();
    if (!reason.empty()) GTEST_SKIP() << reason;
    ASSERT_TRUE(F::build(lab_)) << "lab step failed: " << lab_.failed();
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

  // Opens the kernel's upcall socket in the router namespace with `options`
  // and adds vifs 0 (ra) and 1 (rb) through it.
  void start(uint32_t options) {
    mgr_ = MrtNotifyPamManager::MrtNotifyPamManagerIs(F::af(), lab_.router(), loop_,
                                                      MrtUpcallSource::stockKernel, brevet_);
    mgr_->handlePamInit();
    ASSERT_TRUE(mgr_->pam());
    mgr_->pam()->optionsIs(options);
    sm_ = std::make_unique<MrtNotifySm>(
        loop_, mgr_, Kiv::Ptr<const Routing::KernelMfib::Status>(status_->vrfStatus("default")), brevet_);
    sm_->handleInitialized();
    ASSERT_TRUE(mgr_->pam()->enabled());
    pam_ = static_cast<MrtStockSocketPam*>(mgr_->pam().ptr());
    fd_ = pam_->fileDesc()->descriptor();
    ASSERT_EQ(F::addVif(fd_, 0, "ra"), 0);
    ASSERT_EQ(F::addVif(fd_, 1, "rb"), 0);
  }
  // Adds vif 2 as the register vif, and (S,G) from host link a to it.
  void registerRoute(const IpGenAddr& group) {
    int err = F::addVif(fd_, 2, nullptr);
    if (err && F::kVersion == 6) GTEST_SKIP() << "this kernel offers no IPv6 register mif: " << std::strerror(err);
    ASSERT_EQ(err, 0) << std::strerror(err);
    ASSERT_EQ(F::addMfc(fd_, F::host(0), group, 0, 2), 0) << std::strerror(errno);
  }

  bool runUntil(const std::function<bool()>& done) { return Testing::runUntil(loop_, done); }

  lab::NetnsLab lab_;
  Mroute::Loop::EventLoop loop_;
  Mroute::Brevet brevet_{"Kernel", 1024};
  Kiv::Ptr<Routing::KernelMfib::StatusColl> status_ = Routing::KernelMfib::StatusCollIs(F::kStatus);
  Kiv::Ptr<MrtNotifyPamManager> mgr_;
  std::unique_ptr<MrtNotifySm> sm_;
  MrtStockSocketPam* pam_ = nullptr;
  int fd_ = -1;
};

using Families = ::testing::Types<V4, V6>;
TYPED_TEST_SUITE(MrtRealKernelTest, Families);

TYPED_TEST(MrtRealKernelTest, NoCacheUpcallNamesSourceGroupAndArrivalInterface) {
  this->start(igmpNoCache | igmpWrongVif | igmpWholePkt);
  const IpGenAddr group = TypeParam::group(1);
  Sender<TypeParam> s(this->lab_.host(), "hb");
  s.send(group, "hello");
  ASSERT_TRUE(this->runUntil([&] { return this->mgr_->noCacheCounter() >= 1; }));
  const auto& m = *this->mgr_->noCacheMessage();
  EXPECT_EQ(m.source(), TypeParam::host(1));
  EXPECT_EQ(m.group(), group);
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(this->mgr_->wrongVifCounter() + this->mgr_->wholePktCounter(), 0u);
  if (TypeParam::kVersion == 6) {
    EXPECT_EQ(static_cast<Mrt6SocketPam*>(this->pam_)->rxNotUpcall(), 0u)
        << "ICMP6_FILTER keeps neighbour discovery and MLD in the kernel";
  }
  EXPECT_THAT(this->brevet_.dumpText(), testing::HasSubstr("NoCacheMessage on intf:Ethernet2 for src: " +
                                                           TypeParam::host(1).text() + " and grp: " + group.text()));
}

TYPED_TEST(MrtRealKernelTest, WrongVifUpcallWhenArrivingOnAnOutgoingInterface) {
  this->start(igmpNoCache | igmpWrongVif);
  int on = 1;
  ASSERT_EQ(::setsockopt(this->fd_, TypeParam::kLevel, TypeParam::kAssert, &on, sizeof on), 0);
  // (host b, group 2) is expected on vif 0 and forwarded to vif 1, but
  // arrives on vif 1.
  const IpGenAddr group = TypeParam::group(2);
  ASSERT_EQ(TypeParam::addMfc(this->fd_, TypeParam::host(1), group, 0, 1), 0);
  Sender<TypeParam> s(this->lab_.host(), "hb");
  s.send(group, "assert me");
  ASSERT_TRUE(this->runUntil([&] { return this->mgr_->wrongVifCounter() >= 1; }));
  const auto& m = *this->mgr_->wrongVifMessage();
  EXPECT_EQ(m.source(), TypeParam::host(1));
  EXPECT_EQ(m.group(), group);
  EXPECT_EQ(m.intfId(), IntfId("Ethernet2"));
  EXPECT_EQ(this->mgr_->noCacheCounter(), 0u) << "the MFC entry exists";
}

TYPED_TEST(MrtRealKernelTest, WholePacketThroughRegisterVifAndFilteringByOptions) {
  this->start(igmpNoCache);
  const IpGenAddr group = TypeParam::group(3);
  this->registerRoute(group);
  if (this->IsSkipped() || this->HasFatalFailure()) return;
  Sender<TypeParam> s(this->lab_.host(), "ha");
  s.send(group, "first");
  ASSERT_TRUE(this->runUntil([&] { return this->pam_->rxFiltered() >= 1; })) << "whole packets not asked for";
  EXPECT_EQ(this->mgr_->wholePktCounter(), 0u);

  this->pam_->optionsIs(igmpNoCache | igmpWholePkt);
  const std::string payload = "register me";
  s.send(group, payload);
  ASSERT_TRUE(this->runUntil([&] { return this->mgr_->wholePktCounter() >= 1; }));
  const auto& m = *this->mgr_->wholePktMessage();
  EXPECT_EQ(m.intfId(), IntfId("Register0"));
  EXPECT_EQ(m.source(), TypeParam::host(0));
  EXPECT_EQ(m.group(), group);
  // What is left is the packet as sent: IP header, UDP header, payload.
  const Kiv::Ptr<Orvet::Pkt>& pkt = m.rcvdPkt();
  ASSERT_TRUE(pkt);
  ASSERT_EQ(pkt->size(), TypeParam::kIpHeader + 8 + payload.size());
  EXPECT_EQ(pkt->data()[0] >> 4, TypeParam::kVersion);
  EXPECT_EQ(pkt->data()[TypeParam::kProtocolAt], IPPROTO_UDP);
  EXPECT_EQ(std::memcmp(pkt->data() + TypeParam::kSourceAt, TypeParam::host(0).bytes(),
                        TypeParam::kIpHeader == 20 ? 4 : 16),
            0);
  EXPECT_EQ(pkt->view().substr(TypeParam::kIpHeader + 8), payload);
}

TYPED_TEST(MrtRealKernelTest, FloodIsReadAcrossBoundedPassesWithoutLoss) {
  this->start(igmpWholePkt);
  int rcvbuf = 8 << 20;
  ASSERT_EQ(::setsockopt(this->fd_, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf), 0);
  const IpGenAddr group = TypeParam::group(4);
  this->registerRoute(group);
  if (this->IsSkipped() || this->HasFatalFailure()) return;
  this->sm_->nowIs(fake::steppingClock);  // a pass of 20 steps reads at most 20 upcalls
  this->sm_->loopQuantumIs(0.0205);
  constexpr uint32_t kFlood = 400;
  Sender<TypeParam> s(this->lab_.host(), "ha");
  for (uint32_t i = 0; i < kFlood; ++i) s.send(group, "flood " + std::to_string(i));
  ASSERT_TRUE(this->runUntil([&] { return this->mgr_->wholePktCounter() >= kFlood; }))
      << "read " << this->mgr_->wholePktCounter() << " of " << kFlood;
  EXPECT_EQ(this->mgr_->wholePktCounter(), kFlood);
  EXPECT_EQ(this->pam_->rxErrors(), 0u);
  EXPECT_GE(this->sm_->passes(), kFlood / 20);
  EXPECT_LE(this->sm_->lastPassMessages(), 20u);
  EXPECT_EQ(this->mgr_->wholePktMessage()->rcvdPkt()->view().substr(TypeParam::kIpHeader + 8),
            "flood " + std::to_string(kFlood - 1));
}

// The stock kernel has no device notification socket: registering one fails
// with the option named, and leaves nothing open or watched.
using MrtRealKernelV4Test = MrtRealKernelTest<V4>;
TEST_F(MrtRealKernelV4Test, StockKernelRefusesTheDeviceRegistration) {
  Kiv::Ptr<MrtNotifySocketPam> pam = MrtNotifySocketPam::MrtNotifySocketPamIs("MrtNotify");
  pam->eventLoopIs(&loop_);
  pam->netNsIs(lab_.router());
  try {
    pam->enabledIs(true);
    FAIL() << "a stock kernel accepted option 211";
  } catch (const Mroute::ErrnoException& e) {
    EXPECT_EQ(e.context(), "setsocketopt(MRT_NOTIFY_INIT)");
    EXPECT_NE(e.errnum(), 0);
  }
  EXPECT_FALSE(pam->enabled());
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_EQ(loop_.watchCount(), 0u);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
