#include "change_printer.h"

#include <sstream>

#include "route_text.h"

namespace Mroutectl {

std::string ChangePrinter::show(const Brume::Multicast::Fib::Route& route) const {
  if (!text_) return routeLine(route);
  std::ostringstream os;
  os << route;
  return os.str();
}

std::string ChangePrinter::change(const Routing::Multicast::Fib::IpGenRouteKey& key,
                                  const std::optional<Brume::Multicast::Fib::Route>& now) {
  const auto it = known_.find(key);
  if (!now) {
    if (it == known_.end()) return "- " + keyText(key) + " (not seen before)";
    known_.erase(it);
    return "- " + keyText(key);
  }
  if (it == known_.end()) {
    known_.emplace(key, *now);
    return "+ " + show(*now);
  }
  const std::string diff = routeDiff(it->second, *now);
  it->second = *now;
  return "~ " + show(*now) + (diff.empty() ? "" : "   [" + diff + "]");
}

}  // namespace Mroutectl
