#include "mroute/kernel/mrt_notify_socket_pam.h"

#include <netinet/in.h>

#include <string>

namespace Routing::Multicast::Notify {
namespace {

const char* const kType = "Routing::Multicast::Notify::MrtNotifySocketPam";

const char* optionContext(MrtNotifyOption bit) {
  switch (bit) {
    case igmpWrongVif:
      return "setsockopt(IGMP_WRONGVIF)";
    case igmpNoCache:
      return "setsockopt(IGMP_NOCACHE)";
    case igmpWholePkt:
      return "setsockopt(IGMP_WHOLEPKT)";
    default:
      return "setsockopt";
  }
}

}  // namespace

MrtNotifySocketPam::MrtNotifySocketPam(const Kiv::Name& name) : MrtSocketPam(name, kType) {}

const Kiv::TypeRecord& MrtNotifySocketPam::fwkType() const {
  static const Kiv::TypeRecord& type = Kiv::registerType(kType, Kiv::TypeKind::entity);
  return type;
}

void MrtNotifySocketPam::registerUpcalls(int fd, std::string_view op, std::string_view arg) {
  // The same context for every step, as the agents' logs have always read.
  constexpr std::string_view context = "setsocketopt(MRT_NOTIFY_INIT)";
  if (int err = setIntOption(fd, MRT_NOTIFY_INIT, 1)) closeAndThrow(fd, context, err);
  for (const MrtOptionKind& k : kMrtOptionKinds) {
    if (!(options() & k.bit)) continue;
    if (tracing(9)) trace(9, op, arg, std::string("Set socket option: ") + k.name);
    if (int err = setIntOption(fd, MRT_NOTIFY_ENABLE, k.kind)) closeAndThrow(fd, context, err);
  }
}

void MrtNotifySocketPam::optionsIs(uint32_t newOptions) {
  constexpr std::string_view op = "optionsIs(uint32_t)";
  const std::string arg = std::to_string(newOptions);
  trace(9, op, arg, "");
  if (!enabled()) {
    optionsStore(newOptions);
    return;
  }
  uint32_t changed = traceOptionChange(op, arg, newOptions);
  if (changed == 0) return;
  int fd = fileDesc()->descriptor();
  for (const MrtOptionKind& k : kMrtOptionKinds) {
    if (!(changed & k.bit)) continue;
    int option = (options() & k.bit) ? MRT_NOTIFY_DISABLE : MRT_NOTIFY_ENABLE;
    if (int err = setIntOption(fd, option, k.kind)) throw Mroute::ErrnoException(optionContext(k.bit), err);
  }
  optionsStore(newOptions);
}

}  // namespace Routing::Multicast::Notify
