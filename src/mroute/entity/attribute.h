// Scalar attributes of generated entities. Each generated setter is one call:
//   void Config::routingIs(bool v) {
//     Kiv::attrIs<NotifieeConst>(*this, kRoutingId, routing_, v, &NotifieeConst::onRouting);
//   }
// The value is stored and notifiees are told only when it changes.
//
// Thread-safety: on the entity's event loop only.
#pragma once

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/text_form.h"

namespace Kiv {

template <class N, class T>
void attrIs(const Entity& e, AttrId id, T& slot, const T& v, void (N::*on)()) {
  if (slot == v) return;
  e.writeCheck(id);
  slot = v;
  e.notify<N>(id, [on](N& n) { (n.*on)(); });
}

// A counter: adds `n` in T's own arithmetic, so unsigned types wrap
// (255 + 1 is 0 for 8 bits), notifies once as attrIs does (so not at all
// for n = 0), and returns the new count.
template <class N, class T>
T attrInc(const Entity& e, AttrId id, T& slot, T n, void (N::*on)()) {
  attrIs(e, id, slot, static_cast<T>(slot + n), on);
  return slot;
}

template <class N, class T>
T attrDec(const Entity& e, AttrId id, T& slot, T n, void (N::*on)()) {
  attrIs(e, id, slot, static_cast<T>(slot - n), on);
  return slot;
}

// A constant attribute of a value type, read from its text form
// (`const prefixGroup: Orvet::IpGenPrefix = "224.0.0.0/4"`); the generated
// getter keeps the value in a static of its own.
template <class T>
T constantFromText(const char* text) {
  return TextTraits<T>::read(text);
}

}  // namespace Kiv
