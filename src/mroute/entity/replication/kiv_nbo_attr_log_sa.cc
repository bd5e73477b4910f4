#include "mroute/entity/replication/kiv_nbo_attr_log_sa.h"

#include <map>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Kiv {

using NboAttrLog::RecordType;
using NboAttrLog::WireWriter;

namespace {

// The live adapters of this thread's loop, by entity and channel.
std::map<std::pair<const Entity*, const NboAttrLog::Out*>, Ptr<Entity::KivNboAttrLogSa>>& adapters() {
  thread_local std::map<std::pair<const Entity*, const NboAttrLog::Out*>, Ptr<Entity::KivNboAttrLogSa>> m;
  return m;
}

// Marks the adapter as applying its own incoming change while alive.
class FlowIn {
 public:
  explicit FlowIn(bool& flag) : flag_(flag), saved_(flag) { flag_ = true; }
  ~FlowIn() { flag_ = saved_; }
  FlowIn(const FlowIn&) = delete;
  FlowIn& operator=(const FlowIn&) = delete;

 private:
  bool& flag_;
  bool saved_;
};

}  // namespace

AttrLogType::AttrLogType(const char* n, std::vector<AttrLogAttr> a,
                         Ptr<Entity::KivNboAttrLogSa> (*make)(Entity&, const AttrLogType&))
    : name(n), attrs(std::move(a)), newSa(make) {
  for (size_t i = 0; i < attrs.size(); ++i) {
    const AttrId id = attrs[i].id;
    MROUTE_ASSERT(id >= kFirstAttrId);
    const size_t at = static_cast<size_t>(id - kFirstAttrId);
    if (index_.size() <= at) {
      index_.resize(at + 1, -1);
      bits_.resize(at + 1, 0);
    }
    index_[at] = static_cast<int>(i);
    if (attrs[i].kind == AttrLogKind::scalar) bits_[at] = ++scalars;
  }
}

const AttrLogAttr* AttrLogType::attr(AttrId id) const {
  if (id < kFirstAttrId || size_t(id - kFirstAttrId) >= index_.size()) return nullptr;
  const int i = index_[id - kFirstAttrId];
  return i < 0 ? nullptr : &attrs[i];
}

bool FlowOut::hasDirtyAttributes() const {
  if (orphanPending || !pendingAbortedTransactions.empty()) return true;
  for (bool b : kivDirtyBitSet0) {
    if (b) return true;
  }
  for (const auto& [id, keys] : dirtyKeys) {
    if (!keys.empty()) return true;
  }
  return false;
}

Entity::KivNboAttrLogSa::KivNboAttrLogSa(Entity& entity, const AttrLogType& type) : entity_(&entity), type_(type) {}

Entity::KivNboAttrLogSa::~KivNboAttrLogSa() { release(); }

void Entity::KivNboAttrLogSa::attach(uint32_t notifieeBits, uint32_t handle, const Ptr<NboAttrLog::Out>& out,
                                 Entity::KivNboAttrLogSa* parent, AttrId attrInParent, std::string keyInParent) {
  notifieeBits_ = notifieeBits;
  handle_ = handle;
  out_ = out;
  parent_ = parent;
  attrInParent_ = attrInParent;
  keyInParent_ = std::move(keyInParent);
  reactorIs(true);
  stateBits_ |= kActiveBit;
  // A table mounted or unmounted later tells no notifiee: the adapter
  // watches the table itself and sends the new path like any other change.
  if (out_) {
    for (const AttrLogAttr& a : type_.attrs) {
      if (a.watchMount) a.watchMount(*entity_, this, [this, id = a.id] { onAttr(id); });
    }
  }
}

void Entity::KivNboAttrLogSa::detach() {
  reactorIs(false);
  release();
}

void Entity::KivNboAttrLogSa::release() {
  stateBits_ &= ~kActiveBit;
  if (entity_->writeGuard() == this) entity_->writeGuardIs(nullptr);
  for (const AttrLogAttr& a : type_.attrs) {
    if (a.watchMount) a.watchMount(*entity_, this, nullptr);
  }
  if (out_) out_->flowOutDel(this);
  flowOut_.reset();
}

void Entity::KivNboAttrLogSa::hasNotificationActiveIs(bool on) {
  if (on) {
    stateBits_ |= kActiveBit;
  } else {
    stateBits_ &= ~kActiveBit;
  }
}

void Entity::KivNboAttrLogSa::kivDoZombieReactors(bool zombie) {
  // A dying entity's reactors do no further work.
  if (zombie) detach();
}

Ptr<Entity::KivNboAttrLogSa> Entity::KivNboAttrLogSa::cloneSa() {
  Ptr<Entity::KivNboAttrLogSa> sa = type_.newSa(*entity_, type_);
  sa->attach(notifieeBits_, handle_, out_, parent_, attrInParent_, keyInParent_);
  sa->convertProxy = convertProxy;
  sa->readOnlyProxyIs(readOnly_);
  return sa;
}

void Entity::KivNboAttrLogSa::readOnlyProxyIs(bool on) {
  readOnly_ = on;
  if (on) {
    entity_->writeGuardIs(this);
  } else if (entity_->writeGuard() == this) {
    entity_->writeGuardIs(nullptr);
  }
}

void Entity::KivNboAttrLogSa::writeCheck(const Entity&, AttrId) {
  // The adapter's own incoming changes, and those of a stopped adapter, pass.
  if (!readOnly_ || !active() || handlingFlowIn_) return;
  if (convertProxy && convertProxy() && !readOnly_) return;
  refuseReadOnly();
}

void Entity::KivNboAttrLogSa::refuseReadOnly() const {
  throw Pavo::NoPermissionException("write-update from readonly proxy: " + entity_->name().stdString());
}

FlowOut& Entity::KivNboAttrLogSa::flowOutIs() {
  if (!flowOut_) {
    flowOut_ = std::make_unique<FlowOut>();
    flowOut_->path = entity_->name().stdString();
    for (Entity* p = entity_->parent(); p != nullptr; p = p->parent()) {
      flowOut_->path = p->name().stdString() + "/" + flowOut_->path;
    }
    flowOut_->kivDirtyBitSet0.assign(type_.scalars + 1, false);
  }
  // From the base entity's part on: a pending orphan goes before any value.
  if (out_) out_->flowOutIs(this, kNoAttrId + 1);
  return *flowOut_;
}

void Entity::KivNboAttrLogSa::onAttr(AttrId id) {
  // A proxy has nothing to send: its local writes were refused or converted.
  if (!active() || handlingFlowIn_ || readOnly_ || !out_) return;
  const AttrLogAttr* a = type_.attr(id);
  if (a == nullptr || a->kind != AttrLogKind::scalar) return;
  if (room() && !(flowOut_ && flowOut_->orphanPending)) {
    if (flowOut_) flowOut_->kivDirtyBitSet0[type_.dirtyBit(id)] = false;
    sendAttr(*a);
  } else {
    flowOutIs().kivDirtyBitSet0[type_.dirtyBit(id)] = true;
  }
}

void Entity::KivNboAttrLogSa::onMemberKey(AttrId id, const std::string& key) {
  // A proxy has nothing to send: its local writes were refused or converted.
  if (!active() || handlingFlowIn_ || readOnly_ || !out_) return;
  const AttrLogAttr* a = type_.attr(id);
  if (a == nullptr || a->kind == AttrLogKind::skipped || a->kind == AttrLogKind::scalar) return;
  if (room() && !(flowOut_ && flowOut_->orphanPending)) {
    if (flowOut_) {
      auto it = flowOut_->dirtyKeys.find(id);
      if (it != flowOut_->dirtyKeys.end()) it->second.erase(key);
    }
    sendMember(*a, key);
  } else {
    flowOutIs().dirtyKeys[id][key] = true;
  }
  if (a->kind == AttrLogKind::children && childChanged) {
    childChanged(*this, *a, key, a->child(*entity_, key) != nullptr);
  }
}

void Entity::KivNboAttrLogSa::sendAttr(const AttrLogAttr& a) {
  NboAttrLog::RefScope refs(a.reference ? NboAttrLog::treeRoot(*entity_) : nullptr, nullptr);
  out_->record(RecordType::attr, [&](WireWriter& w) {
    w.u32(handle_);
    w.i32(a.id);
    a.writeValue(*entity_, w);
  });
}

void Entity::KivNboAttrLogSa::sendMember(const AttrLogAttr& a, const std::string& key) {
  NboAttrLog::RefScope refs(a.reference ? NboAttrLog::treeRoot(*entity_) : nullptr, nullptr);
  out_->record(RecordType::member, [&](WireWriter& w) {
    w.u32(handle_);
    w.i32(a.id);
    w.buffer().append(key);
    const size_t presentAt = w.size();
    w.u8(1);
    if (!a.writeMember(*entity_, key, w)) w.buffer()[presentAt] = 0;  // absent: the deletion
  });
}

void Entity::KivNboAttrLogSa::sendTransaction(AttrId id, uint8_t marker) {
  out_->record(RecordType::transaction, [&](WireWriter& w) {
    w.u32(handle_);
    w.i32(id);
    w.u8(marker);
  });
}

bool Entity::KivNboAttrLogSa::kivHandleSerializeColl(const AttrLogAttr& a) {
  auto it = flowOut_->dirtyKeys.find(a.id);
  if (it == flowOut_->dirtyKeys.end()) return true;
  auto& keys = it->second;
  // Resume at the bookmark: the first dirty key at or after it.
  const std::string* mark = out_->bookmark(handle_, a.id);
  auto k = mark ? keys.lower_bound(*mark) : keys.begin();
  while (k != keys.end()) {
    if (!room()) {
      out_->bookmarkIs(handle_, a.id, k->first);
      return false;
    }
    const std::string key = k->first;
    k = keys.erase(k);
    sendMember(a, key);
    if (!out_->shouldContinue() && k != keys.end()) {
      out_->bookmarkIs(handle_, a.id, k->first);
      if (room()) {
        out_->record(RecordType::bookmark, [&](WireWriter& w) {
          w.u32(handle_);
          w.i32(a.id);
          w.buffer().append(key);
        });
      }
      return false;
    }
  }
  freeResyncState(*flowOut_);
  flowOut_->hasSynced.insert(a.id);
  return true;
}

AttrId Entity::KivNboAttrLogSa::handleAttrFlowOut(AttrId id) {
  if (!flowOut_ || !out_ || !active()) return 0;
  FlowOut& fo = *flowOut_;
  while (!fo.pendingAbortedTransactions.empty() && room()) {
    sendTransaction(fo.pendingAbortedTransactions.back(), 2);
    fo.pendingAbortedTransactions.pop_back();
  }
  if (id < kFirstAttrId) {
    // The base entity's part: the orphan record the peer still waits for.
    if (fo.orphanPending) {
      if (!room()) return id;
      doSerializeOrphan();
      if (!flowOut_) return 0;
    }
    if (!out_->shouldContinue()) return kFirstAttrId;
    id = kFirstAttrId;
  }
  for (const AttrLogAttr& a : type_.attrs) {
    if (a.id < id || a.kind == AttrLogKind::skipped) continue;
    fo.currentAttr = a.id;
    if (a.kind == AttrLogKind::scalar) {
      const size_t bit = type_.dirtyBit(a.id);
      if (fo.kivDirtyBitSet0[bit]) {
        if (!room()) return a.id;
        fo.kivDirtyBitSet0[bit] = false;
        sendAttr(a);
      }
    } else if (!kivHandleSerializeColl(a)) {
      return a.id;
    }
    if (out_->blocked()) return a.id + 1;
    if (!out_->shouldContinue()) return a.id + 1;
  }
  fo.currentAttr = kNoAttrId;
  if (!fo.hasDirtyAttributes()) return 0;
  for (const auto& [cid, keys] : fo.dirtyKeys) {
    if (!keys.empty()) return cid;
  }
  return kFirstAttrId;
}

void Entity::KivNboAttrLogSa::freeResyncState(FlowOut& flowOut) {
  const AttrLogAttr* a = type_.attr(flowOut.currentAttr);
  if (a != nullptr && (a->kind == AttrLogKind::collection || a->kind == AttrLogKind::children) && out_) {
    out_->bookmarkDel(handle_, a->id);
  }
}

void Entity::KivNboAttrLogSa::handleAttrTransaction(AttrId id, int type, uint32_t) {
  if (inFlowAttr_ != kNoAttrId && type == 2 && inFlowAttr_ == id) inFlowTransaction_ = true;
  if (inFlowAttr_ == kNoAttrId && active() && type == 0) inFlowAttr_ = id;
  const AttrLogAttr* a = type_.attr(id);
  if (a == nullptr || (a->kind != AttrLogKind::collection && a->kind != AttrLogKind::children)) return;
  if (type == 0) {
    std::vector<std::string> keys;
    a->keys(*entity_, keys);
    marked_[id] = std::set<std::string>(keys.begin(), keys.end());
  } else if (type == 2) {
    auto it = marked_.find(id);
    if (it == marked_.end()) return;
    const std::set<std::string> gone = std::move(it->second);
    marked_.erase(it);
    // The peer did not send these again: delete, without sending it back.
    FlowIn in(handlingFlowIn_);
    for (const std::string& key : gone) {
      if (a->kind == AttrLogKind::children && childChanged) childChanged(*this, *a, key, false);
      a->delMember(*entity_, key);
    }
    if (inFlowAttr_ == id) {
      inFlowAttr_ = kNoAttrId;
      inFlowTransaction_ = false;
    }
  }
}

void Entity::KivNboAttrLogSa::doNotification(AttrId id, const std::string& key) {
  const AttrLogAttr* a = type_.attr(id < 0 ? -id : id);
  if (a == nullptr) return;
  if (a->kind == AttrLogKind::scalar && id > 0) {
    onAttr(id);
  } else if (a->kind == AttrLogKind::collection || a->kind == AttrLogKind::children) {
    onMemberKey(a->id, key);
  }
}

void Entity::KivNboAttrLogSa::syncModeIs(uint8_t mode) {
  syncMode_ = mode;
  if (NboAttrLog::kWireVersion >= 2 || !active()) return;
  for (const AttrLogAttr& a : type_.attrs) {
    if (a.kind == AttrLogKind::collection || a.kind == AttrLogKind::children) {
      handleAttrTransaction(a.id, mode == kResyncMode ? 0 : 2, 0);
    }
  }
}

void Entity::KivNboAttrLogSa::handleAttrDeserialization(AttrId id, uint32_t, uint32_t, NboAttrLog::WireReader& in) {
  const AttrLogAttr* a = type_.attr(id);
  if (a == nullptr || a->kind == AttrLogKind::skipped) {
    throw NboAttrLog::WireError("no logged attribute " + std::to_string(id) + " in " + type_.name);
  }
  if (a->kind == AttrLogKind::scalar) {
    // The common record: one value, no key to unmark, nothing to gather.
    const Applier apply = a->readValue(in);
    in.end();
    FlowIn flowIn(handlingFlowIn_);
    apply(*entity_);
    return;
  }
  std::vector<std::pair<AttrId, Applier>> appliers;
  std::vector<std::pair<AttrId, std::string>> keys;
  {
    std::string key;
    appliers.emplace_back(id, a->readMember(in, key));
    keys.emplace_back(id, std::move(key));
  }
  in.end();
  applyIncoming(appliers, keys);
}

void Entity::KivNboAttrLogSa::applyIncoming(const std::vector<std::pair<AttrId, Applier>>& appliers,
                                        const std::vector<std::pair<AttrId, std::string>>& keys) {
  for (const auto& [id, key] : keys) {
    auto it = marked_.find(id);
    if (it != marked_.end()) it->second.erase(key);  // re-sent: kept by the sweep
  }
  FlowIn flowIn(handlingFlowIn_);
  for (const auto& [id, apply] : appliers) apply(*entity_);
}

void Entity::KivNboAttrLogSa::applyOrphan(const std::vector<std::pair<AttrId, Applier>>& appliers,
                                      const std::vector<std::pair<AttrId, std::string>>& keys) {
  applyIncoming(appliers, keys);
  std::map<AttrId, std::set<std::string>> sent;
  for (const auto& [id, key] : keys) sent[id].insert(key);
  std::vector<std::string> local;
  FlowIn in(handlingFlowIn_);
  for (const AttrLogAttr& a : type_.attrs) {
    if (a.kind != AttrLogKind::collection && a.kind != AttrLogKind::children) continue;
    local.clear();
    a.keys(*entity_, local);
    const std::set<std::string>& keep = sent[a.id];
    for (const std::string& key : local) {
      if (keep.count(key)) continue;
      if (a.kind == AttrLogKind::children && childChanged) childChanged(*this, a, key, false);
      a.delMember(*entity_, key);
    }
  }
}

void Entity::KivNboAttrLogSa::doSerializeOrphan() {
  if (!room()) {
    flowOutIs().orphanPending = true;
    return;
  }
  NboAttrLog::RefScope refs(NboAttrLog::treeRoot(*entity_), nullptr);
  out_->record(RecordType::orphan, [&](WireWriter& w) {
    w.u32(handle_);
    w.u8(static_cast<uint8_t>(NboAttrLog::OrphanSection::typeName));
    w.bytes(type_.name);
    std::string identity;
    WireWriter iw(identity);
    iw.u32(parent_ ? parent_->handle_ : 0);
    iw.i32(attrInParent_);
    identity += keyInParent_;
    w.u8(static_cast<uint8_t>(NboAttrLog::OrphanSection::identity));
    w.bytes(identity);
    std::string values;
    WireWriter vw(values);
    uint32_t count = 0;
    vw.u32(0);
    std::vector<std::string> keys;
    for (const AttrLogAttr& a : type_.attrs) {
      if (a.kind == AttrLogKind::skipped) continue;
      ++count;
      vw.i32(a.id);
      if (a.kind == AttrLogKind::scalar) {
        a.writeValue(*entity_, vw);
        continue;
      }
      keys.clear();
      a.keys(*entity_, keys);
      vw.u32(static_cast<uint32_t>(keys.size()));
      for (const std::string& k : keys) {
        values += k;
        vw.u8(1);
        a.writeMember(*entity_, k, vw);
      }
    }
    for (int i = 0; i < 4; ++i) values[i] = static_cast<char>(count >> (24 - 8 * i));
    w.u8(static_cast<uint8_t>(NboAttrLog::OrphanSection::values));
    w.bytes(values);
  });
  // Everything went out whole: nothing is dirty any more.
  if (flowOut_) {
    flowOut_->orphanPending = false;
    flowOut_->kivDirtyBitSet0.assign(type_.scalars + 1, false);
    flowOut_->dirtyKeys.clear();
  }
}

std::vector<std::pair<AttrId, Applier>> Entity::KivNboAttrLogSa::readOrphanValues(
    const AttrLogType& type, NboAttrLog::WireReader& in, std::vector<std::pair<AttrId, std::string>>& keys) {
  std::vector<std::pair<AttrId, Applier>> appliers;
  const uint32_t count = in.u32();
  for (uint32_t i = 0; i < count; ++i) {
    const AttrId id = in.i32();
    const AttrLogAttr* a = type.attr(id);
    if (a == nullptr || a->kind == AttrLogKind::skipped) {
      throw NboAttrLog::WireError("no logged attribute " + std::to_string(id) + " in " + type.name);
    }
    if (a->kind == AttrLogKind::scalar) {
      appliers.emplace_back(id, a->readValue(in));
      continue;
    }
    const uint32_t members = in.u32();
    if (members > in.left()) throw NboAttrLog::WireError("member count " + std::to_string(members) + " too large");
    for (uint32_t m = 0; m < members; ++m) {
      // Each member as in a member record: key, present, value.
      std::string key;
      appliers.emplace_back(id, a->readMember(in, key));
      keys.emplace_back(id, std::move(key));
    }
  }
  in.end();
  return appliers;
}

Ptr<Entity::KivNboAttrLogSa> kivNboAttrLogSaIs(Entity& e, const AttrLogType& type, uint32_t notifieeBits,
                                           uint32_t connectionId, const Ptr<NboAttrLog::Out>& out,
                                           Entity::KivNboAttrLogSa* parent) {
  auto& m = adapters();
  const auto key = std::make_pair(static_cast<const Entity*>(&e), static_cast<const NboAttrLog::Out*>(out.ptr()));
  if (auto it = m.find(key); it != m.end() && it->second->active()) {
    throw Pavo::InvalidInitializeException("entity reactor is already active");
  }
  Ptr<Entity::KivNboAttrLogSa> sa = type.newSa(e, type);
  sa->attach(notifieeBits, connectionId, out, parent, kNoAttrId, {});
  m[key] = sa;
  return sa;
}

void kivNboAttrLogSaDel(Entity& e, const NboAttrLog::Out* out) {
  auto& m = adapters();
  auto it = m.find({&e, out});
  if (it == m.end()) return;
  Ptr<Entity::KivNboAttrLogSa> sa = it->second;
  m.erase(it);
  sa->detach();
}

Entity::KivNboAttrLogSa* kivNboAttrLogSa(const Entity& e, const NboAttrLog::Out* out) {
  auto& m = adapters();
  auto it = m.find({&e, out});
  return it == m.end() ? nullptr : it->second.ptr();
}

}  // namespace Kiv
