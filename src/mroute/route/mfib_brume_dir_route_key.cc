#include "mroute/route/mfib_brume_dir_route_key.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

size_t MfibBrumeDirRouteKey::hash() const { return static_cast<size_t>(routeKey_.hash()) * 31 + brumeKey_; }

std::weak_ordering operator<=>(const MfibBrumeDirRouteKey& a, const MfibBrumeDirRouteKey& b) {
  if (a.routeKey() < b.routeKey()) return std::weak_ordering::less;
  if (b.routeKey() < a.routeKey()) return std::weak_ordering::greater;
  return a.brumeKey() <=> b.brumeKey();
}

MfibBrumeDirRouteKey MfibBrumeDirRouteKey::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  auto brumeKey = reader.field<uint32_t>("brumeKey");
  auto routeKey = reader.field<IpGenRouteKey>("routeKey");
  reader.end();
  return MfibBrumeDirRouteKey(brumeKey, routeKey);
}

std::ostream& operator<<(std::ostream& os, const MfibBrumeDirRouteKey& key) {
  Kiv::ValueWriter(os, MfibBrumeDirRouteKey::kTypeName)
      .field("brumeKey", key.brumeKey())
      .field("routeKey", key.routeKey())
      .end();
  return os;
}

}  // namespace Brume::Multicast::Fib
