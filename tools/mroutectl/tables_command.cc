// mroutectl tables (alias: list): the tables under the shared-memory root,
// one aligned row each.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "command.h"
#include "mroute/table/shm_root.h"
#include "table_access.h"

namespace Mroutectl {
namespace {

void tablesUsage(std::ostream& os) {
  os << "usage: mroutectl tables\n"
        "  Lists every table under the shared-memory root ($MROUTE_SHM_ROOT, default /dev/shm/mroute):\n"
        "  value type, entries and capacity, ember id, the writer process and its connected readers.\n";
}

std::string hex(uint32_t v) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(8) << std::setfill('0') << v;
  return os.str();
}

std::vector<std::string> row(const TableSummary& s) {
  if (!s.readable) return {s.table, "?", "?", "?", "?", "?", "?", "slot file unreadable"};
  std::string notes;
  if (s.ember != s.fileEmber) notes += "ember file " + hex(s.ember) + " differs; ";
  if (s.corruptionReported) notes += "CORRUPTION REPORTED; ";
  if (!notes.empty()) notes.resize(notes.size() - 2);
  const bool running = s.writerPid != 0;
  return {s.table,
          s.valueType,
          std::to_string(s.members),
          std::to_string(s.capacity),
          hex(s.fileEmber),
          running ? (s.writerPid > 0 ? "pid " + std::to_string(s.writerPid) : "running") : "none",
          running ? std::to_string(s.readers) : "-",
          notes};
}

int tablesRun(const Args& args, std::ostream& out, std::ostream& err) {
  if (!args.empty()) {
    err << "mroutectl tables: no arguments expected\n";
    return kExitUsage;
  }
  const std::string root = Brume::shmRootDirectory();
  std::error_code ec;
  if (!std::filesystem::is_directory(root, ec)) {
    err << "mroutectl tables: no shared-memory root directory " << root
        << (std::getenv(Brume::kShmRootVariable) ? " (from MROUTE_SHM_ROOT)" : "") << "\n";
    return kExitUsage;
  }
  const auto tables = findTables(root);
  out << "root " << root << ": " << tables.size() << (tables.size() == 1 ? " table" : " tables") << "\n";
  if (tables.empty()) return kExitOk;
  std::vector<std::vector<std::string>> rows = {
      {"TABLE", "VALUE TYPE", "ENTRIES", "CAPACITY", "EMBER", "WRITER", "READERS", ""}};
  bool stale = false;
  for (const std::string& t : tables) {
    const TableSummary s = summarize(t);
    stale = stale || (s.readable && s.writerPid == 0);
    rows.push_back(row(s));
  }
  std::vector<size_t> width(rows[0].size(), 0);
  for (const auto& r : rows) {
    for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
  }
  for (const auto& r : rows) {
    std::string line;
    for (size_t c = 0; c < r.size(); ++c) {
      // Text columns left-aligned, counts right-aligned.
      const bool number = c >= 2 && c <= 3;
      const std::string pad(width[c] - r[c].size(), ' ');
      line += (c == 0 ? "" : "  ") + (number ? pad + r[c] : r[c] + (c + 1 < r.size() ? pad : ""));
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
  if (stale) out << "(READERS '-': no writer runs, so no reader can be connected.)\n";
  return kExitOk;
}

}  // namespace

const Subcommand tablesCommand{"tables", "list the shared-memory tables", tablesUsage, tablesRun};
const Subcommand listCommand{"list", "same as tables", tablesUsage, tablesRun};

}  // namespace Mroutectl
