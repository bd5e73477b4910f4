// The hand-written operations of MrtNotifySocketPam: registering with the
// device kernel and switching upcall kinds one by one.
#include "mroute/kernel/mrt_notify_socket_pam.h"

#include <netinet/in.h>

#include <string>

#include "mroute/runtime/error.h"

namespace Routing::Multicast::Notify {
namespace {

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

Kiv::Ptr<MrtNotifySocketPam> MrtNotifySocketPam::MrtNotifySocketPamIs(const Kiv::Name& name) {
  return new MrtNotifySocketPam(name);
}

int MrtNotifySocketPam::socketProtocol() const { return IPPROTO_RAW; }

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

void MrtNotifySocketPam::switchKinds(int fd, uint32_t changed) {
  for (const MrtOptionKind& k : kMrtOptionKinds) {
    if (!(changed & k.bit)) continue;
    int option = (options() & k.bit) ? MRT_NOTIFY_DISABLE : MRT_NOTIFY_ENABLE;
    if (int err = setIntOption(fd, option, k.kind)) throw Mroute::ErrnoException(optionContext(k.bit), err);
  }
}

}  // namespace Routing::Multicast::Notify
