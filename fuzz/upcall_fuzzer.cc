// A kernel upcall datagram handed to the notification manager as the reader
// pass hands it on: decoded, classified, counted and turned into message
// attributes. Built twice, for IPv4 upcalls (struct igmpmsg) and, with
// MROUTE_FUZZ_IPV6, for IPv6 upcalls (struct mrt6msg).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/vif_intf_map.h"
#include "mroute/pam/pkt.h"
#include "mroute/runtime/brevet.h"
#include "mroute/runtime/loop/event_loop.h"

using namespace Routing::Multicast::Notify;

namespace {

// The bytes before the copy of the packet in a whole-packet upcall.
#ifdef MROUTE_FUZZ_IPV6
const Orvet::AddressFamily kFamily = Orvet::ipv6();
size_t headerBytes(const uint8_t*) { return 40; }
#else
const Orvet::AddressFamily kFamily = Orvet::ipv4();
size_t headerBytes(const uint8_t* data) { return (data[0] & 0x0fu) * 4; }
#endif

struct Reader {
  Reader() {
    vifs.intfIdCollIs(0, Orvet::IntfId("Register0"));
    vifs.intfIdCollIs(1, Orvet::IntfId("Ethernet1"));
    vifs.intfIdCollIs(258, Orvet::IntfId("Ethernet5"));
  }
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet{"Fuzz", 64};
  Orvet::PktManager pkts{64, 4};
  Routing::KernelMfib::PlainVifIntfMap vifs;
  Kiv::Ptr<MrtNotifyPamManager> mgr =
      MrtNotifyPamManager::MrtNotifyPamManagerIs(kFamily, "default", loop, MrtUpcallSource::stockKernel, brevet);
};

uint64_t handled(const MrtNotifyPamManager& m) {
  return uint64_t{m.noCacheCounter()} + m.wrongVifCounter() + m.wholePktCounter() + m.truncated();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Reader r;
  Kiv::Ptr<Orvet::Pkt> pkt = r.pkts.newPkt(size);
  if (!pkt) std::abort();  // a packet the manager kept was never given back
  pkt->dataIs(std::string_view(reinterpret_cast<const char*>(data), size));
  const uint64_t before = handled(*r.mgr);
  const uint32_t wholeBefore = r.mgr->wholePktCounter();
  r.mgr->readMrtMessage(pkt, r.vifs);
  // One datagram is at most one message or one truncation.
  if (handled(*r.mgr) - before > 1) std::abort();
  // A whole packet is handed on as exactly the bytes after the upcall header.
  if (r.mgr->wholePktCounter() != wholeBefore) {
    const Kiv::Ptr<Orvet::Pkt> whole = r.mgr->wholePktMessage()->rcvdPkt();
    const size_t header = headerBytes(data);
    if (!whole || header > size || whole->view() != std::string_view(reinterpret_cast<const char*>(data) + header,
                                                                     size - header)) {
      std::abort();
    }
  }
  return 0;
}
