#include "mroute/entity/replication/attr_log_tree.h"

#include <vector>

namespace Kiv::NboAttrLog {

namespace {

// Every child of `e` with its collection and key, in attribute order.
template <class F>
void forEachChild(Entity& e, const AttrLogType& type, F&& f) {
  std::vector<std::string> keys;
  for (const AttrLogAttr& a : type.attrs) {
    if (a.kind != AttrLogKind::children) continue;
    keys.clear();
    a.keys(e, keys);
    for (const std::string& k : keys) {
      if (Entity* c = a.child(e, k)) f(*c, a, k);
    }
  }
}

bool within(const Entity* e, const Entity* ancestor) {
  for (; e != nullptr; e = e->parent()) {
    if (e == ancestor) return true;
  }
  return false;
}

}  // namespace

// ---------------------------------------------------------------- writer

TreePublisher::TreePublisher(const Ptr<Entity>& root, const AttrLogType& type, const Ptr<Out>& out,
                             uint64_t incarnation)
    : root_(root), type_(type), out_(out), incarnation_(incarnation) {}

TreePublisher::~TreePublisher() {
  out_->flowOutDel(this);
  for (auto& [e, sa] : adapters_) kivNboAttrLogSaDel(*e, out_.ptr());
}

void TreePublisher::start() {
  out_->record(RecordType::hello, [&](WireWriter& w) {
    w.u32(kWireMagic);
    w.u16(kWireVersion);
    w.u8(Entity::KivNboAttrLogSa::kResyncMode);
    w.u64(incarnation_);
  });
  attach(*root_, type_, nullptr, kNoAttrId, {});
  // References to entities whose orphans came after them go again, now that
  // the reader knows every entity.
  for (auto& [e, sa] : adapters_) {
    std::vector<std::string> keys;
    for (const AttrLogAttr& a : sa->logType().attrs) {
      if (!a.reference) continue;
      if (a.kind == AttrLogKind::scalar) {
        sa->onAttr(a.id);
        continue;
      }
      keys.clear();
      a.keys(*e, keys);
      for (const std::string& k : keys) sa->onMemberKey(a.id, k);
    }
  }
  // "synced" follows the orphans, after whatever of them had to wait.
  out_->flowOutIs(this, kFirstAttrId);
  out_->resumeFlowOuts();
}

void TreePublisher::attach(Entity& e, const AttrLogType& type, Entity::KivNboAttrLogSa* parent, AttrId attr,
                           const std::string& key) {
  Ptr<Entity::KivNboAttrLogSa> sa = kivNboAttrLogSaIs(e, type, 0, nextHandle_++, out_, parent);
  sa->identityIs(attr, key);
  sa->childChanged = [this](Entity::KivNboAttrLogSa& p, const AttrLogAttr& a, const std::string& k, bool present) {
    onChild(p, a, k, present);
  };
  adapters_[&e] = sa;
  sa->doSerializeOrphan();
  forEachChild(e, type, [&](Entity& c, const AttrLogAttr& a, const std::string& k) {
    attach(c, a.childType(), sa.ptr(), a.id, k);
  });
}

void TreePublisher::onChild(Entity::KivNboAttrLogSa& parent, const AttrLogAttr& a, const std::string& key, bool present) {
  Entity* c = a.child(parent.entity(), key);
  if (present && c != nullptr) {
    if (adapters_.count(c) == 0) attach(*c, a.childType(), &parent, a.id, key);
    return;
  }
  // The child left: drop the adapters of every entity no longer in the tree.
  std::vector<Entity*> gone;
  for (auto& [e, sa] : adapters_) {
    if (e != root_.ptr() && !within(e, root_.ptr())) gone.push_back(e);
  }
  for (Entity* e : gone) detachTree(e);
}

void TreePublisher::detachTree(Entity* e) {
  kivNboAttrLogSaDel(*e, out_.ptr());
  adapters_.erase(e);
}

AttrId TreePublisher::resumeFlowOut(AttrId) {
  if (synced_) return 0;
  if (!out_->connected() || out_->blocked()) return kFirstAttrId;
  out_->record(RecordType::synced, [](WireWriter&) {});
  synced_ = true;
  return 0;
}

// ---------------------------------------------------------------- reader

TreeReplica::TreeReplica(const Ptr<Entity>& root, const AttrLogType& type)
    : root_(root), type_(type), resolver_([this](std::string_view path) { return resolve(path); }) {
  adapterOf(*root_, type_);
}

TreeReplica::~TreeReplica() {
  handles_.clear();
  for (auto& [e, sa] : local_) kivNboAttrLogSaDel(*e, nullptr);
}

Entity::KivNboAttrLogSa& TreeReplica::adapterOf(Entity& e, const AttrLogType& type) {
  auto it = local_.find(&e);
  if (it != local_.end()) return *it->second;
  Ptr<Entity::KivNboAttrLogSa> sa = kivNboAttrLogSaIs(e, type, 0, 0, nullptr, nullptr);
  sa->readOnlyProxyIs(!converted_);
  sa->convertProxy = [this] {
    if (!convertible_) return false;
    converted_ = true;
    for (auto& [x, other] : local_) other->readOnlyProxyIs(false);
    return true;
  };
  sa->childChanged = [this](Entity::KivNboAttrLogSa& p, const AttrLogAttr& a, const std::string& k, bool present) {
    if (!present) {
      if (Entity* c = a.child(p.entity(), k)) dropTree(c);
    }
  };
  local_[&e] = sa;
  return *sa;
}

void TreeReplica::dropTree(Entity* gone) {
  for (auto it = handles_.begin(); it != handles_.end();) {
    it = within(&it->second->entity(), gone) ? handles_.erase(it) : std::next(it);
  }
  std::vector<Entity*> drop;
  for (auto& [e, sa] : local_) {
    if (within(e, gone)) drop.push_back(e);
  }
  for (Entity* e : drop) {
    kivNboAttrLogSaDel(*e, nullptr);
    local_.erase(e);
  }
}

void TreeReplica::syncModeIs(uint8_t mode) {
  // Copy: a sweep may drop adapters of children that went.
  std::vector<Ptr<Entity::KivNboAttrLogSa>> all;
  for (auto& [e, sa] : local_) all.push_back(sa);
  for (auto& sa : all) {
    if (sa->active()) sa->syncModeIs(mode);
  }
}

Entity::KivNboAttrLogSa& TreeReplica::handle(uint32_t h) const {
  auto it = handles_.find(h);
  if (it == handles_.end()) throw WireError("unknown entity " + std::to_string(h));
  return *it->second;
}

void TreeReplica::connectionEnd() {
  handles_.clear();
  synced_ = false;
}

Entity* TreeReplica::resolve(std::string_view path) const {
  Entity* e = root_.ptr();
  std::vector<std::string> keys;
  while (!path.empty() && e != nullptr) {
    const size_t slash = path.find('/');
    const std::string_view name = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    auto it = local_.find(e);
    if (it == local_.end()) return nullptr;
    Entity* next = nullptr;
    for (const AttrLogAttr& a : it->second->logType().attrs) {
      if (a.kind != AttrLogKind::children || next != nullptr) continue;
      keys.clear();
      a.keys(*e, keys);
      for (const std::string& k : keys) {
        Entity* c = a.child(*e, k);
        if (c != nullptr && c->name().stdString() == name) next = c;
      }
    }
    e = next;
  }
  return e;
}

void TreeReplica::handleRecord(RecordType t, WireReader& in) {
  RefScope refs(nullptr, &resolver_);
  switch (t) {
    case RecordType::hello:
      hello(in);
      return;
    case RecordType::orphan:
      orphan(in);
      return;
    case RecordType::attr:
    case RecordType::member: {
      Entity::KivNboAttrLogSa& sa = handle(in.u32());
      const AttrId id = in.i32();
      const AttrLogAttr* a = sa.logType().attr(id);
      if (t == RecordType::member && a != nullptr && a->kind == AttrLogKind::children) {
        // A child that leaves takes its subtree's adapters with it.
        WireReader peek = in;
        std::string key;
        a->readMember(peek, key);
        Entity* before = a->child(sa.entity(), key);
        Ptr<Entity::KivNboAttrLogSa> keep(&sa);
        sa.handleAttrDeserialization(id, 0, 1, in);
        if (before != nullptr && a->child(sa.entity(), key) != before) dropTree(before);
        if (applied) applied(sa.entity(), *a, &key);
        return;
      }
      if ((t == RecordType::attr) != (a != nullptr && a->kind == AttrLogKind::scalar)) {
        throw WireError(std::string(recordTypeName(t)) + " record for attribute " + std::to_string(id));
      }
      std::string key;
      if (applied && t == RecordType::member) {
        WireReader peek = in;
        a->readMember(peek, key);
      }
      Ptr<Entity::KivNboAttrLogSa> keep(&sa);
      sa.handleAttrDeserialization(id, 0, 1, in);
      if (applied) applied(sa.entity(), *a, t == RecordType::member ? &key : nullptr);
      return;
    }
    case RecordType::transaction: {
      Entity::KivNboAttrLogSa& sa = handle(in.u32());
      const AttrId id = in.i32();
      const uint8_t marker = in.u8();
      in.end();
      if (marker != 0 && marker != 2) throw WireError("transaction marker " + std::to_string(marker));
      sa.handleAttrTransaction(id, marker, 0);
      return;
    }
    case RecordType::bookmark:
      handle(in.u32());
      in.i32();
      return;  // progress only: the members themselves follow
    case RecordType::synced:
      in.end();
      syncModeIs(0);
      synced_ = true;
      return;
    case RecordType::answer:
      break;
  }
  throw WireError(std::string("unexpected ") + recordTypeName(t) + " record");
}

void TreeReplica::hello(WireReader& in) {
  const uint32_t magic = in.u32();
  const uint16_t version = in.u16();
  const uint8_t mode = in.u8();
  const uint64_t incarnation = in.u64();
  in.end();
  if (magic != kWireMagic) throw WireError("bad magic");
  if (version != kWireVersion) throw WireError("wire version " + std::to_string(version) + " not supported");
  handles_.clear();
  incarnation_ = incarnation;
  synced_ = false;
  syncModeIs(mode);
}

void TreeReplica::orphan(WireReader& in) {
  const uint32_t h = in.u32();
  std::string_view typeName;
  std::string_view identity;
  std::string_view values;
  while (!in.done()) {
    const uint8_t section = in.u8();
    const std::string_view bytes = in.bytes();
    if (section == static_cast<uint8_t>(OrphanSection::typeName)) {
      typeName = bytes;
    } else if (section == static_cast<uint8_t>(OrphanSection::identity)) {
      identity = bytes;
    } else if (section == static_cast<uint8_t>(OrphanSection::values)) {
      values = bytes;
    } else {
      throw WireError("orphan section " + std::to_string(section));
    }
  }
  if (h == 0 || handles_.count(h)) throw WireError("orphan entity " + std::to_string(h) + " already known");
  WireReader id(identity);
  const uint32_t parent = id.u32();
  const AttrId attr = id.i32();
  const std::string key(id.take(id.left()));
  // Find (or make) the entity, then decode its values whole before applying.
  Entity* e = root_.ptr();
  const AttrLogType* type = &type_;
  Entity::KivNboAttrLogSa* parentSa = nullptr;
  if (parent != 0) {
    parentSa = &handle(parent);
    const AttrLogAttr* a = parentSa->logType().attr(attr);
    if (a == nullptr || a->kind != AttrLogKind::children) throw WireError("orphan in attribute " + std::to_string(attr));
    type = &a->childType();
    if (typeName != type->name) throw WireError("orphan of type " + std::string(typeName));
    std::vector<std::pair<AttrId, std::string>> keys;
    WireReader v(values);
    auto appliers = Entity::KivNboAttrLogSa::readOrphanValues(*type, v, keys);
    // The child's member record came first; make it if it did not.
    e = a->child(parentSa->entity(), key);
    if (e == nullptr) {
      std::string body = key;
      body.push_back(1);
      WireReader r(body);
      std::string k;
      parentSa->applyIncoming({{attr, a->readMember(r, k)}}, {{attr, k}});
      e = a->child(parentSa->entity(), key);
      if (e == nullptr) throw WireError("orphan child could not be made");
    }
    Entity::KivNboAttrLogSa& sa = adapterOf(*e, *type);
    handles_[h] = &sa;
    sa.applyOrphan(appliers, keys);
    return;
  }
  if (typeName != type->name) throw WireError("orphan of type " + std::string(typeName));
  std::vector<std::pair<AttrId, std::string>> keys;
  WireReader v(values);
  auto appliers = Entity::KivNboAttrLogSa::readOrphanValues(*type, v, keys);
  Entity::KivNboAttrLogSa& sa = adapterOf(*e, *type);
  handles_[h] = &sa;
  sa.applyOrphan(appliers, keys);
}

}  // namespace Kiv::NboAttrLog
