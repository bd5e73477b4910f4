#include "mroute/route/group_key.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"

namespace Multicast::Group {

namespace {
constexpr std::string_view kTypeName = "Multicast::Group::GroupKey";
}  // namespace

GroupKey GroupKey::fromText(std::string_view text) {
  Kiv::ValueReader r(text, kTypeName);
  auto kind = r.field<uint16_t>("kind");
  auto index = r.field<uint16_t>("index");
  auto hash = r.field<uint32_t>("hash");
  r.end();
  return GroupKey(kind, index, hash);
}

std::ostream& operator<<(std::ostream& os, const GroupKey& k) {
  Kiv::ValueWriter(os, kTypeName)
      .field("kind", k.kind())
      .field("index", k.index())
      .field("hash", k.hash())
      .end();
  return os;
}

}  // namespace Multicast::Group
