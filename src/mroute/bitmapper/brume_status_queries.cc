// The queries of BrumeStatus that readers use on the index table.
#include "mroute/bitmapper/brume_status.h"

namespace BitMapper {

BitMapperKey BrumeStatus::lookupBitIndex(BitIndex index) const { return bitIndexMap(index).bitMapperKey(); }

bool BrumeStatus::isNewMapping(BitIndex index) const {
  if (!index.isValid()) return true;
  return bitIndexMap(index).isNewMapping();
}

}  // namespace BitMapper
