// The attribute-log stream adapter: replicates the attribute changes of one
// entity over one output channel and applies the changes that arrive for it.
// Written once here; each entity type adds a generated KivNboAttrLogSa that
// only forwards its notifiee callbacks (onX() -> onAttr(id), onX(key) ->
// onMember(id, key)) and names its AttrLogType (attr_log_type.h).
//
// An outgoing change, in this order:
//   1. adapter inactive, or the change is being applied from this adapter's
//      own incoming channel: nothing is sent (no echo);
//   2. the adapter serves a read-only proxy: the proxy is converted to a
//      writable entity when its owner allows (convertProxy), otherwise the
//      write is refused with Pavo::NoPermissionException
//      "write-update from readonly proxy: <name>" before anything is stored
//      (the adapter is the entity's write guard);
//   3. the channel has room: the dirty bit (dirty key) is cleared and the
//      record is written;
//   4. no room: the flow-out is made on demand and the dirty bit (dirty key)
//      is set; the channel resumes handleAttrFlowOut when it drains, so each
//      attribute is sent once with its last value, in attribute order.
// Memory under back-pressure: one bit per scalar, one entry per changed key.
//
// Thread-safety: single-threaded, on the entity's loop.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/replication/attr_log_type.h"
#include "mroute/entity/replication/mount_types.h"
#include "mroute/entity/replication/nbo_attr_log.h"

namespace Kiv {

// The pending output of one adapter on its channel.
struct FlowOut {
  std::string path;                   // the entity's identity (its name path)
  std::vector<bool> kivDirtyBitSet0;  // bit n: the n-th scalar; bit 0 unused
  std::map<AttrId, std::map<std::string, bool>> dirtyKeys;
  std::set<AttrId> hasSynced;         // collections sent whole once
  std::vector<AttrId> pendingAbortedTransactions;
  AttrId currentAttr = kNoAttrId;
  bool orphanPending = false;         // the peer has not been told of the entity

  bool hasDirtyAttributes() const;
};

class Entity::KivNboAttrLogSa : public PtrInterface, public NboAttrLog::FlowOutClient, public Entity::WriteGuard {
 public:
  static constexpr uint32_t kActiveBit = 16;  // state bit 4: the adapter reacts
  static constexpr uint8_t kResyncMode = 2;

  KivNboAttrLogSa(Entity& entity, const AttrLogType& type);
  ~KivNboAttrLogSa() override;
  KivNboAttrLogSa(const KivNboAttrLogSa&) = delete;
  KivNboAttrLogSa& operator=(const KivNboAttrLogSa&) = delete;

  // Attaches to the entity and the channel (out may be null: a reader).
  // `handle` numbers the entity on the channel; `parent` is the adapter of
  // the entity whose collection holds this one. Throws
  // Pavo::InvalidInitializeException "entity reactor is already active" when
  // the entity already has an active adapter on this channel.
  void attach(uint32_t notifieeBits, uint32_t handle, const Ptr<NboAttrLog::Out>& out, Entity::KivNboAttrLogSa* parent,
              AttrId attrInParent, std::string keyInParent);
  void detach();
  // Where the entity sits in its parent: the child collection and key.
  void identityIs(AttrId attrInParent, std::string keyInParent) {
    attrInParent_ = attrInParent;
    keyInParent_ = std::move(keyInParent);
  }

  Entity& entity() const { return *entity_; }
  const AttrLogType& logType() const { return type_; }
  uint32_t handle() const { return handle_; }
  const Ptr<NboAttrLog::Out>& out() const { return out_; }
  bool active() const { return stateBits_ & kActiveBit; }
  void hasNotificationActiveIs(bool on);
  bool readOnlyProxy() const { return readOnly_; }
  // A read-only proxy guards its entity against local writes.
  void readOnlyProxyIs(bool on);
  // Asked when a local write meets the read-only proxy: true when the owner
  // of the proxy converted it (and its tree) to writable.
  std::function<bool()> convertProxy;
  void kivDoZombieReactors(bool zombie);
  uint8_t syncMode() const { return syncMode_; }
  const FlowOut* flowOut() const { return flowOut_.get(); }
  // A fresh adapter for the same entity and channel.
  Ptr<Entity::KivNboAttrLogSa> cloneSa();

  // The changes, called by the generated notifiee callbacks.
  void onAttr(AttrId id);
  void onMemberKey(AttrId id, const std::string& key);
  template <class K>
  void onMember(AttrId id, const K& k) {
    if (!active() || handlingFlowIn_ || readOnly_ || !out_) return;
    onMemberKey(id, NboAttrLog::wireBytes(k));
  }

  // The overridable operations, in slot order.
  virtual AttrId handleAttrFlowOut(AttrId id);
  virtual void freeResyncState(FlowOut& flowOut);
  virtual void handleAttrTransaction(AttrId id, int type, uint32_t count);
  virtual void doNotification(AttrId id, const std::string& key);
  virtual void syncModeIs(uint8_t mode);

  // Reads one attribute (or member) record body and applies it through the
  // entity's own setter; nothing is applied when the body is malformed.
  void handleAttrDeserialization(AttrId id, uint32_t options, uint32_t count, NboAttrLog::WireReader& in);
  // Writes the orphan record: type name, identity, every value.
  void doSerializeOrphan();
  // Applies the values section of an orphan record (already decoded).
  static std::vector<std::pair<AttrId, Applier>> readOrphanValues(const AttrLogType& type, NboAttrLog::WireReader& in,
                                                                  std::vector<std::pair<AttrId, std::string>>& keys);
  void applyIncoming(const std::vector<std::pair<AttrId, Applier>>& appliers,
                     const std::vector<std::pair<AttrId, std::string>>& keys);
  // As applyIncoming for a whole orphan: the entity ends with exactly the
  // members sent; the others are deleted, without being sent anywhere.
  void applyOrphan(const std::vector<std::pair<AttrId, Applier>>& appliers,
                   const std::vector<std::pair<AttrId, std::string>>& keys);

  // Called when a child collection gained a member while this adapter
  // writes; the mount attaches the child's adapter.
  std::function<void(Entity::KivNboAttrLogSa&, const AttrLogAttr&, const std::string&, bool present)> childChanged;

 private:
  AttrId resumeFlowOut(AttrId id) override { return handleAttrFlowOut(id); }
  void writeCheck(const Entity& e, AttrId id) override;
  FlowOut& flowOutIs();
  void sendAttr(const AttrLogAttr& a);
  void sendMember(const AttrLogAttr& a, const std::string& key);
  bool kivHandleSerializeColl(const AttrLogAttr& a);
  void sendTransaction(AttrId id, uint8_t marker);
  bool room() const { return out_ && out_->connected() && !out_->blocked(); }
  void refuseReadOnly() const;

  Ptr<Entity> entity_;
  const AttrLogType& type_;
  Ptr<NboAttrLog::Out> out_;
  Entity::KivNboAttrLogSa* parent_ = nullptr;
  AttrId attrInParent_ = kNoAttrId;
  std::string keyInParent_;
  uint32_t handle_ = 0;
  uint32_t notifieeBits_ = 0;
  uint32_t stateBits_ = 0;
  uint8_t syncMode_ = 0;
  bool readOnly_ = false;
  bool handlingFlowIn_ = false;
  std::unique_ptr<FlowOut> flowOut_;
  // The incoming flow: the attribute being resynchronised and whether it is
  // inside a transaction; members marked for deletion per collection.
  AttrId inFlowAttr_ = kNoAttrId;
  bool inFlowTransaction_ = false;
  std::map<AttrId, std::set<std::string>> marked_;

 protected:
  // Attaches (true) or drops (false) the generated notifiee that forwards
  // the entity's callbacks; the generated class owns it.
  virtual void reactorIs(bool on) = 0;
  // What detach does besides the notifiee (also run by the destructor).
  void release();
};

// The generated adapter of E: KivNboAttrLogSa derives from this.
template <class E>
class KivNboAttrLogSaOf : public Entity::KivNboAttrLogSa {
 public:
  explicit KivNboAttrLogSaOf(E& e) : Entity::KivNboAttrLogSa(e, E::KivNboAttrLogSa::logType()) {}
  E& entity() const { return static_cast<E&>(Entity::KivNboAttrLogSa::entity()); }
};

template <class E>
Ptr<Entity::KivNboAttrLogSa> newKivNboAttrLogSa(Entity& e, const AttrLogType&) {
  return new typename E::KivNboAttrLogSa(static_cast<E&>(e));
}

// The adapter of `e` on `out`, attached and active (the entity's
// kivNboAttrLogSaIs).
Ptr<Entity::KivNboAttrLogSa> kivNboAttrLogSaIs(Entity& e, const AttrLogType& type, uint32_t notifieeBits,
                                           uint32_t connectionId, const Ptr<NboAttrLog::Out>& out,
                                           Entity::KivNboAttrLogSa* parent);
// Detaches and forgets the adapter of `e` on `out` (kivNboAttrLogSaDel).
void kivNboAttrLogSaDel(Entity& e, const NboAttrLog::Out* out);
// The adapter of `e` on `out`, or null.
Entity::KivNboAttrLogSa* kivNboAttrLogSa(const Entity& e, const NboAttrLog::Out* out);

}  // namespace Kiv
