#include "mroute/mfibdir/mfib_entity_manager.h"

#include "mroute/runtime/assert.h"

namespace Brume::Multicast::Fib {

namespace {

// The last element of a mount path: the application, which names the entity.
Kiv::Name lastElement(const std::string& path) {
  const size_t slash = path.rfind('/');
  return Kiv::Name(slash == std::string::npos ? path : path.substr(slash + 1));
}

template <class Table>
void cleanupTable(Table& t) {
  if (t.mounted() && t.front()->mode() == Brume::BrumeType::writer) t.front()->cleanup();
  t.unmount();
}

}  // namespace

Kiv::Ptr<Status> MfibEntityManager::mountStatus(const std::string& path, Brume::BrumeType mode,
                                                const MountInfo& info) {
  MROUTE_ASSERT(info.type == Status::type().name);
  Kiv::Ptr<Status> s = StatusIs(lastElement(path));
  MROUTE_ASSERT(info.entries(s->route().name()) == s->route().capacity());
  MROUTE_ASSERT(info.entries(s->oifIndexIntf().name()) == s->oifIndexIntf().capacity());
  s->mountTables(loop_, path, mode);
  return s;
}

Kiv::Ptr<BitMapper::BrumeStatus> MfibEntityManager::mountBitMapperStatus(const std::string& path,
                                                                         Brume::BrumeType mode) {
  Kiv::Ptr<BitMapper::BrumeStatus> s = BitMapper::BrumeStatusIs(lastElement(path));
  s->mountTables(loop_, path, mode);
  return s;
}

void MfibEntityManager::unmount(Status& status, bool cleanup) {
  if (cleanup) {
    cleanupTable(status.route());
    cleanupTable(status.oifIndexIntf());
  }
  status.unmountTables();
}

void MfibEntityManager::unmount(BitMapper::BrumeStatus& status, bool cleanup) {
  if (cleanup) {
    cleanupTable(status.bitIndexMap());
    cleanupTable(status.waitlistMap());
  }
  status.unmountTables();
}

}  // namespace Brume::Multicast::Fib
