#include "stored_types.h"

#include "mroute/bitmapper/records.h"
#include "mroute/route/oif_index_intf.h"
#include "mroute/route/route.h"
#include "mroute/table/engine/value_wrapper.h"
#include "mroute/table/survey/value_codec.h"
#include "route_text.h"

namespace Mroutectl {

void registerStoredTypes() {
  using Routing::Multicast::Fib::IpGenRouteKey;
  using Brume::Multicast::Fib::Route;
  Brume::Survey::registerStoredType<KivBrume::KivBrumeMapValueWrapper<Route, IpGenRouteKey, &Route::key>>(
      [](std::string_view text) { return routeKeyFromText(text); },
      [](const IpGenRouteKey& key) { return keyText(key); });
  using Brume::Multicast::Fib::OifIndexIntf;
  Brume::Survey::registerStoredType<
      KivBrume::KivBrumeMapValueWrapper<OifIndexIntf, Brume::Multicast::Fib::OifIndex, &OifIndexIntf::key>>();
  using BitMapper::BitIndexMap;
  Brume::Survey::registerStoredType<
      KivBrume::KivBrumeMapValueWrapper<BitIndexMap, BitMapper::BitIndex, &BitIndexMap::key>>();
  using BitMapper::WaitlistMap;
  Brume::Survey::registerStoredType<
      KivBrume::KivBrumeMapValueWrapper<WaitlistMap, BitMapper::BitMapperKey, &WaitlistMap::key>>();
}

}  // namespace Mroutectl
