// Scalar attributes of generated entities. Each generated setter is one call:
//   void Config::routingIs(bool v) {
//     Kiv::attrIs<NotifieeConst>(*this, kRoutingId, routing_, v, &NotifieeConst::onRouting);
//   }
// The value is stored and notifiees are told only when it changes.
//
// Thread-safety: on the entity's event loop only.
#pragma once

#include "mroute/entity/kiv/entity.h"

namespace Kiv {

template <class N, class T>
void attrIs(const Entity& e, AttrId id, T& slot, const T& v, void (N::*on)()) {
  if (slot == v) return;
  slot = v;
  e.notify<N>(id, [on](N& n) { (n.*on)(); });
}

// A counter: adds `n` in T's own arithmetic, so unsigned types wrap
// (255 + 1 is 0 for 8 bits), and notifies as attrIs does.
template <class N, class T>
void attrInc(const Entity& e, AttrId id, T& slot, T n, void (N::*on)()) {
  attrIs(e, id, slot, static_cast<T>(slot + n), on);
}

template <class N, class T>
void attrDec(const Entity& e, AttrId id, T& slot, T n, void (N::*on)()) {
  attrIs(e, id, slot, static_cast<T>(slot - n), on);
}

}  // namespace Kiv
