// Registers the hand-written route values and the route-key kind at load,
// beside the generated types, so that they are found by name.
#include "mroute/entity/kiv/type_registry.h"
#include "mroute/route/route_key_type.h"

namespace {

Kiv::AttrRecord field(const char* name, int id, const char* type) { return {name, id, "field", type, "", 0, ""}; }

void registerValue(const char* name, std::vector<Kiv::AttrRecord> fields) {
  Kiv::registerType(name, Kiv::TypeKind::value, {}, std::move(fields));
}

[[maybe_unused]] const bool registered = [] {
  registerValue("Routing::Multicast::Fib::RouteKey",
                {field("s", 258, "Orvet::Prefix"), field("g", 259, "Orvet::Prefix")});
  registerValue("Routing::Multicast::Fib::IpGenRouteKey",
                {field("s", 258, "Orvet::IpGenPrefix"), field("g", 259, "Orvet::IpGenPrefix")});
  registerValue("Brume::Multicast::Fib::Route",
                {field("key", 258, "Routing::Multicast::Fib::IpGenRouteKey"), field("iif", 259, "Orvet::IntfId"),
                 field("iifFrr", 260, "Orvet::IntfId"), field("notify", 261, "Orvet::IntfId"),
                 field("fastdrop", 262, "Orvet::IntfId"), field("notifyProgrammable", 263, "bool"),
                 field("routeFlags", 264, "RouteFlags"), field("iifFlags", 265, "IifFlags"),
                 field("rpaId", 266, "RpaIndex"), field("maxOifIndex", 267, "OifIndex"),
                 field("routePriority", 268, "RoutePriority"), field("version", 269, "uint32_t")});
  registerValue("Brume::Multicast::Fib::OifIndexIntf", {field("key", 258, "OifIndex"),
                                                         field("intf", 259, "Orvet::IntfId"),
                                                         field("refCount", 260, "uint32_t")});
  registerValue("Brume::Multicast::Fib::MfibBrumeDirRouteKey",
                {field("brumeKey", 258, "uint32_t"), field("routeKey", 259, "Routing::Multicast::Fib::IpGenRouteKey")});
  registerValue("Multicast::Group::GroupKey",
                {field("kind", 258, "uint16_t"), field("index", 259, "uint16_t"), field("hash", 260, "uint32_t")});
  registerValue("Brume::Multicast::Fib::TableInfo", {});
  Kiv::EnumInfo<Routing::Multicast::Fib::RouteKeyType>::type();
  return true;
}();

}  // namespace

// Linking this symbol (mroute::mroute asks the linker for it) keeps the unit in
// a program that links the library statically.
extern "C" void mroute_types_mroute_route_route_types() {}
