#include "mroute/route/df_profile.h"

#include <ostream>
#include <sstream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

std::string DfProfile::brumeString() const {
  std::ostringstream os;
  os << "Intf " << key_ << " DF 0x" << std::hex << dfBitmap_;
  return os.str();
}

size_t DfProfile::hash() const {
  return std::hash<Orvet::IntfId>()(key_) * 31 + std::hash<uint64_t>()(dfBitmap_);
}

DfProfile DfProfile::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  auto key = reader.field<Orvet::IntfId>("key");
  auto dfBitmap = reader.field<uint64_t>("dfBitmap");
  reader.end();
  return DfProfile(key, dfBitmap);
}

std::ostream& operator<<(std::ostream& os, const DfProfile& v) {
  Kiv::ValueWriter(os, DfProfile::kTypeName).field("key", v.key()).field("dfBitmap", v.dfBitmap()).end();
  return os;
}

}  // namespace Brume::Multicast::Fib
