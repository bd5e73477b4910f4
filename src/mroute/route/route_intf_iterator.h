// The interfaces of one route as a flat list of (interface, role) items, in
// a fixed order: the iif (accept, or accept|noRpf), the notify interface
// (notify), the fastdrop interface (fastdrop), the iifFrr interface (frr),
// then every set oif index in ascending order (forward|notify, 0x05). Stages
// whose interface is null produce nothing.
//
//   RouteIntfIteratorConst it(route, *status);
//   for (it.next(); !it.atEnd(); it.next()) use(it.intf(), it.flags(), it.oifIndex());
//
// RouteIntfIteratorConst resolves oif indexes through the table set's
// oifIndexIntf table and re-reads the route's version in the route table at
// every oif step: a route changed or removed since the copy was taken ends
// the walk (traced), so a walk never mixes two versions of a route.
// CachedMapRouteIntfIteratorConst resolves through a map the caller keeps
// and checks no version. A missing mapping skips the index (traced); a
// mapping to the null interface is a programming error.
//
// Thread-safety: an iterator belongs to one thread; the tables it reads may
// be written by another process at any time (the version check is what
// keeps the walk consistent).
#pragma once

#include <cstdint>

#include "mroute/entity/kiv/hash_map.h"
#include "mroute/route/intf_flags.h"
#include "mroute/route/oif_index.h"
#include "mroute/route/route.h"
#include "mroute/runtime/net/intf_id.h"

namespace Brume::Multicast::Fib {

class Status;

// An application's oif-index table, copied into process memory.
using OifIntfCache = Kiv::HashMap<OifIndex, Orvet::IntfId>;

// The stages and the current item, shared by both iterators.
class RouteIntfIteratorBase {
 public:
  static constexpr uint32_t kOifFlags = 0x05;  // forward | notify, kept as it is

  Orvet::IntfId intf() const { return intf_; }
  IntfFlags flags() const { return flags_; }
  // The oif index of an outgoing interface; OifIndex::null otherwise.
  OifIndex oifIndex() const { return index_; }
  bool atEnd() const { return endReached_; }
  // Some oif index had no interface mapping so far.
  bool missingMapping() const { return missing_; }
  const Route& route() const { return route_; }
  // The trace level of the iterator's lines (missing mappings, mismatches).
  void traceLevelIs(int level) { traceLevel_ = level; }

 protected:
  explicit RouteIntfIteratorBase(const Route& route);

  // Positions on the next special interface; false once they are all done.
  bool nextSpecial();
  // Takes the current oif index and moves the walk on to the next set one.
  OifIndex takeOif();
  void itemIs(Orvet::IntfId intf, uint32_t flags, OifIndex index);
  void endIs() { endReached_ = true; }
  void trace(const char* text, uint64_t a) const;
  void traceMismatch(uint32_t copy, uint32_t table) const;

  Route route_;
  OifIndex currentOif_;
  bool oifsDone_ = false;
  bool missing_ = false;

 private:
  Orvet::IntfId intf_;
  IntfFlags flags_;
  OifIndex index_ = OifIndex::null;
  bool iifVisited_ = false;
  bool notifyVisited_ = false;
  bool fastdropVisited_ = false;
  bool iifFrrVisited_ = false;
  bool endReached_ = false;
  int traceLevel_ = 3;
};

class RouteIntfIteratorConst : public RouteIntfIteratorBase {
 public:
  // REQUIRES: status outlives the iterator.
  RouteIntfIteratorConst(const Route& route, const Status& status) : RouteIntfIteratorBase(route), status_(&status) {}
  void next();

 private:
  const Status* status_;
};

class CachedMapRouteIntfIteratorConst : public RouteIntfIteratorBase {
 public:
  // REQUIRES: cache outlives the iterator.
  CachedMapRouteIntfIteratorConst(const Route& route, const OifIntfCache& cache)
      : RouteIntfIteratorBase(route), cache_(&cache) {}
  void next();

 private:
  const OifIntfCache* cache_;
};

}  // namespace Brume::Multicast::Fib
