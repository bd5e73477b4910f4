#include "route_filter.h"

#include <exception>

#include "command.h"

namespace Mroutectl {

bool within(const Orvet::IpGenPrefix& inner, const Orvet::IpGenPrefix& outer) {
  if (inner.af() != outer.af() || inner.length() < outer.length()) return false;
  const uint8_t* a = inner.address().bytes();
  const uint8_t* b = outer.address().bytes();
  const uint32_t bits = outer.length();
  for (uint32_t i = 0; i < bits / 8; ++i) {
    if (a[i] != b[i]) return false;
  }
  const uint32_t rest = bits % 8;
  const uint8_t mask = static_cast<uint8_t>(0xff00u >> rest);
  return rest == 0 || (a[bits / 8] & mask) == (b[bits / 8] & mask);
}

namespace {

std::optional<Orvet::IpGenPrefix> prefix(const char* what, const std::string& text) {
  if (text.empty()) return std::nullopt;
  try {
    return Orvet::IpGenPrefix::fromText(text);
  } catch (const std::exception& e) {
    throw CommandError(kExitUsage, std::string("bad ") + what + " prefix '" + text + "': " + e.what());
  }
}

}  // namespace

RouteFilter RouteFilter::fromText(const std::string& group, const std::string& source) {
  return RouteFilter{prefix("group", group), prefix("source", source)};
}

bool RouteFilter::matches(const Routing::Multicast::Fib::IpGenRouteKey& key) const {
  return (!group || within(key.g(), *group)) && (!source || within(key.s(), *source));
}

}  // namespace Mroutectl
