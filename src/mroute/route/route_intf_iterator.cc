#include "mroute/route/route_intf_iterator.h"

#include <optional>

#include "mroute/route/mfib_status.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/trace.h"

namespace Brume::Multicast::Fib {

namespace {

Mroute::Trace::Facility& iteratorTrace() {
  static Mroute::Trace::Facility& fac = Mroute::Trace::facility("Mroute::RouteIntfIteratorConst");
  return fac;
}

// The table framework's facility: a skipped interface is also its business.
Mroute::Trace::Facility& brumeTrace() {
  static Mroute::Trace::Facility& fac = Mroute::Trace::facility("Mroute::Brume");
  return fac;
}

void emit(int level, const std::string& text) {
  MROUTE_TRACE(iteratorTrace(), level, text);
  MROUTE_TRACE(brumeTrace(), level, text);
}

}  // namespace

RouteIntfIteratorBase::RouteIntfIteratorBase(const Route& route)
    : route_(route), currentOif_(route.nextOif(OifIndex::null)) {
  oifsDone_ = currentOif_.isNull();
}

void RouteIntfIteratorBase::itemIs(Orvet::IntfId intf, uint32_t flags, OifIndex index) {
  intf_ = intf;
  flags_ = IntfFlags(flags);
  index_ = index;
}

bool RouteIntfIteratorBase::nextSpecial() {
  if (!iifVisited_) {
    iifVisited_ = true;
    if (!route_.iif().isNull()) {
      itemIs(route_.iif(), route_.iifFlags().noRpf() ? 0x0A : 0x02, OifIndex::null);
      return true;
    }
  }
  if (!notifyVisited_) {
    notifyVisited_ = true;
    if (!route_.notify().isNull()) {
      itemIs(route_.notify(), 0x04, OifIndex::null);
      return true;
    }
  }
  if (!fastdropVisited_) {
    fastdropVisited_ = true;
    if (!route_.fastdrop().isNull()) {
      itemIs(route_.fastdrop(), 0x10, OifIndex::null);
      return true;
    }
  }
  if (!iifFrrVisited_) {
    iifFrrVisited_ = true;
    if (!route_.iifFrr().isNull()) {
      itemIs(route_.iifFrr(), 0x20, OifIndex::null);
      return true;
    }
  }
  return false;
}

OifIndex RouteIntfIteratorBase::takeOif() {
  const OifIndex taken = currentOif_;
  currentOif_ = route_.nextOif(taken);
  if (currentOif_.isNull()) oifsDone_ = true;
  return taken;
}

void RouteIntfIteratorBase::trace(const char* text, uint64_t a) const {
  emit(traceLevel_, text + std::to_string(a));
}

void RouteIntfIteratorBase::traceMismatch(uint32_t copy, uint32_t table) const {
  emit(traceLevel_, "next(): route version mismatch " + std::to_string(copy) + "!=" + std::to_string(table));
}

void RouteIntfIteratorConst::next() {
  if (atEnd()) return;
  if (nextSpecial()) return;
  while (!oifsDone_) {
    // Both lookups answer "none" when they meet corruption (the table's
    // handler has run by then).
    const std::optional<OifIndexIntf> mapping = status_->oifIndexIntf().find(currentOif_);
    const std::optional<Route> current = status_->route().find(route_.key());
    const OifIndex index = takeOif();
    // A removed route reads as version 0 and ends the walk like a changed one.
    const uint32_t tableVersion = current ? current->version() : 0;
    if (!current || tableVersion != route_.version()) {
      traceMismatch(route_.version(), tableVersion);
      endIs();
      return;
    }
    if (mapping) {
      const Orvet::IntfId intfId = mapping->intf();
      MROUTE_ASSERT(intfId != Orvet::IntfId());
      itemIs(intfId, kOifFlags, index);
      return;
    }
    trace("RouteIntfIterator: missing intf mapping index ", index.value());
    missing_ = true;
  }
  endIs();
}

void CachedMapRouteIntfIteratorConst::next() {
  if (atEnd()) return;
  if (nextSpecial()) return;
  while (!oifsDone_) {
    const OifIndex index = takeOif();
    if (const Orvet::IntfId* mapped = cache_->lookup(index)) {
      const Orvet::IntfId intfId = *mapped;
      MROUTE_ASSERT(intfId != Orvet::IntfId());
      itemIs(intfId, kOifFlags, index);
      return;
    }
    trace("CachedMapRouteIntfIterator: missing intf mapping from cache: ", index.value());
    missing_ = true;
  }
  endIs();
}

}  // namespace Brume::Multicast::Fib
