#include "mroute/route/bidir_group.h"

#include <ostream>
#include <sstream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

std::string BidirGroup::brumeString() const {
  std::ostringstream os;
  os << "[" << key_ << "] RPA " << rpa_;
  return os.str();
}

size_t BidirGroup::hash() const { return std::hash<Orvet::IpGenPrefix>()(key_) * 31 + rpa_.hash(); }

BidirGroup BidirGroup::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  auto key = reader.field<Orvet::IpGenPrefix>("key");
  auto rpa = reader.field<RpaIndex>("rpa");
  reader.end();
  return BidirGroup(key, rpa);
}

std::ostream& operator<<(std::ostream& os, const BidirGroup& group) {
  Kiv::ValueWriter(os, BidirGroup::kTypeName).field("key", group.key()).field("rpa", group.rpa()).end();
  return os;
}

}  // namespace Brume::Multicast::Fib
