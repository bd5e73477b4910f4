// The kernel upcall events as entities, for agents to watch.
//
// One MrtMessage entity per kind (NoCacheMessage, WrongVifMessage,
// WholePktMessage) is rewritten for every event of that kind; a notifiee
// hears onSource/onGroup/onIntfId (and onRcvdPkt) for the attributes that
// changed. MrtMessageCounter is a pair of counters for agents that count
// messages themselves.
//
// Thread-safety: single-threaded, on the agent's event loop.
#pragma once

#include <cstdint>
#include <ostream>

#include "mroute/entity/attribute.h"
#include "mroute/entity/notifiee.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/enumeration.h"
#include "mroute/runtime/net/intf_id.h"
#include "mroute/runtime/net/ip_gen_addr.h"
#include "mroute/pam/pkt.h"

namespace Orvet {

// The kinds of kernel upcall event. Do not renumber: the values are the
// enumeration's registered literals.
enum class MrtMessageType : uint8_t { wrongVifAlert = 0, noCacheAlert = 1, wholePktAlert = 2 };

std::ostream& operator<<(std::ostream& os, MrtMessageType t);

}  // namespace Orvet

template <>
struct Kiv::EnumInfo<Orvet::MrtMessageType> {
  static const Kiv::TypeRecord& type();
};

namespace Routing::Multicast::Notify {

class MrtMessage : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<MrtMessage> {
   public:
    virtual void onSource() {}
    virtual void onGroup() {}
    virtual void onIntfId() {}
    virtual void onRcvdPkt() {}
  };

  static constexpr Kiv::AttrId kMsgTypeId = Kiv::kFirstAttrId;
  static constexpr Kiv::AttrId kSourceId = kMsgTypeId + 1;
  static constexpr Kiv::AttrId kGroupId = kMsgTypeId + 2;
  static constexpr Kiv::AttrId kIntfIdId = kMsgTypeId + 3;
  static constexpr Kiv::AttrId kRcvdPktId = kMsgTypeId + 4;

  const Kiv::TypeRecord& fwkType() const override;

  Orvet::MrtMessageType msgType() const { return msgType_; }
  const Orvet::IpGenAddr& source() const { return source_; }
  void sourceIs(const Orvet::IpGenAddr& a) {
    Kiv::attrIs(*this, kSourceId, source_, a, &NotifieeConst::onSource);
  }
  const Orvet::IpGenAddr& group() const { return group_; }
  void groupIs(const Orvet::IpGenAddr& a) {
    Kiv::attrIs(*this, kGroupId, group_, a, &NotifieeConst::onGroup);
  }
  Orvet::IntfId intfId() const { return intfId_; }
  void intfIdIs(Orvet::IntfId id) { Kiv::attrIs(*this, kIntfIdId, intfId_, id, &NotifieeConst::onIntfId); }

 protected:
  MrtMessage(const Kiv::Name& name, Orvet::MrtMessageType type) : Kiv::Entity(name), msgType_(type) {}

 private:
  Orvet::MrtMessageType msgType_;
  Orvet::IpGenAddr source_;
  Orvet::IpGenAddr group_;
  Orvet::IntfId intfId_;
};

class NoCacheMessage : public MrtMessage {
 public:
  static Kiv::Ptr<NoCacheMessage> NoCacheMessageIs(const Kiv::Name& name) { return new NoCacheMessage(name); }
  const Kiv::TypeRecord& fwkType() const override;

 private:
  explicit NoCacheMessage(const Kiv::Name& name) : MrtMessage(name, Orvet::MrtMessageType::noCacheAlert) {}
};

class WrongVifMessage : public MrtMessage {
 public:
  static Kiv::Ptr<WrongVifMessage> WrongVifMessageIs(const Kiv::Name& name) {
    return new WrongVifMessage(name);
  }
  const Kiv::TypeRecord& fwkType() const override;

 private:
  explicit WrongVifMessage(const Kiv::Name& name) : MrtMessage(name, Orvet::MrtMessageType::wrongVifAlert) {}
};

class WholePktMessage : public MrtMessage {
 public:
  static Kiv::Ptr<WholePktMessage> WholePktMessageIs(const Kiv::Name& name) {
    return new WholePktMessage(name);
  }
  const Kiv::TypeRecord& fwkType() const override;

  // The packet that the kernel copied, its IPv4 header first.
  const Kiv::Ptr<Orvet::Pkt>& rcvdPkt() const { return rcvdPkt_; }
  // Notifies on every packet: each one is a new event even if the buffer is
  // reused.
  void rcvdPktIs(Kiv::Ptr<Orvet::Pkt> pkt);

 private:
  explicit WholePktMessage(const Kiv::Name& name) : MrtMessage(name, Orvet::MrtMessageType::wholePktAlert) {}
  Kiv::Ptr<Orvet::Pkt> rcvdPkt_;
};

class MrtMessageCounter : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstOf<MrtMessageCounter> {
   public:
    virtual void onReceived() {}
    virtual void onInvalid() {}
  };
  static constexpr Kiv::AttrId kReceivedId = Kiv::kFirstAttrId;
  static constexpr Kiv::AttrId kInvalidId = kReceivedId + 1;

  static Kiv::Ptr<MrtMessageCounter> MrtMessageCounterIs(const Kiv::Name& name) {
    return new MrtMessageCounter(name);
  }
  const Kiv::TypeRecord& fwkType() const override;

  uint32_t received() const { return received_; }
  void receivedIs(uint32_t v) { Kiv::attrIs(*this, kReceivedId, received_, v, &NotifieeConst::onReceived); }
  void receivedInc(uint32_t n) { Kiv::attrInc(*this, kReceivedId, received_, n, &NotifieeConst::onReceived); }
  uint32_t invalid() const { return invalid_; }
  void invalidIs(uint32_t v) { Kiv::attrIs(*this, kInvalidId, invalid_, v, &NotifieeConst::onInvalid); }
  void invalidInc(uint32_t n) { Kiv::attrInc(*this, kInvalidId, invalid_, n, &NotifieeConst::onInvalid); }

 private:
  explicit MrtMessageCounter(const Kiv::Name& name) : Kiv::Entity(name) {}
  uint32_t received_ = 0;
  uint32_t invalid_ = 0;
};

}  // namespace Routing::Multicast::Notify
