// What the conformance suites share: every generated entity type, a fresh
// entity of each, a notifiee that hears every notification, and two distinct
// values of every type an attribute, a key or a member uses, so that the
// suites drive each attribute through the type registry and the
// attribute-log table of its type rather than by name.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mroute/bitmapper/brume_status.h"
#include "mroute/bitmapper/config.h"
#include "mroute/bitmapper/status.h"
#include "mroute/entities/apps/app_intfs.h"
#include "mroute/entities/fib/config.h"
#include "mroute/entities/fib/fib_status.h"
#include "mroute/entities/fib/intf_boundary_status.h"
#include "mroute/entities/fib/intf_config.h"
#include "mroute/entities/fib/multicast_legacy_config.h"
#include "mroute/entities/fib/vrf_config.h"
#include "mroute/entities/group/group.h"
#include "mroute/entities/hardware/hardware_status.h"
#include "mroute/entities/pim/pim_enabled.h"
#include "mroute/entities/pim/pim_intf.h"
#include "mroute/entities/pim/pim_status.h"
#include "mroute/entities/pim/vxlan_status.h"
#include "mroute/entity/replication/mount_types.h"
#include "mroute/kernel/kernel_mfib_status.h"
#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt_message.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/pam/pam.h"
#include "mroute/route/mfib_status.h"

namespace Conformance {

namespace Fib = Routing::Multicast::Fib;
namespace Hw = Routing::Multicast::Fib::Hardware;
namespace PimIntf = Routing::Multicast::Fib::PimIntf;
namespace Group = Multicast::Group;
namespace BFib = Brume::Multicast::Fib;
namespace Notify = Routing::Multicast::Notify;

using Entities = testing::Types<
    Fib::Config, Fib::IntfConfig, Fib::VrfConfig, Routing::Multicast::MulticastLegacyConfig, Fib::Status,
    Fib::VrfEnabledStatus, Fib::ReadyStatus, Fib::BidirStatus, Fib::MbrIntf, Fib::CounterStatusCtl,
    Fib::CounterStatus, Orvet::IntfBoundaryStatus, Hw::Status, Hw::VrfStatus, Hw::RouteStatus,
    Routing::Multicast::Pim::Status, Routing::Multicast::Vxlan::Status, MrouteLib::PimEnabled, PimIntf::Status,
    PimIntf::IntfStatus, PimIntf::PrefixRouteInfo, PimIntf::PrefixMrouteStatus, Group::Request, Group::Response,
    Group::ClientConfig, Group::Config, Group::Status, McastCommon::AppVrfIntfs, McastCommon::VrfIntfColl,
    McastCommon::MulticastIntfsForApplications, BitMapper::Config, BitMapper::Status, BitMapper::BrumeStatus,
    BFib::Status, BFib::BidirStatus, BFib::BidirStatusCtl, BFib::VrfStatus, BFib::MfibDir, BFib::MfibDirColl,
    BFib::MfibBrumeColl, BFib::MfibBrumeDir, BFib::ModalRouteOrderedCollection, BFib::RouteOrderedCollection,
    Routing::KernelMfib::Status, Routing::KernelMfib::StatusColl, Notify::MrtMessage, Notify::NoCacheMessage,
    Notify::WrongVifMessage, Notify::WholePktMessage, Notify::MrtMessageCounter, Orvet::Pam, Notify::MrtSocketPam,
    Notify::MrtNotifySocketPam, Notify::MrtStockSocketPam, Notify::Mrt6SocketPam>;

// A fresh entity of type E; types whose constructor needs more than a name
// get valid values here.
template <class E>
Kiv::Ptr<E> fresh() {
  if constexpr (std::is_same_v<E, BitMapper::Config>) {
    return BitMapper::configFactory(64, true);
  } else {
    return new E(Kiv::Name("conformance"));
  }
}

// One notification as a notifiee heard it: who (its tag) and the attribute id.
struct Heard {
  char who;
  Kiv::AttrId id;
  friend bool operator==(const Heard&, const Heard&) = default;
};
void PrintTo(const Heard& h, std::ostream* os);
using HeardLog = std::vector<Heard>;

// A notifiee of E that logs every notification it hears.
template <class E>
class Listener : public E::NotifieeConst {
 public:
  Listener(HeardLog& log, char who) : log_(log), who_(who) {}
  void onNotification(Kiv::AttrId id) override { log_.push_back({who_, id}); }

 private:
  HeardLog& log_;
  char who_;
};

// Two distinct values of a type, as the wire carries them, by the type's
// name as a description spells it ("uint32_t", "L3::VrfName"); null for a
// type the table does not know, which the suites report as a failure.
using Samples = std::pair<std::string, std::string>;
const Samples* samplesOf(std::string_view type);

// The attribute-log table of a registered entity type.
const Kiv::AttrLogType& logTypeOf(const Kiv::Entity& e);

// "K -> V" split into K and V.
std::pair<std::string, std::string> keyAndValue(const std::string& type);

// Applies a value (a scalar) or a member (a key, present byte and value) through the entity's own setter.
void applyValue(const Kiv::AttrLogAttr& a, Kiv::Entity& e, const std::string& value);
void applyMember(const Kiv::AttrLogAttr& a, Kiv::Entity& e, const std::string& key, const std::string* value);

}  // namespace Conformance
