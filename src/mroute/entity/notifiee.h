// The typed bases of the generated notifiee classes. For an entity type E the
// generator writes
//   class E::NotifieeConst : public Kiv::NotifieeConstOf<E> { virtual onX()... };
//   class E::Notifiee : public Kiv::NotifieeOf<E, E::NotifieeConst> {};
// so both kinds share the callbacks and differ only in the notifier they hold.
//
// Thread-safety: a notifiee lives on its notifier's event loop.
#pragma once

#include "mroute/entity/kiv/entity.h"

namespace Kiv {

// Reacts to a const entity of type E.
template <class E>
class NotifieeConstOf : public NotifieeBase {
 public:
  Ptr<const E> notifier() const { return static_cast<const E*>(notifierEntity()); }
  // Detaches from the previous notifier; null only detaches.
  void notifierIs(const Ptr<const E>& e) { notifierEntityIs(const_cast<E*>(e.ptr())); }
};

// Reacts to a mutable entity of type E; ConstBase is E::NotifieeConst.
template <class E, class ConstBase>
class NotifieeOf : public ConstBase {
 public:
  Ptr<E> notifier() const { return static_cast<E*>(this->notifierEntity()); }
  void notifierIs(const Ptr<E>& e) { this->notifierEntityIs(e.ptr()); }
};

}  // namespace Kiv
