// mroutectl dump <table>: a table's entries, routes one readable line each
// (route_text.h) in key order, or in their text forms with --text.
#include <algorithm>
#include <iomanip>
#include <ostream>
#include <tuple>
#include <vector>

#include "bitmap_rows.h"
#include "command.h"
#include "mroute/runtime/error.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/shm_root.h"
#include "route_text.h"
#include "table_check.h"
#include "table_access.h"

namespace Mroutectl {
namespace {

void dumpUsage(std::ostream& os) {
  os << "usage: mroutectl dump <mount path>/<name> [--text]\n"
        "  Prints every entry: routes one per line, sorted by group and source (--text: in their\n"
        "  Value(...) text form); entries of other value types as bytes in hex.\n"
        "  Exit code 1 when the table's files are damaged, 2 on bad usage or no such table.\n";
}

// Entries of a type this tool does not know: the bytes of each occupied slot.
int dumpRaw(const std::string& dir, std::ostream& out, std::ostream& err) {
  Mem::ShmFile f;
  if (!f.open(dir + "/" + Brume::kSlotFileName, Mem::ShmAccess::readOnly) || f.fileSize() <= 0 ||
      !f.map(static_cast<size_t>(f.fileSize()))) {
    err << "mroutectl dump: " << f.error() << "\n";
    return 1;
  }
  const auto* h = reinterpret_cast<const Brume::SlotTable::Header*>(f.base());
  const uint32_t n = h->numSlots.load().ref;
  if (f.mappedSize() < sizeof(Brume::SlotTable::Header) || h->valueSize + sizeof(Brume::Slot) != h->slotSize ||
      Brume::SlotTable::fileSize(h->slotSize, n) > f.mappedSize()) {
    err << "mroutectl dump: slot file shorter than its header says\n";
    return 1;
  }
  for (uint32_t i = 0; i < n; ++i) {
    const Brume::Slot* s = Brume::SlotTable::slotAt(f.base(), h->slotSize, i);
    if ((__atomic_load_n(&s->status, __ATOMIC_ACQUIRE) & 1u) == 0) continue;
    out << "slot " << i << ":";
    const auto* bytes = reinterpret_cast<const unsigned char*>(s) + sizeof(Brume::Slot);
    for (uint32_t b = 0; b < h->valueSize; ++b) {
      out << (b % 32 == 0 ? "\n    " : " ") << std::hex << std::setw(2) << std::setfill('0')
          << static_cast<unsigned>(bytes[b]) << std::dec;
    }
    out << "\n";
  }
  return kExitOk;
}

int dumpRun(const Args& args, std::ostream& out, std::ostream& err) {
  bool text = false;
  std::vector<std::string> tables;
  for (std::string_view a : args) {
    if (a == "--text") {
      text = true;
    } else {
      tables.emplace_back(a);
    }
  }
  if (tables.size() != 1) {
    dumpUsage(err);
    return kExitUsage;
  }
  const std::string& table = tables[0];
  std::string error;
  const std::optional<Mem::RootPath> root = locateTable(table, &error);
  if (!root) {
    err << "mroutectl dump: " << error << "\n";
    return kExitUsage;
  }
  const std::string& dir = root->dir();
  // Nothing of a header is used before every field of it was checked.
  const std::string damage = headerFinding(*root);
  if (!damage.empty()) {
    err << "mroutectl dump: " << table << " is damaged: " << damage << " (see mroutectl validate)\n";
    return 1;
  }
  const TableSummary s = summarize(table);
  if (!s.readable) {
    err << "mroutectl dump: cannot read the slot file of " << dir << " (see mroutectl validate)\n";
    return 1;
  }
  if (isBitMapperRowType(s.valueType)) return dumpBitMapperRows(*root, s.valueType, table, out, err);
  if (s.valueType != Brume::Multicast::Fib::Route::kTypeName) {
    out << table << ": " << s.members << " entries of " << s.valueType << "\n";
    return dumpRaw(dir, out, err);
  }
  Brume::BrumeReader<RouteOps> reader(*root);
  if (!reader.initialize()) {
    err << "mroutectl dump: cannot read " << dir << " (see mroutectl validate)\n";
    return 1;
  }
  std::vector<Route> routes;
  RouteValue v;
  try {
    for (bool more = reader.first(v); more; more = reader.next(v.key(), v)) routes.push_back(v.value);
  } catch (const Pavo::CorruptionDetectedException& e) {
    err << "mroutectl dump: " << table << " is damaged: " << e.what() << " (see mroutectl validate)\n";
    return 1;
  }
  // By group, (*,G) before the group's (S,G) routes.
  auto order = [](const Route& r) { return std::tuple(r.key().g(), r.key().s().length() != 0, r.key().s()); };
  std::sort(routes.begin(), routes.end(),
            [&](const Route& a, const Route& b) { return order(a) < order(b); });
  out << table << ": " << routes.size() << (routes.size() == 1 ? " route" : " routes") << "\n";
  for (const auto& r : routes) {
    if (text) {
      out << r << "\n";
    } else {
      out << "  " << routeLine(r) << "\n";
    }
  }
  return kExitOk;
}

}  // namespace

const Subcommand dumpCommand{"dump", "print a table's entries", dumpUsage, dumpRun};

}  // namespace Mroutectl
