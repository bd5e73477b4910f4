// Upcalls decoded per second: from memory (decoding alone), from a socket
// (receive path, bounded passes and decoding) and from the running kernel
// in a network namespace (root only). The socket cases report the longest
// reading pass next to the pass bound, to show that the bound holds.
// netinet/in.h before linux/mroute.h, which otherwise defines in_addr itself.
#include <netinet/in.h>
// clang-format off
#include <linux/mroute.h>
// clang-format on
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
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

constexpr double kQuantum = 0.001;  // seconds a reading pass may take

Kiv::Ptr<Routing::KernelMfib::Status> vifStatus() {
  static Kiv::Ptr<Routing::KernelMfib::StatusColl> coll = Routing::KernelMfib::StatusCollIs("bench");
  Kiv::Ptr<Routing::KernelMfib::Status> s = coll->vrfStatus("default");
  s->intfIdCollIs(0, IntfId("Ethernet1"));
  s->intfIdCollIs(1, IntfId("Ethernet2"));
  s->intfIdCollIs(2, IntfId("Register0"));
  return s;
}

void BM_DecodeUpcall(benchmark::State& state) {
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  Orvet::PktManager pkts(2048, 128);
  Routing::KernelMfib::StatusVifIntfMap vifs(vifStatus());
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv4(), "", loop,
                                                        MrtUpcallSource::deviceKernel, brevet);
  std::vector<Kiv::Ptr<Orvet::Pkt>> ring;
  for (uint8_t i = 0; i < 64; ++i) {
    Kiv::Ptr<Orvet::Pkt> p = pkts.newPkt(64);
    p->dataIs(fake::upcall(1 + i % 2, i % 2, {10, 0, 0, i}, {239, 1, 1, 1}));
    ring.push_back(p);
  }
  size_t n = 0;
  for (auto _ : state) mgr->readMrtMessage(ring[n++ & 63], vifs);
  state.SetItemsProcessed(static_cast<int64_t>(n));
  benchmark::DoNotOptimize(mgr->noCacheCounter());
}
BENCHMARK(BM_DecodeUpcall);

// The device socket pam on one end of a datagram socket pair; the bench
// writes upcalls into the other end.
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

void BM_UpcallsFromSocket(benchmark::State& state) {
  const uint32_t batch = static_cast<uint32_t>(state.range(0));
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  PairSys sys;
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv4(), "", loop,
                                                        MrtUpcallSource::deviceKernel, brevet);
  mgr->handlePamInit();
  mgr->pam()->sysIs(sys);
  MrtNotifySm sm(loop, mgr, Kiv::Ptr<const Routing::KernelMfib::Status>(vifStatus()), brevet);
  sm.loopQuantumIs(kQuantum);
  sm.handleInitialized();
  const std::string upcall = fake::upcall(1, 1, {10, 0, 0, 1}, {239, 1, 1, 1});
  uint64_t target = 0;
  for (auto _ : state) {
    for (uint32_t i = 0; i < batch; ++i) {
      if (::send(sys.writer(), upcall.data(), upcall.size(), 0) < 0) state.SkipWithError("send failed");
    }
    target += batch;
    while (mgr->noCacheCounter() < target) loop.runOnce(std::chrono::milliseconds(100));
  }
  state.SetItemsProcessed(static_cast<int64_t>(target));
  reportPasses(state, sm);
  mgr->pam()->enabledIs(false);
}
BENCHMARK(BM_UpcallsFromSocket)->Arg(64)->Arg(4096);

// Whole-packet upcalls made by the kernel: packets sent from a host
// namespace are routed to a register vif, one upcall each.
void BM_UpcallsFromKernel(benchmark::State& state) {
  std::string why = lab::unavailable();
  if (!why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  lab::NetnsLab net;
  if (!net.build()) {
    state.SkipWithError(("lab: " + net.failed()).c_str());
    return;
  }
  const uint32_t batch = static_cast<uint32_t>(state.range(0));
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("bench", 4096);
  auto mgr = MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::ipv4(), net.router(), loop,
                                                        MrtUpcallSource::stockKernel, brevet);
  mgr->handlePamInit();
  mgr->pam()->optionsIs(igmpWholePkt);
  MrtNotifySm sm(loop, mgr, Kiv::Ptr<const Routing::KernelMfib::Status>(vifStatus()), brevet);
  sm.loopQuantumIs(kQuantum);
  sm.handleInitialized();
  int fd = mgr->pam()->fileDesc()->descriptor();
  int big = 16 << 20;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
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
  if (::setsockopt(fd, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m) != 0) {
    state.SkipWithError("MRT_ADD_MFC refused");
    return;
  }
  int tx = Orvet::socketAt(AF_INET, SOCK_DGRAM, 0, net.host());
  in_addr local{IpAddr(10, 1, 0, 2).value()};
  ::setsockopt(tx, IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local);
  int ttl = 8;
  ::setsockopt(tx, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(5000);
  to.sin_addr.s_addr = IpAddr(239, 1, 1, 9).value();
  const char payload[64] = {};
  uint64_t target = 0;
  for (auto _ : state) {
    for (uint32_t i = 0; i < batch; ++i) {
      ::sendto(tx, payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
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
  ::close(tx);
  state.SetItemsProcessed(static_cast<int64_t>(mgr->wholePktCounter()));
  reportPasses(state, sm);
  mgr->pam()->enabledIs(false);
}
BENCHMARK(BM_UpcallsFromKernel)->Arg(256)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
