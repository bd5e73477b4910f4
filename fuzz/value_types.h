// Every value type with a Value(...) text form, for the value_text harness
// and its seed generator. The harness refuses to start when the library
// registers a value type that is missing here.
#pragma once

#include <cstddef>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "mroute/bitmapper/bit_index.h"
#include "mroute/bitmapper/free_pool.h"
#include "mroute/bitmapper/records.h"
#include "mroute/entities/fib/fib_status.h"
#include "mroute/entities/group/port_vlan.h"
#include "mroute/entities/hardware/hardware_status.h"
#include "mroute/entities/pim/pim_intf.h"
#include "mroute/route/bidir_group.h"
#include "mroute/route/df_profile.h"
#include "mroute/route/group_key.h"
#include "mroute/route/intf_flags.h"
#include "mroute/route/intf_oif_index.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/mfib_brume_dir_route_key.h"
#include "mroute/route/oif_index.h"
#include "mroute/route/oif_index_intf.h"
#include "mroute/route/route.h"
#include "mroute/route/route_flags.h"
#include "mroute/route/route_key_type.h"
#include "mroute/route/route_priority.h"
#include "mroute/route/rpa_index.h"
#include "mroute/route/table_info.h"

namespace Fuzz {

namespace Bmf = Brume::Multicast::Fib;
namespace Rmf = Routing::Multicast::Fib;

// The registered name of T: its kTypeName, its type record's name, or the
// name its text form starts with.
template <class T>
std::string nameOf() {
  if constexpr (requires { T::kTypeName; }) {
    return std::string(T::kTypeName);
  } else if constexpr (requires { T::type(); }) {
    return T::type().name;
  } else {
    std::ostringstream os;
    os << T();
    const std::string text = os.str();
    const size_t start = text.find('\'') + 1;
    return text.substr(start, text.find('\'', start) - start);
  }
}

template <class... T>
struct Types {
  static constexpr size_t kCount = sizeof...(T);
  // Calls f.template operator()<U>() for the pick-th type U.
  template <class F>
  static void visit(size_t pick, F&& f) {
    size_t i = 0;
    ((i++ == pick ? f.template operator()<T>() : void()), ...);
  }
  // The names the types register under.
  static std::set<std::string> names() { return {nameOf<T>()...}; }
};

using ValueTypes =
    Types<Bmf::BidirGroup, Bmf::IntfOifIndex, Bmf::RpaIndex, Bmf::DfProfile, Bmf::IntfFlags, Bmf::RouteFlags,
          Bmf::IifFlags, Bmf::RoutePriority, Bmf::OifIndex, Bmf::Route, Bmf::OifIndexIntf, Bmf::MfibBrumeDirRouteKey,
          Bmf::TableInfo, BitMapper::BitMapperKey, BitMapper::BitIndexMap, BitMapper::WaitlistMap,
          BitMapper::TableInfo, BitMapper::BitIndexFreePoolMetadata, BitMapper::BitIndex, MrouteLib::OutLif,
          MrouteLib::PortProperty, MrouteLib::PortPropertyMask, MrouteLib::PortVlan, Rmf::PimIntf::PrefixKey,
          Rmf::PimIntf::PrefixMroute, Rmf::Counter, Rmf::IntfFlags, Rmf::Intf, Rmf::IpGenRouteKey,
          Rmf::RouteKeyTypeConverter, Multicast::Group::GroupKey, Rmf::Hardware::HwFlags>;

}  // namespace Fuzz
