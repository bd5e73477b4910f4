// Kiv::Entity: the base of every entity type. An entity has a name given at
// construction, an optional parent (the entity whose collection owns it), the
// registered type record of its class, and one list of notifiees that are told
// of every attribute change.
//
// Notification (deliver) is synchronous and in list order. A notifiee may
// leave the list, or make others leave, while a notification is being
// delivered: it is skipped from then on and the list is compacted when the
// outermost delivery ends. Notifiees added during a delivery hear from the
// next one.
//
// Thread-safety: an entity and its notifiees belong to one event loop; only
// the reference count may be shared (see ptr.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mroute/entity/kiv/ptr.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/entity/kiv/type_registry.h"

namespace Kiv {

// Attribute ids: a type's own attributes count from 258 in declaration order;
// lower ids belong to the base entity. A negative id is the collection-level
// form of the collection with the positive id.
using AttrId = int32_t;
inline constexpr AttrId kFirstAttrId = 258;
inline constexpr AttrId kNoAttrId = 0;

class Entity;

// What the notifiee list holds; typed notifiees derive from it through
// NotifieeConstOf / NotifieeOf (mroute/entity/notifiee.h).
class NotifieeBase {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;

  bool isRegisteredNotifiee() const { return registered_; }
  // Adds or removes this notifiee from its notifier's list; the notifier
  // stays. REQUIRES: a notifier when `on` is true (asserted).
  void isRegisteredNotifieeIs(bool on);

  // Heard before the attribute's own callback, for every notification this
  // notifiee hears, with the attribute's id (negative: the collection-level
  // form). A notifiee that treats every change alike (a change printer, a
  // dirty mark) overrides this one instead of each onX.
  virtual void onNotification(AttrId) {}

 protected:
  NotifieeBase() = default;
  virtual ~NotifieeBase();  // detaches

  Entity* notifierEntity() const { return notifier_.ptr(); }
  // Detaches from the previous notifier, then attaches to `e` and registers
  // with it; null only detaches. The notifiee holds a reference to its
  // notifier for as long as it is attached.
  void notifierEntityIs(Entity* e);

 private:
  Ptr<Entity> notifier_;
  bool registered_ = false;
};

class NotifieeList {
 public:
  bool empty() const { return live_ == 0; }
  size_t size() const { return live_; }
  bool contains(const NotifieeBase* n) const;
  void add(NotifieeBase* n);
  void remove(NotifieeBase* n);

  // The attribute whose notification is being delivered, kNoAttrId outside
  // deliveries. A notifiee that reacts to several attributes alike reads it.
  AttrId attrInDelivery() const { return attr_; }

  template <class F>
  void deliver(AttrId id, F&& each) {
    Delivery d(*this, id);
    // Index walk: `list_` may grow during the walk; the new members wait.
    for (size_t i = 0, n = list_.size(); i < n; ++i) {
      if (NotifieeBase* p = list_[i]) each(*p);
    }
  }

 private:
  class Delivery {
   public:
    Delivery(NotifieeList& l, AttrId id) : l_(l), saved_(l.attr_) {
      ++l_.depth_;
      l_.attr_ = id;
    }
    ~Delivery();
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

   private:
    NotifieeList& l_;
    AttrId saved_;
  };

  std::vector<NotifieeBase*> list_;  // null marks a member removed mid-delivery
  size_t live_ = 0;
  int depth_ = 0;
  AttrId attr_ = kNoAttrId;
};

class Entity : public PtrInterface {
 public:
  // The attribute-log stream adapter (replication/kiv_nbo_attr_log_sa.h).
  class KivNboAttrLogSa;

  // Asked by every setter once it knows the write changes something, before
  // anything is stored: a read-only proxy refuses (throws) there.
  class WriteGuard {
   public:
    virtual void writeCheck(const Entity& e, AttrId id) = 0;

   protected:
    ~WriteGuard() = default;
  };
  void writeGuardIs(WriteGuard* g) { writeGuard_ = g; }
  WriteGuard* writeGuard() const { return writeGuard_; }
  void writeCheck(AttrId id) const {
    if (writeGuard_ != nullptr) writeGuard_->writeCheck(*this, id);
  }

  const Name& name() const { return name_; }
  // Used only when an entity is rebuilt from a replica.
  void nameIsFromBackup(const Name& name) { name_ = name; }

  Entity* parent() const { return parent_; }
  // Then handleParent(): an entity whose place in the tree matters (its
  // tables are mounted under its path) reacts there.
  void parentIs(Entity* parent) {
    if (parent == parent_) return;
    parent_ = parent;
    handleParent();
  }

  virtual const TypeRecord& fwkType() const = 0;

  bool zeroReferences() const { return zeroReferences_; }
  virtual void zeroReferencesIs(bool z) { zeroReferences_ = z; }

  NotifieeList& notifieeList() const { return notifiees_; }

  // Every notification of every entity goes through here: `each` is called
  // with every notifiee that is an N, as N&, when the list is not empty. A
  // derived entity may hold notifiees of its base type: they hear the base's
  // attributes, and are passed over for the attributes the derived type adds.
  template <class N, class F>
  void notify(AttrId id, F&& each) const {
    if (notifiees_.empty()) return;
    notifiees_.deliver(id, [&](NotifieeBase& n) {
      if (N* typed = dynamic_cast<N*>(&n)) {
        typed->onNotification(id);
        each(*typed);
      }
    });
  }

 protected:
  explicit Entity(const Name& name) : name_(name) {}
  ~Entity() override;
  void onZeroReferences() override;
  virtual void handleParent() {}

 private:
  Name name_;
  Entity* parent_ = nullptr;  // not owned: the parent owns this entity
  bool zeroReferences_ = false;
  WriteGuard* writeGuard_ = nullptr;  // not owned
  mutable NotifieeList notifiees_;
};

// The entity's place in the tree: the names from the root down to it, joined
// by '/' ("config/default/counter").
std::string entityPath(const Entity& e);

}  // namespace Kiv
