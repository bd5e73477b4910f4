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

ChangePrinter::Change ChangePrinter::classify(const Routing::Multicast::Fib::IpGenRouteKey& key,
                                             const std::optional<Brume::Multicast::Fib::Route>& now) {
  const auto it = known_.find(key);
  if (!now) {
    if (it == known_.end()) return Change{'-', std::nullopt, "", true};
    known_.erase(it);
    return Change{'-', std::nullopt, ""};
  }
  if (it == known_.end()) {
    known_.emplace(key, *now);
    return Change{'+', now, ""};
  }
  Change c{'~', now, routeDiff(it->second, *now)};
  it->second = *now;
  return c;
}

std::string ChangePrinter::line(const Routing::Multicast::Fib::IpGenRouteKey& key, const Change& c) const {
  if (!c.route) return "- " + keyText(key) + (c.unseen ? " (not seen before)" : "");
  return std::string(1, c.mark) + " " + show(*c.route) + (c.diff.empty() ? "" : "   [" + c.diff + "]");
}

}  // namespace Mroutectl
