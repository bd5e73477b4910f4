#include "bitmap_rows.h"

#include <algorithm>

#include "mroute/runtime/error.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/value_wrapper.h"

namespace Mroutectl {
namespace {

using BitIndexRow = KivBrume::KivBrumeMapValueWrapper<BitMapper::BitIndexMap, BitMapper::BitIndex,
                                                      &BitMapper::BitIndexMap::key>;
using WaitlistRow = KivBrume::KivBrumeMapValueWrapper<BitMapper::WaitlistMap, BitMapper::BitMapperKey,
                                                      &BitMapper::WaitlistMap::key>;

template <class Stored, class V>
bool read(const Mem::RootPath& root, std::vector<V>* rows, std::string* error) {
  Brume::BrumeReader<Brume::DefaultOps<typename Stored::KeyType, Stored>> reader(root);
  if (!reader.initialize()) {
    *error = "cannot read " + root.dir() + " (mroutectl validate says more)";
    return false;
  }
  Stored s;
  try {
    for (bool more = reader.first(s); more; more = reader.next(s.key(), s)) rows->push_back(s.value);
  } catch (const Pavo::CorruptionDetectedException& e) {
    *error = root.dir() + " is damaged: " + e.what() + " (mroutectl validate says more)";
    return false;
  }
  std::sort(rows->begin(), rows->end(), [](const V& a, const V& b) { return a.key() < b.key(); });
  return true;
}

}  // namespace

bool readRows(const Mem::RootPath& root, std::vector<BitMapper::BitIndexMap>* rows, std::string* error) {
  return read<BitIndexRow>(root, rows, error);
}

bool readRows(const Mem::RootPath& root, std::vector<BitMapper::WaitlistMap>* rows, std::string* error) {
  return read<WaitlistRow>(root, rows, error);
}

}  // namespace Mroutectl
