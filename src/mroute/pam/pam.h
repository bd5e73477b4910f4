// Orvet::Pam: the base of packet-access objects ("pams"), entities that own a
// socket or device and move packets between it and the agent.
//
// A pam counts readiness, packets and errors, and has a received-packet slot,
// rxPktHolder: the receive path puts each packet there (rxPktHolderIs), which
// notifies onRxPktHolder; a reader takes packets with rxPktTake(), which asks
// the pam to receive the next one (doGetRxPkt) when the slot is empty. The
// descriptor state machine PamFdSm (pam_fd_sm.h) calls doGetRxPkt() when the
// pam's descriptor is readable.
//
// Thread-safety: single-threaded, on the event loop given by eventLoopIs().
#pragma once

#include <cstdint>

#include "mroute/entity/attribute.h"
#include "mroute/entity/notifiee.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/pam/pkt.h"

namespace Mroute::Loop {
class EventLoop;
}

namespace Orvet {

class Pam : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<Pam> {
   public:
    virtual void onReadableCount() {}
    virtual void onWritableCount() {}
    virtual void onRxPkt() {}
    virtual void onTxPkt() {}
    virtual void onTxDrops() {}
    virtual void onTxErrors() {}
    virtual void onRxErrors() {}
    virtual void onRxPktHolder() {}
  };

  static constexpr Kiv::AttrId kReadableCountId = Kiv::kFirstAttrId;
  static constexpr Kiv::AttrId kWritableCountId = kReadableCountId + 1;
  static constexpr Kiv::AttrId kRxPktId = kReadableCountId + 2;
  static constexpr Kiv::AttrId kTxPktId = kReadableCountId + 3;
  static constexpr Kiv::AttrId kTxDropsId = kReadableCountId + 4;
  static constexpr Kiv::AttrId kTxErrorsId = kReadableCountId + 5;
  static constexpr Kiv::AttrId kRxErrorsId = kReadableCountId + 6;
  static constexpr Kiv::AttrId kRxPktHolderId = kReadableCountId + 7;
  // Derived pams number their own attributes from here.
  static constexpr Kiv::AttrId kFirstDerivedAttrId = kReadableCountId + 8;

  const Kiv::TypeRecord& fwkType() const override;

  uint64_t readableCount() const { return readableCount_; }
  void readableCountInc(uint64_t n) {
    Kiv::attrInc(*this, kReadableCountId, readableCount_, n, &NotifieeConst::onReadableCount);
  }
  uint64_t writableCount() const { return writableCount_; }
  void writableCountInc(uint64_t n) {
    Kiv::attrInc(*this, kWritableCountId, writableCount_, n, &NotifieeConst::onWritableCount);
  }
  // Packets put into rxPktHolder.
  uint64_t rxPkt() const { return rxPkt_; }
  void rxPktInc(uint64_t n) { Kiv::attrInc(*this, kRxPktId, rxPkt_, n, &NotifieeConst::onRxPkt); }
  uint64_t txPkt() const { return txPkt_; }
  void txPktInc(uint64_t n) { Kiv::attrInc(*this, kTxPktId, txPkt_, n, &NotifieeConst::onTxPkt); }
  uint64_t txDrops() const { return txDrops_; }
  void txDropsInc(uint64_t n) { Kiv::attrInc(*this, kTxDropsId, txDrops_, n, &NotifieeConst::onTxDrops); }
  uint64_t txErrors() const { return txErrors_; }
  void txErrorsInc(uint64_t n) { Kiv::attrInc(*this, kTxErrorsId, txErrors_, n, &NotifieeConst::onTxErrors); }
  uint64_t rxErrors() const { return rxErrors_; }
  void rxErrorsInc(uint64_t n) { Kiv::attrInc(*this, kRxErrorsId, rxErrors_, n, &NotifieeConst::onRxErrors); }

  // The received packet waiting for a reader, or null.
  const Kiv::Ptr<Pkt>& rxPktHolder() const { return rxPktHolder_; }
  // Hands a received packet to the readers: counts it in rxPkt and notifies
  // onRxPktHolder (also when the same packet is set again). Null empties the
  // slot quietly.
  void rxPktHolderIs(Kiv::Ptr<Pkt> pkt);
  // The waiting packet, or else the next one received now (doGetRxPkt), or
  // null when there is none; the slot is empty afterwards.
  Kiv::Ptr<Pkt> rxPktTake();

  // Slots in which a reader may park a packet it will come back to.
  const Kiv::Ptr<Pkt>& savedPacket() const { return savedPacket_; }
  void savedPacketIs(Kiv::Ptr<Pkt> p) { savedPacket_ = std::move(p); }
  const Kiv::Ptr<Pkt>& savedPacketRx() const { return savedPacketRx_; }
  void savedPacketRxIs(Kiv::Ptr<Pkt> p) { savedPacketRx_ = std::move(p); }

  // The loop on which the pam watches its descriptor.
  Mroute::Loop::EventLoop* eventLoop() const { return eventLoop_; }
  void eventLoopIs(Mroute::Loop::EventLoop* loop) { eventLoop_ = loop; }

  // Receives one packet into rxPktHolder if one is there. Called when the
  // descriptor is readable and by rxPktTake().
  virtual void doGetRxPkt() {}
  // Called when the descriptor is writable and writable interest is on.
  virtual void doWritable() {}

 protected:
  explicit Pam(const Kiv::Name& name) : Kiv::Entity(name) {}
  // Tells the readers again about the packet already waiting, without
  // counting it: a receive path that finds the slot full calls this rather
  // than receive over a packet nobody has taken.
  void rxPktHolderRenotify();

 private:
  uint64_t readableCount_ = 0;
  uint64_t writableCount_ = 0;
  uint64_t rxPkt_ = 0;
  uint64_t txPkt_ = 0;
  uint64_t txDrops_ = 0;
  uint64_t txErrors_ = 0;
  uint64_t rxErrors_ = 0;
  Kiv::Ptr<Pkt> rxPktHolder_;
  Kiv::Ptr<Pkt> savedPacket_;
  Kiv::Ptr<Pkt> savedPacketRx_;
  Mroute::Loop::EventLoop* eventLoop_ = nullptr;
};

}  // namespace Orvet
