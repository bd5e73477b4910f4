// Routing::Multicast::Notify::MrtNotifyPamManager: owns the upcall socket of
// one address family and namespace and decodes its upcalls.
//
// readMrtMessage() turns one upcall datagram into the attributes of the
// message entity of its kind (noCacheMessage, wrongVifMessage,
// wholePktMessage - created once and rewritten for every event), counts it
// in that kind's counter and records it in Brevet. An IPv4 manager reads
// struct igmpmsg upcalls, an IPv6 one struct mrt6msg upcalls; both fill the
// same message entities.
//
// The IPv4 socket is the device kernel's notification socket or, on a stock
// kernel, the standard multicast-routing socket (MrtUpcallSource). IPv6 has
// one socket, the kernel's MRT6_INIT socket (stockKernel); the device kernel
// offers no IPv6 notification socket, so an IPv6 deviceKernel manager opens
// none.
//
// Thread-safety: single-threaded, on the agent's event loop.
#pragma once

#include <cstdint>

#include "mroute/entity/attribute.h"
#include "mroute/entity/notifiee.h"
#include "mroute/kernel/mrt_message.h"
#include "mroute/kernel/mrt_socket_pam.h"
#include "mroute/kernel/vif_intf_map.h"
#include "mroute/runtime/brevet.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/runtime/net/address_family.h"
#include "mroute/runtime/net/namespace_name.h"

namespace Mroute::Loop {
class EventLoop;
}

namespace Routing::Multicast::Notify {

enum class MrtUpcallSource : uint8_t {
  deviceKernel,  // IPv4 MrtNotifySocketPam: MRT_NOTIFY_INIT, per-kind switches; IPv6: none
  stockKernel,   // MrtStockSocketPam (MRT_INIT) or Mrt6SocketPam (MRT6_INIT): kinds filtered here
};

class MrtNotifyPamManager : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<MrtNotifyPamManager> {
   public:
    virtual void onPam() {}
    virtual void onNoCacheCounter() {}
    virtual void onWrongVifCounter() {}
    virtual void onWholePktCounter() {}
  };
  static constexpr Kiv::AttrId kPamId = Kiv::kFirstAttrId;
  static constexpr Kiv::AttrId kNoCacheCounterId = kPamId + 4;
  static constexpr Kiv::AttrId kWrongVifCounterId = kPamId + 5;
  static constexpr Kiv::AttrId kWholePktCounterId = kPamId + 6;

  // `loop` is the event loop on which the socket is watched.
  static Kiv::Ptr<MrtNotifyPamManager> MrtNotifyPamManagerIs(
      Orvet::AddressFamily af, const Orvet::NamespaceName& netNs, Mroute::Loop::EventLoop& loop,
      MrtUpcallSource source = MrtUpcallSource::deviceKernel,
      Mroute::Brevet& brevet = Mroute::Brevet::process());

  const Kiv::TypeRecord& fwkType() const override;

  Orvet::AddressFamily af() const { return af_; }
  const Orvet::NamespaceName& netNs() const { return netNs_; }
  MrtUpcallSource source() const { return source_; }

  const Kiv::Ptr<MrtSocketPam>& pam() const { return pam_; }
  void pamIs(Kiv::Ptr<MrtSocketPam> pam);
  // Creates the socket object, in this manager's namespace and on its loop:
  // "MrtNotify" for IPv4, "MrtNotify6" for IPv6 from a stock kernel; an IPv6
  // deviceKernel manager creates nothing; any other family is fatal.
  void handlePamInit();

  const Kiv::Ptr<NoCacheMessage>& noCacheMessage() const { return noCacheMessage_; }
  const Kiv::Ptr<WrongVifMessage>& wrongVifMessage() const { return wrongVifMessage_; }
  const Kiv::Ptr<WholePktMessage>& wholePktMessage() const { return wholePktMessage_; }

  // Counters of decoded upcalls; Inc adds in 32-bit arithmetic (wrapping)
  // and returns the new value.
  uint32_t noCacheCounter() const { return noCacheCounter_; }
  void noCacheCounterIs(uint32_t v);
  uint32_t noCacheCounterInc(uint32_t n);
  uint32_t wrongVifCounter() const { return wrongVifCounter_; }
  void wrongVifCounterIs(uint32_t v);
  uint32_t wrongVifCounterInc(uint32_t n);
  uint32_t wholePktCounter() const { return wholePktCounter_; }
  void wholePktCounterIs(uint32_t v);
  uint32_t wholePktCounterInc(uint32_t n);

  // Decodes one upcall datagram; `vifStatus` maps its vif to an interface.
  // A whole-packet upcall keeps `pkt` (its header removed) in
  // wholePktMessage.
  void readMrtMessage(const Kiv::Ptr<Orvet::Pkt>& pkt, const Routing::KernelMfib::VifIntfMap& vifStatus);

  // Datagrams that hold no upcall header (too short; an IPv6 datagram whose
  // first byte is not zero).
  uint64_t truncated() const { return truncated_; }

 private:
  // One upcall as both families' headers describe it.
  struct Upcall {
    int msgType;
    Orvet::IpGenAddr source;
    Orvet::IpGenAddr group;
    size_t headerBytes;  // stripped from a whole packet's copy
  };
  void readIgmpmsg(const Kiv::Ptr<Orvet::Pkt>& pkt, const Routing::KernelMfib::VifIntfMap& vifStatus);
  void readMrt6msg(const Kiv::Ptr<Orvet::Pkt>& pkt, const Routing::KernelMfib::VifIntfMap& vifStatus);
  // Sets the message entity of the upcall's kind, records and counts it.
  void handOn(const Upcall& u, Orvet::IntfId intf, const Kiv::Ptr<Orvet::Pkt>& pkt);
  void recordUpcall(const Mroute::BrevetEvent& v4, const Mroute::BrevetEvent& v6, const Upcall& u,
                    Orvet::IntfId intf);

  MrtNotifyPamManager(Orvet::AddressFamily af, const Orvet::NamespaceName& netNs,
                      Mroute::Loop::EventLoop& loop, MrtUpcallSource source, Mroute::Brevet& brevet);

  Orvet::AddressFamily af_;
  Orvet::NamespaceName netNs_;
  Mroute::Loop::EventLoop& loop_;
  MrtUpcallSource source_;
  Mroute::Brevet& brevet_;
  Kiv::Ptr<MrtSocketPam> pam_;
  Kiv::Ptr<NoCacheMessage> noCacheMessage_;
  Kiv::Ptr<WrongVifMessage> wrongVifMessage_;
  Kiv::Ptr<WholePktMessage> wholePktMessage_;
  uint32_t noCacheCounter_ = 0;
  uint32_t wrongVifCounter_ = 0;
  uint32_t wholePktCounter_ = 0;
  uint64_t truncated_ = 0;
};

}  // namespace Routing::Multicast::Notify
