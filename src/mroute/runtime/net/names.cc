#include <ostream>

#include "mroute/runtime/net/namespace_name.h"
#include "mroute/runtime/net/vrf_name.h"

namespace L3 {
std::ostream& operator<<(std::ostream& os, const VrfName& v) { return os << v.view(); }
}  // namespace L3

namespace Orvet {
std::ostream& operator<<(std::ostream& os, const NamespaceName& n) { return os << n.view(); }
}  // namespace Orvet
