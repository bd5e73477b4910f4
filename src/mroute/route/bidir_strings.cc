// The one-line trace displays of the bidirectional table rows.
#include <ostream>
#include <sstream>

#include "mroute/route/bidir_group.h"
#include "mroute/route/df_profile.h"

namespace Brume::Multicast::Fib {

std::string BidirGroup::brumeString() const {
  std::ostringstream os;
  os << "[" << key() << "] RPA " << rpa();
  return os.str();
}

std::string DfProfile::brumeString() const {
  std::ostringstream os;
  os << "Intf " << key() << " DF 0x" << std::hex << dfBitmap();
  return os.str();
}

}  // namespace Brume::Multicast::Fib
