#include "mroute/route/table_info.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

uint32_t MountInfo::entries(std::string_view collection) const {
  for (const CollectionSize& c : collections) {
    if (c.name == collection) return c.entries;
  }
  return 0;
}

MountInfo TableInfo::mfibMountInfo(std::string_view type) {
  return MountInfo{std::string(type), {{"route", kRouteEntries}, {"oifIndexIntf", kOifIndexIntfEntries}}};
}

TableInfo TableInfo::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  reader.end();
  return TableInfo();
}

std::ostream& operator<<(std::ostream& os, const TableInfo&) {
  Kiv::ValueWriter(os, TableInfo::kTypeName).end();
  return os;
}

}  // namespace Brume::Multicast::Fib
