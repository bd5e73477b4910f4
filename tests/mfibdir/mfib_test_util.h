// Table sets of several applications in one process, for the directory and
// selection tests: each is a writer-mounted Status under its own path.
#pragma once

#include <string>

#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/route/mfib_status.h"
#include "testing/shm_root_scope.h"

namespace MfibTest {

using Brume::Multicast::Fib::Route;
using Brume::Multicast::Fib::Status;
using Routing::Multicast::Fib::IpGenRouteKey;

inline IpGenRouteKey key(const char* source, const char* group) {
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText(source), Orvet::IpGenPrefix::fromText(group));
}

inline Route route(const IpGenRouteKey& k, uint8_t priority, uint32_t version = 1) {
  Route r(k);
  r.routePriorityIs(Brume::Multicast::Fib::RoutePriority(priority));
  r.versionIs(version);
  return r;
}

inline Kiv::Ptr<Status> writerStatus(Mroute::Loop::EventLoop& loop, const std::string& vrf, const std::string& app) {
  Kiv::Ptr<Status> s = Brume::Multicast::Fib::StatusIs(app);
  s->mountTables(loop, Status::mountPath(Orvet::AddressFamily(1), L3::VrfName(vrf), app), Brume::BrumeType::writer);
  return s;
}

}  // namespace MfibTest
