// Entities whose tables follow their place in the tree (`attach on-parent` in
// a description, e.g. CounterStatus): when the entity gets a parent its
// tables are mounted under its entity path; when it loses it they are
// unmounted. The event loop and the kind of mount come from the process's
// attach context; without one nothing is mounted automatically and the
// owner calls mountTables itself.
//
// Thread-safety: the context is set once by the agent before it builds
// entities, on its event loop's thread.
#pragma once

#include "mroute/entity/kiv/entity.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/brume_type.h"

namespace KivBrume {

struct AttachContext {
  Mroute::Loop::EventLoop* loop = nullptr;
  Brume::BrumeType type = Brume::BrumeType::writer;
};

inline AttachContext& attachContext() {
  static AttachContext context;
  return context;
}

// Null `loop` switches automatic mounting off.
inline void attachContextIs(Mroute::Loop::EventLoop* loop, Brume::BrumeType type) {
  attachContext() = AttachContext{loop, type};
}

template <class E>
void attachOnParent(E& e, void (E::*mount)(Mroute::Loop::EventLoop&, std::string_view, Brume::BrumeType),
                    void (E::*unmount)()) {
  if (e.parent() == nullptr) {
    (e.*unmount)();
    return;
  }
  const AttachContext& c = attachContext();
  if (c.loop != nullptr) (e.*mount)(*c.loop, Kiv::entityPath(e), c.type);
}

}  // namespace KivBrume
