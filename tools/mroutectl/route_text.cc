#include "route_text.h"

#include <bit>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "mroute/runtime/error.h"

namespace Mroutectl {

using Brume::Multicast::Fib::OifIndex;
using Brume::Multicast::Fib::Route;

namespace {

std::vector<unsigned> walkedOifs(const Route& route) {
  std::vector<unsigned> out;
  for (OifIndex i : route.oifIteratorConst()) out.push_back(i.value());
  return out;
}

unsigned bitmapCount(const Route& route) {
  unsigned n = 0;
  for (uint8_t w = 0; w < Brume::Multicast::Fib::OifBitmap::kWords; ++w) {
    n += static_cast<unsigned>(std::popcount(route.oifBitmap(w)));
  }
  return n;
}

template <typename Flags>
std::vector<std::string> setFlags(Flags flags) {
  std::vector<std::string> out;
  for (size_t i = 0; i < Flags::kFlagNames.size(); ++i) {
    if ((flags.value() >> i) & 1u) out.emplace_back(Flags::kFlagNames[i]);
  }
  return out;
}

}  // namespace

std::vector<std::string> flagNames(const Brume::Multicast::Fib::Route& route) {
  std::vector<std::string> flags = setFlags(route.routeFlags());
  for (const std::string& f : setFlags(route.iifFlags())) flags.push_back(f);
  return flags;
}

std::string join(const std::vector<std::string>& items, const char* sep) {
  std::string out;
  for (const std::string& s : items) out += (out.empty() ? "" : sep) + s;
  return out;
}

std::string keyText(const Routing::Multicast::Fib::IpGenRouteKey& key) {
  try {
    return key.pretty();
  } catch (const std::exception&) {
    // Assertions throw in mroutectl (see main.cc): an undefined kind lands here.
    std::ostringstream os;
    os << key;
    return os.str();
  }
}

std::string oifText(const Route& route) {
  const std::vector<unsigned> oifs = walkedOifs(route);
  std::string out;
  for (unsigned i : oifs) out += (out.empty() ? "" : ",") + std::to_string(i);
  if (out.empty()) out = "none";
  const unsigned total = bitmapCount(route);
  if (total > oifs.size()) out += " (+" + std::to_string(total - oifs.size()) + " beyond maxOifIndex)";
  return out;
}

void requireInRange(const Route& route) {
  (void)OifIndex(route.maxOifIndex().value());
  for (const Orvet::IpGenPrefix* p : {&route.key().s(), &route.key().g()}) {
    if (p->length() > p->maxLength()) {
      throw Kiv::RangeException("key prefix length " + std::to_string(p->length()) + " beyond its family's " +
                                std::to_string(p->maxLength()));
    }
  }
}

std::string routeLine(const Route& route) {
  requireInRange(route);
  std::ostringstream os;
  os << keyText(route.key()) << "  iif " << route.iif();
  if (!route.iifFrr().isNull()) os << "  iifFrr " << route.iifFrr();
  if (!route.notify().isNull()) os << "  notify " << route.notify();
  if (!route.fastdrop().isNull()) os << "  fastdrop " << route.fastdrop();
  os << "  oifs " << oifText(route);
  std::vector<std::string> flags = flagNames(route);
  if (route.notifyProgrammable()) flags.emplace_back("notifyProgrammable");
  os << "  flags " << (flags.empty() ? "none" : join(flags, ","));
  if (route.rpaId().value() != 0) os << "  rpa " << route.rpaId().value();
  os << "  prio " << unsigned{route.routePriority().value()} << "  ver " << route.version();
  return os.str();
}

std::string routeDiff(const Route& before, const Route& after) {
  requireInRange(before);
  requireInRange(after);
  std::vector<std::string> parts;
  std::string oifs;
  for (unsigned i = 0; i < OifIndex::kPositions; ++i) {
    const OifIndex o(static_cast<uint16_t>(i));
    if (before.oif(o) != after.oif(o))
      oifs += (oifs.empty() ? "" : " ") + std::string(after.oif(o) ? "+" : "-") + std::to_string(i);
  }
  if (!oifs.empty()) parts.push_back("oif " + oifs);
  if (before.iif() != after.iif()) {
    std::ostringstream os;
    os << "iif " << before.iif() << " -> " << after.iif();
    parts.push_back(os.str());
  }
  std::string flags;
  const uint32_t was = before.routeFlags().value(), now = after.routeFlags().value();
  for (size_t i = 0; i < Route::RouteFlags::kFlagNames.size(); ++i) {
    if (((was ^ now) >> i) & 1u) {
      flags += (flags.empty() ? "" : " ") + std::string((now >> i) & 1u ? "+" : "-") +
               std::string(Route::RouteFlags::kFlagNames[i]);
    }
  }
  if (!flags.empty()) parts.push_back("flags " + flags);
  if (before.maxOifIndex() != after.maxOifIndex()) {
    parts.push_back("maxOifIndex " + std::to_string(before.maxOifIndex().value()) + " -> " +
                    std::to_string(after.maxOifIndex().value()));
  }
  if (before.routePriority() != after.routePriority()) {
    parts.push_back("prio " + std::to_string(before.routePriority().value()) + " -> " +
                    std::to_string(after.routePriority().value()));
  }
  return join(parts, ", ");
}

}  // namespace Mroutectl
