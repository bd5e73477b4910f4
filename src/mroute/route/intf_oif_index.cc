#include "mroute/route/intf_oif_index.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

size_t IntfOifIndex::hash() const { return std::hash<Orvet::IntfId>()(key_) * 31 + oifIndex_.hash(); }

IntfOifIndex IntfOifIndex::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  auto key = reader.field<Orvet::IntfId>("key");
  auto oifIndex = reader.field<OifIndex>("oifIndex");
  reader.end();
  return IntfOifIndex(key, oifIndex);
}

std::ostream& operator<<(std::ostream& os, const IntfOifIndex& v) {
  Kiv::ValueWriter(os, IntfOifIndex::kTypeName).field("key", v.key()).field("oifIndex", v.oifIndex()).end();
  return os;
}

}  // namespace Brume::Multicast::Fib
