#include "mroute/entity/kiv/entity.h"

#include <algorithm>

#include "mroute/runtime/assert.h"

namespace Kiv {

NotifieeBase::~NotifieeBase() { notifierEntityIs(nullptr); }

void NotifieeBase::isRegisteredNotifieeIs(bool on) {
  if (on == registered_) return;
  MROUTE_ASSERT(!on || notifier_);
  if (notifier_) {
    if (on) {
      notifier_->notifieeList().add(this);
    } else {
      notifier_->notifieeList().remove(this);
    }
  }
  registered_ = on;
}

void NotifieeBase::notifierEntityIs(Entity* e) {
  if (e == notifier_.ptr()) {
    if (e) isRegisteredNotifieeIs(true);
    return;
  }
  // Leave the list before the reference goes: it may be the last one.
  isRegisteredNotifieeIs(false);
  notifier_ = e;
  if (e) isRegisteredNotifieeIs(true);
}

bool NotifieeList::contains(const NotifieeBase* n) const {
  return n && std::find(list_.begin(), list_.end(), n) != list_.end();
}

void NotifieeList::add(NotifieeBase* n) {
  if (contains(n)) return;
  list_.push_back(n);
  ++live_;
}

void NotifieeList::remove(NotifieeBase* n) {
  auto it = std::find(list_.begin(), list_.end(), n);
  if (it == list_.end()) return;
  --live_;
  if (depth_ > 0) {
    *it = nullptr;  // the walk in progress skips it; compacted afterwards
  } else {
    list_.erase(it);
  }
}

NotifieeList::Delivery::~Delivery() {
  l_.attr_ = saved_;
  if (--l_.depth_ == 0 && l_.live_ != l_.list_.size()) {
    std::erase(l_.list_, nullptr);
  }
}

Entity::~Entity() {
  // Notifiees hold references to their notifier, so none can be left.
  MROUTE_ASSERT(notifiees_.empty());
}

void Entity::onZeroReferences() {
  zeroReferencesIs(true);
  delete this;
}

std::string entityPath(const Entity& e) {
  std::string path = e.name().stdString();
  for (const Entity* p = e.parent(); p != nullptr; p = p->parent()) path = p->name().stdString() + "/" + path;
  return path;
}

}  // namespace Kiv
