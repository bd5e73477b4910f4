#include <map>
#include <ostream>

#include "conformance.h"
#include "mroute/bitmapper/bit_index.h"
#include "mroute/bitmapper/records.h"
#include "mroute/entities/fib/counter_mode.h"
#include "mroute/entities/group/port_vlan.h"
#include "mroute/entity/replication/wire.h"
#include "mroute/route/group_key.h"
#include "mroute/route/route.h"
#include "mroute/runtime/net/ipv4_addr.h"
#include "mroute/runtime/net/namespace_name.h"

namespace Conformance {

void PrintTo(const Heard& h, std::ostream* os) { *os << h.who << ":" << h.id; }

namespace {

template <class T>
Samples two(const T& a, const T& b) {
  return {Kiv::NboAttrLog::wireBytes(a), Kiv::NboAttrLog::wireBytes(b)};
}

template <class E>
Samples twoLiterals() {
  return two(Kiv::enumInstance<E>(0u), Kiv::enumInstance<E>(1u));
}

}  // namespace

const Samples* samplesOf(std::string_view type) {
  static const std::map<std::string, Samples, std::less<>> table = [] {
    const Orvet::IntfId eth1 = Orvet::IntfId::fromText("Ethernet1"), eth2 = Orvet::IntfId::fromText("Ethernet2");
    const Orvet::IpGenAddr a1 = Orvet::IpGenAddr::fromText("10.0.0.1"), a2 = Orvet::IpGenAddr::fromText("10.0.0.2");
    const Orvet::IpGenPrefix p1 = Orvet::IpGenPrefix::fromText("10.0.0.0/8"),
                             p2 = Orvet::IpGenPrefix::fromText("232.0.0.1/32");
    const L3::VrfName red("red"), blue("blue");
    const Fib::IpGenRouteKey k1(p1, p2), k2(p2, p2);
    // Records filed under their own key carry the first route key.
    BFib::Route r1(k1), r2(k1);
    r2.routePriorityIs(BFib::RoutePriority(7));
    return std::map<std::string, Samples, std::less<>>{
        {"bool", two(false, true)},
        {"uint8_t", two<uint8_t>(1, 2)},
        {"uint16_t", two<uint16_t>(1, 2)},
        {"uint32_t", two<uint32_t>(1, 2)},
        {"uint64_t", two<uint64_t>(1, 2)},
        {"int32_t", two<int32_t>(-1, 2)},
        {"double", two(0.5, 1.5)},
        {"Kiv::String", two(Kiv::String("a"), Kiv::String("b"))},
        {"Kiv::String8", two(Kiv::String8("a"), Kiv::String8("b"))},
        {"Kiv::Name", two(Kiv::Name("a"), Kiv::Name("b"))},
        {"L3::VrfName", two(red, blue)},
        {"Orvet::IntfId", two(eth1, eth2)},
        {"Orvet::IpGenAddr", two(a1, a2)},
        {"Orvet::IpAddr", two(Orvet::IpAddr::fromText("10.0.0.1"), Orvet::IpAddr::fromText("10.0.0.2"))},
        {"Orvet::IpGenPrefix", two(p1, p2)},
        {"Orvet::NamespaceName", two(Orvet::NamespaceName("ns1"), Orvet::NamespaceName("ns2"))},
        {"Bridging::VlanId", two(Bridging::VlanId(1), Bridging::VlanId(4094))},
        {"IpGenRouteKey", two(k1, k2)},
        {"Routing::Multicast::Fib::IpGenRouteKey", two(k1, k2)},
        {"Brume::Multicast::Fib::Route", two(r1, r2)},
        {"CounterMode", twoLiterals<Fib::CounterMode>()},
        {"MultipathControl", twoLiterals<Fib::Config::MultipathControl>()},
        {"HwFlags", two(Hw::HwFlags(1), Hw::HwFlags(2))},
        {"BitMapperKey", two(BitMapper::BitMapperKey(eth1, a1), BitMapper::BitMapperKey(eth2, a1))},
        {"BitIndex", two(BitMapper::BitIndex(1), BitMapper::BitIndex(2))},
        {"GroupKey", two(Group::GroupKey(1, 1), Group::GroupKey(1, 2))},
        {"PrefixKey", two(PimIntf::PrefixKey(p1, red), PimIntf::PrefixKey(p1, blue))},
        {"PrefixMroute", two(PimIntf::PrefixMroute(p1, eth1), PimIntf::PrefixMroute(p1, eth2))},
        {"MrouteLib::PortVlan", two(MrouteLib::PortVlan(eth1, MrouteLib::OutLif(), MrouteLib::PortProperty()),
                                    MrouteLib::PortVlan(eth2, MrouteLib::OutLif(), MrouteLib::PortProperty()))},
    };
  }();
  auto it = table.find(type);
  return it == table.end() ? nullptr : &it->second;
}

const Kiv::AttrLogType& logTypeOf(const Kiv::Entity& e) {
  const Kiv::NboAttrLog::MountType* m = Kiv::NboAttrLog::mountTypeNamed(e.fwkType().name);
  if (m == nullptr) throw std::logic_error("no attribute-log table for " + e.fwkType().name);
  return m->type();
}

std::pair<std::string, std::string> keyAndValue(const std::string& type) {
  const size_t arrow = type.find(" -> ");
  return {type.substr(0, arrow), arrow == std::string::npos ? "" : type.substr(arrow + 4)};
}

void applyValue(const Kiv::AttrLogAttr& a, Kiv::Entity& e, const std::string& value) {
  Kiv::NboAttrLog::WireReader r(value);
  a.readValue(r)(e);
}

void applyMember(const Kiv::AttrLogAttr& a, Kiv::Entity& e, const std::string& key, const std::string* value) {
  std::string bytes = key;
  Kiv::NboAttrLog::WireWriter w(bytes);
  w.u8(value != nullptr);
  if (value != nullptr) bytes += *value;
  Kiv::NboAttrLog::WireReader r(bytes);
  std::string keyRead;
  a.readMember(r, keyRead)(e);
}

}  // namespace Conformance
