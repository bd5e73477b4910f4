#include "mroute/kernel/mrt_stock_socket_pam.h"

#include <netinet/in.h>

#include <string>

#include "mroute/kernel/mrt_upcall.h"

namespace Routing::Multicast::Notify {
namespace {

const char* const kType = "Routing::Multicast::Notify::MrtStockSocketPam";

}  // namespace

MrtStockSocketPam::MrtStockSocketPam(const Kiv::Name& name) : MrtSocketPam(name, kType) {}

MrtStockSocketPam::MrtStockSocketPam(const Kiv::Name& name, std::string typeName)
    : MrtSocketPam(name, std::move(typeName)) {}

const Kiv::TypeRecord& MrtStockSocketPam::fwkType() const {
  static const Kiv::TypeRecord& type = Kiv::registerType(kType, Kiv::TypeKind::entity);
  return type;
}

void MrtStockSocketPam::registerUpcalls(int fd, std::string_view, std::string_view) {
  if (int err = setIntOption(fd, kMrtInit, 1)) closeAndThrow(fd, "setsockopt(MRT_INIT)", err);
}

void MrtStockSocketPam::optionsIs(uint32_t newOptions) {
  constexpr std::string_view op = "optionsIs(uint32_t)";
  const std::string arg = std::to_string(newOptions);
  trace(9, op, arg, "");
  if (enabled()) traceOptionChange(op, arg, newOptions);
  optionsStore(newOptions);
}

std::optional<int> MrtStockSocketPam::upcallKind(const Orvet::Pkt& pkt) const {
  std::optional<UpcallHeader> h = parseUpcall(pkt.data(), pkt.size());
  // Upcalls carry zero in the protocol byte; IGMP packets carry 2.
  if (!h || h->ipProto != 0) return std::nullopt;
  return h->msgType;
}

bool MrtStockSocketPam::acceptRx(Orvet::Pkt& pkt) {
  std::optional<int> kind = upcallKind(pkt);
  if (!kind) {
    ++rxNotUpcall_;
    return false;
  }
  MrtNotifyOption bit = optionOfKind(*kind);
  if (bit == none || !(options() & bit)) {
    ++rxFiltered_;
    return false;
  }
  return true;
}

}  // namespace Routing::Multicast::Notify
