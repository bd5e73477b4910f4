// The two ends of a replicated entity tree on one connection.
//
// TreePublisher (the writer) gives every entity of the tree an adapter on
// the channel, numbered by a handle, and sends the tree whole: a hello, then
// each entity's orphan record, parents before children, then "synced".
// Afterwards the adapters send every change; a child that joins a child
// collection gets its adapter and orphan record, one that leaves loses them.
//
// TreeReplica (the reader) applies what arrives to a local tree of the same
// type through read-only proxies (adapters that refuse local writes). On a
// hello every local adapter enters sync mode 2, which marks every collection
// member; what the writer sends again is unmarked; on "synced" the mode
// leaves 2 and the members still marked are deleted, without being sent
// anywhere. A record is decoded whole before any of it is applied; a
// malformed one throws NboAttrLog::WireError (the connection then drops).
//
// Thread-safety: single-threaded, on the tree's loop.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "mroute/entity/replication/kiv_nbo_attr_log_sa.h"

namespace Kiv::NboAttrLog {

class TreePublisher final : public FlowOutClient {
 public:
  TreePublisher(const Ptr<Entity>& root, const AttrLogType& type, const Ptr<Out>& out, uint64_t incarnation);
  ~TreePublisher();
  TreePublisher(const TreePublisher&) = delete;
  TreePublisher& operator=(const TreePublisher&) = delete;

  // Sends the hello and the whole tree (what does not fit follows as the
  // channel drains).
  void start();
  bool synced() const { return synced_; }
  size_t adapters() const { return adapters_.size(); }

 private:
  AttrId resumeFlowOut(AttrId id) override;
  void attach(Entity& e, const AttrLogType& type, Entity::KivNboAttrLogSa* parent, AttrId attr, const std::string& key);
  void detachTree(Entity* e);
  void onChild(Entity::KivNboAttrLogSa& parent, const AttrLogAttr& a, const std::string& key, bool present);

  Ptr<Entity> root_;
  const AttrLogType& type_;
  Ptr<Out> out_;
  uint64_t incarnation_;
  uint32_t nextHandle_ = 1;
  bool synced_ = false;
  std::map<Entity*, Ptr<Entity::KivNboAttrLogSa>> adapters_;
};

class TreeReplica {
 public:
  TreeReplica(const Ptr<Entity>& root, const AttrLogType& type);
  ~TreeReplica();
  TreeReplica(const TreeReplica&) = delete;
  TreeReplica& operator=(const TreeReplica&) = delete;

  // One record body (the In's record handler).
  void handleRecord(RecordType t, WireReader& in);
  // The connection went: handles are forgotten, local state stays.
  void connectionEnd();
  bool synced() const { return synced_; }
  Entity* root() const { return root_.ptr(); }
  uint64_t incarnation() const { return incarnation_; }
  size_t adapters() const { return local_.size(); }
  // Whether a local write may turn the read-only proxies of the tree into
  // writable entities (they then stop refusing, and stay so); off by default.
  void convertibleIs(bool on) { convertible_ = on; }
  bool converted() const { return converted_; }
  // Told after each attribute or member record was applied (tools).
  std::function<void(const Entity&, const AttrLogAttr&, const std::string* key)> applied;

 private:
  void hello(WireReader& in);
  void orphan(WireReader& in);
  Entity::KivNboAttrLogSa& handle(uint32_t h) const;
  Entity* resolve(std::string_view path) const;
  Entity::KivNboAttrLogSa& adapterOf(Entity& e, const AttrLogType& type);
  void dropTree(Entity* gone);
  void syncModeIs(uint8_t mode);

  Ptr<Entity> root_;
  const AttrLogType& type_;
  std::map<uint32_t, Ptr<Entity::KivNboAttrLogSa>> handles_;
  std::map<Entity*, Ptr<Entity::KivNboAttrLogSa>> local_;
  uint64_t incarnation_ = 0;
  bool synced_ = false;
  bool convertible_ = false;
  bool converted_ = false;
  Resolver resolver_;
};

}  // namespace Kiv::NboAttrLog
