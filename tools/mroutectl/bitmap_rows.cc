#include "bitmap_rows.h"

#include <algorithm>
#include <ostream>

#include "command.h"
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
    *error = "cannot read " + root.dir() + " (see mroutectl validate)";
    return false;
  }
  Stored s;
  try {
    for (bool more = reader.first(s); more; more = reader.next(s.key(), s)) rows->push_back(s.value);
  } catch (const Pavo::CorruptionDetectedException& e) {
    *error = root.dir() + " is damaged: " + e.what() + " (see mroutectl validate)";
    return false;
  }
  std::sort(rows->begin(), rows->end(), [](const V& a, const V& b) { return a.key() < b.key(); });
  return true;
}

template <class V>
int dump(const Mem::RootPath& root, const std::string& table, std::ostream& out, std::ostream& err) {
  std::vector<V> rows;
  std::string error;
  if (!readRows(root, &rows, &error)) {
    err << "mroutectl dump: " << error << "\n";
    return 1;
  }
  out << table << ": " << rows.size() << (rows.size() == 1 ? " row" : " rows") << " of " << V::kTypeName << "\n";
  for (const V& r : rows) out << r << "\n";
  return kExitOk;
}

}  // namespace

bool isBitMapperRowType(std::string_view valueType) {
  return valueType == BitMapper::BitIndexMap::kTypeName || valueType == BitMapper::WaitlistMap::kTypeName;
}

bool readRows(const Mem::RootPath& root, std::vector<BitMapper::BitIndexMap>* rows, std::string* error) {
  return read<BitIndexRow>(root, rows, error);
}

bool readRows(const Mem::RootPath& root, std::vector<BitMapper::WaitlistMap>* rows, std::string* error) {
  return read<WaitlistRow>(root, rows, error);
}

int dumpBitMapperRows(const Mem::RootPath& root, std::string_view valueType, const std::string& table,
                      std::ostream& out, std::ostream& err) {
  if (valueType == BitMapper::BitIndexMap::kTypeName) return dump<BitMapper::BitIndexMap>(root, table, out, err);
  return dump<BitMapper::WaitlistMap>(root, table, out, err);
}

}  // namespace Mroutectl
