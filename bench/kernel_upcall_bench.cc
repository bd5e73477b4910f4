// Upcalls decoded per second, IPv4 (struct igmpmsg) beside IPv6 (struct
// mrt6msg): from memory (decoding alone), from a socket (receive path,
// bounded passes and decoding) and from the running kernel in a network
// namespace (root only). The socket cases report the longest reading pass
// next to the pass bound, to show that the bound holds.
// netinet/in.h before linux/mroute.h, which otherwise defines in_addr itself.
#include <netinet/in.h>
// clang-format off
#include <linux/mroute.h>
#include <linux/mroute6.h>
// clang-format on
#include <benchmark/benchmark.h>
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

#include "kernel/fake_mrt_sys.h"
#include "kernel/netns_lab.h"
#include "mroute/kernel/kernel_mfib_status.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/mrt_notify_sm.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/kernel/vif_intf_map.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/pam/socket_at.h"

namespace {

using namespace Routing::Multicast::Notify;
using Orvet::IntfId;
using Orvet::IpAddr;
using Orvet::IpGenAddr;

constexpr double kQuantum = 0.001;  // seconds a reading pass may take

Kiv::Ptr<Routing::KernelMfib::Status> vifStatus() {
  static Kiv::Ptr<Routing::KernelMfib::StatusColl> coll = Routing::KernelMfib::StatusCollIs("bench");
  Kiv::Ptr<Routing::KernelMfib::Status> s = coll->vrfStatus("default");
  s->intfIdCollIs(0, IntfId("Ethernet1"));
  s->intfIdCollIs(1, IntfId("Ethernet2"));
  s->intfIdCollIs(2, IntfId("Register0"));
  return s;
}

// A no-cache (odd i) or wrong-vif (even i) upcall of the family, vif i % 2.
std::string upcallOf(Orvet::AddressFamily af, uint8_t i) {
  if (af == Orvet::ipv4()) return fake::upcall(1 + i % 2, i % 2, {10, 0, 0, i}, {239, 1, 1, 1});
  IpGenAddr::Bytes src = {0x20, 0x01, 0x0d, 0xb8, 0, 2};
  src[15] = i;
  return fake::upcall6(1 + i % 2, i % 2, IpGenAddr::fromIpv6(src), IpGenAddr::fromText("ff0e::1:1"));
}

void BM_DecodeUpcall(benchmark::State& state, Orvet::AddressFamily af) {
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  Orvet::PktManager pkts(2048, 128);
  Routing::KernelMfib::StatusVifIntfMap vifs(vifStatus());
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(af, "", loop, MrtUpcallSource::stockKernel, brevet);
  std::vector<Kiv::Ptr<Orvet::Pkt>> ring;
  for (uint8_t i = 0; i < 64; ++i) {
    Kiv::Ptr<Orvet::Pkt> p = pkts.newPkt(64);
    p->dataIs(upcallOf(af, i));
    ring.push_back(p);
  }
  size_t n = 0;
  for (auto _ : state) mgr->readMrtMessage(ring[n++ & 63], vifs);
  state.SetItemsProcessed(static_cast<int64_t>(n));
  benchmark::DoNotOptimize(mgr->noCacheCounter());
}
BENCHMARK_CAPTURE(BM_DecodeUpcall, ipv4, Orvet::ipv4());
BENCHMARK_CAPTURE(BM_DecodeUpcall, ipv6, Orvet::ipv6());

// The socket pam on one end of a datagram socket pair (the device kernel's
// for IPv4, the MRT6_INIT one for IPv6); the bench writes upcalls into the
// other end.
class PairSys : public MrtSys {
 public:
  PairSys() {
    ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds_);
    int big = 64 << 20;
    ::setsockopt(fds_[1], SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    ::setsockopt(fds_[0], SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
  }
  ~PairSys() override { ::close(fds_[1]); }
  int socketAt(int, int, int, const Orvet::NamespaceName&) override { return fds_[0]; }
  int setsockopt(int, int, int, const void*, socklen_t) override { return 0; }
  int writer() const { return fds_[1]; }

 private:
  int fds_[2];
};

void reportPasses(benchmark::State& state, const MrtNotifySm& sm) {
  // Counters of the last run only (one MrtNotifySm per run).
  double passes = static_cast<double>(sm.passes());
  state.counters["pass_bound_us"] = kQuantum * 1e6;
  state.counters["mean_pass_us"] = passes ? sm.passSeconds() / passes * 1e6 : 0;
  state.counters["longest_pass_us"] = sm.longestPass() * 1e6;
  state.counters["msgs_per_pass"] = passes ? static_cast<double>(sm.messages()) / passes : 0;
}

void BM_UpcallsFromSocket(benchmark::State& state, Orvet::AddressFamily af) {
  const uint32_t batch = static_cast<uint32_t>(state.range(0));
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  PairSys sys;
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(
      af, "", loop, af == Orvet::ipv4() ? MrtUpcallSource::deviceKernel : MrtUpcallSource::stockKernel,
      brevet);
  mgr->handlePamInit();
  mgr->pam()->sysIs(sys);
  mgr->pam()->optionsIs(igmpNoCache);
  MrtNotifySm sm(loop, mgr, Kiv::Ptr<const Routing::KernelMfib::Status>(vifStatus()), brevet);
  sm.loopQuantumIs(kQuantum);
  sm.handleInitialized();
  const std::string upcall = upcallOf(af, 0);  // no cache
  uint64_t target = 0;
  for (auto _ : state) {
    for (uint32_t i = 0; i < batch; ++i) {
      if (::send(sys.writer(), upcall.data(), upcall.size(), 0) < 0) state.SkipWithError("send failed");
    }
    target += batch;
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (mgr->noCacheCounter() < target && std::chrono::steady_clock::now() < give_up) {
      loop.runOnce(std::chrono::milliseconds(100));
    }
    if (mgr->noCacheCounter() < target) {
      state.SkipWithError("upcalls lost");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(target));
  reportPasses(state, sm);
  mgr->pam()->enabledIs(false);
}
BENCHMARK_CAPTURE(BM_UpcallsFromSocket, ipv4, Orvet::ipv4())->Arg(64)->Arg(4096);
BENCHMARK_CAPTURE(BM_UpcallsFromSocket, ipv6, Orvet::ipv6())->Arg(64)->Arg(4096);

// Routes (10.1.0.2, 239.1.1.9) from vif 0 (ra) to the register vif 2.
bool routeToRegister4(int fd) {
  vifctl v{};
  v.vifc_threshold = 1;
  v.vifc_lcl_addr.s_addr = IpAddr(10, 1, 0, 1).value();
  ::setsockopt(fd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v);
  v.vifc_vifi = 2;
  v.vifc_flags = VIFF_REGISTER;
  ::setsockopt(fd, IPPROTO_IP, MRT_ADD_VIF, &v, sizeof v);
  mfcctl m{};
  m.mfcc_origin.s_addr = IpAddr(10, 1, 0, 2).value();
  m.mfcc_mcastgrp.s_addr = IpAddr(239, 1, 1, 9).value();
  m.mfcc_parent = 0;
  for (auto& t : m.mfcc_ttls) t = 255;
  m.mfcc_ttls[2] = 1;
  return ::setsockopt(fd, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m) == 0;
}

sockaddr_in6 sockAddr6(const char* text, uint16_t port) {
  sockaddr_in6 s{};
  s.sin6_family = AF_INET6;
  s.sin6_port = htons(port);
  std::memcpy(&s.sin6_addr, IpGenAddr::fromText(text).bytes(), 16);
  return s;
}

int ifIndex(int fd, const char* name) {
  ifreq r{};
  std::strncpy(r.ifr_name, name, IFNAMSIZ - 1);
  return ::ioctl(fd, SIOCGIFINDEX, &r) == 0 ? r.ifr_ifindex : -1;
}

// Routes (2001:db8:1::2, ff0e::1:9) from mif 0 (ra) to the register mif 2.
bool routeToRegister6(int fd) {
  mif6ctl mif{};
  mif.vifc_threshold = 1;
  mif.mif6c_pifi = static_cast<uint16_t>(ifIndex(fd, "ra"));
  ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &mif, sizeof mif);
  mif = {};
  mif.mif6c_mifi = 2;
  mif.mif6c_flags = MIFF_REGISTER;
  ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &mif, sizeof mif);
  mf6cctl m{};
  m.mf6cc_origin = sockAddr6("2001:db8:1::2", 0);
  m.mf6cc_mcastgrp = sockAddr6("ff0e::1:9", 0);
  m.mf6cc_parent = 0;
  IF_SET(2, &m.mf6cc_ifset);
  return ::setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MFC, &m, sizeof m) == 0;
}

// A UDP socket in the host namespace leaving by ha, and the group routed to
// the register vif.
struct KernelSender {
  int fd = -1;
  sockaddr_storage to{};
  socklen_t toLen = 0;

  KernelSender(Orvet::AddressFamily af, const std::string& ns) {
    int hops = 8;
    if (af == Orvet::ipv4()) {
      fd = Orvet::socketAt(AF_INET, SOCK_DGRAM, 0, ns);
      in_addr local{IpAddr(10, 1, 0, 2).value()};
      ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local);
      ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
      sockaddr_in g{};
      g.sin_family = AF_INET;
      g.sin_port = htons(5000);
      g.sin_addr.s_addr = IpAddr(239, 1, 1, 9).value();
      std::memcpy(&to, &g, sizeof g);
      toLen = sizeof g;
    } else {
      fd = Orvet::socketAt(AF_INET6, SOCK_DGRAM, 0, ns);
      int index = ifIndex(fd, "ha");
      ::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index);
      ::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
      sockaddr_in6 g = sockAddr6("ff0e::1:9", 5000);
      std::memcpy(&to, &g, sizeof g);
      toLen = sizeof g;
    }
  }
  ~KernelSender() { ::close(fd); }
  // Should a link still have no multicast route (ENETUNREACH), retry.
  bool send(const void* data, size_t len) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (::sendto(fd, data, len, 0, reinterpret_cast<sockaddr*>(&to), toLen) < 0) {
      if (errno != ENETUNREACH || std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }
};

// Whole-packet upcalls made by the kernel: packets sent from a host
// namespace are routed to a register vif (mif), one upcall each.
void BM_UpcallsFromKernel(benchmark::State& state, Orvet::AddressFamily af) {
  std::string why = lab::unavailable();
  if (!why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  lab::NetnsLab net;
  if (!(af == Orvet::ipv4() ? net.build() : net.build6())) {
    state.SkipWithError(("lab: " + net.failed()).c_str());
    return;
  }
  const uint32_t batch = static_cast<uint32_t>(state.range(0));
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(af, net.router(), loop, MrtUpcallSource::stockKernel,
                                                        brevet);
  mgr->handlePamInit();
  mgr->pam()->optionsIs(igmpWholePkt);
  MrtNotifySm sm(loop, mgr, Kiv::Ptr<const Routing::KernelMfib::Status>(vifStatus()), brevet);
  sm.loopQuantumIs(kQuantum);
  sm.handleInitialized();
  int fd = mgr->pam()->fileDesc()->descriptor();
  int big = 16 << 20;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
  if (!(af == Orvet::ipv4() ? routeToRegister4(fd) : routeToRegister6(fd))) {
    state.SkipWithError("adding the MFC entry was refused");
    return;
  }
  KernelSender tx(af, net.host());
  const char payload[64] = {};
  // One packet first, outside the timing, so that the links and routes are
  // known to work before the clock runs.
  tx.send(payload, sizeof payload);
  auto ready = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (mgr->wholePktCounter() < 1 && std::chrono::steady_clock::now() < ready) {
    loop.runOnce(std::chrono::milliseconds(20));
  }
  const uint64_t warm = mgr->wholePktCounter();
  uint64_t target = warm;
  for (auto _ : state) {
    for (uint32_t i = 0; i < batch; ++i) {
      if (!tx.send(payload, sizeof payload)) state.SkipWithError("sendto failed");
    }
    target += batch;
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (mgr->wholePktCounter() < target && std::chrono::steady_clock::now() < give_up) {
      loop.runOnce(std::chrono::milliseconds(20));
    }
    if (mgr->wholePktCounter() < target) {
      state.SkipWithError("upcalls lost");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(mgr->wholePktCounter() - warm));
  reportPasses(state, sm);
  mgr->pam()->enabledIs(false);
}
BENCHMARK_CAPTURE(BM_UpcallsFromKernel, ipv4, Orvet::ipv4())->Arg(256)->UseRealTime();
BENCHMARK_CAPTURE(BM_UpcallsFromKernel, ipv6, Orvet::ipv6())->Arg(256)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
