// mroutectl validate [<table> ...]: runs the header and deep checks of
// table_check.h on a private copy of each table's files and prints each
// finding as one line. Nothing is written to the tables.
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <ostream>

#include "command.h"
#include "mroute/table/shm_root.h"
#include "table_access.h"
#include "table_check.h"

namespace Mroutectl {
namespace {

void validateUsage(std::ostream& os) {
  os << "usage: mroutectl validate [<mount path>/<name> ...]\n"
        "  Checks the files of the given tables (all tables under the root when none is given): the\n"
        "  header of every file, then the free list, every hash chain and the notification queue, as\n"
        "  the writer does when it attaches. Read-only. Prints each finding on its own line.\n"
        "  Exit code 0: every table sound; 1: a table has findings; 2: bad usage or no such table.\n";
}

int validateRun(const Args& args, std::ostream& out, std::ostream& err) {
  std::vector<std::string> tables;
  for (std::string_view a : args) {
    if (a.starts_with("-")) {
      err << "mroutectl validate: unknown option '" << a << "'\n";
      return kExitUsage;
    }
    tables.emplace_back(a);
  }
  if (tables.empty()) {
    const std::string root = Brume::shmRootDirectory();
    std::error_code ec;
    if (!std::filesystem::is_directory(root, ec)) {
      err << "mroutectl validate: no shared-memory root directory " << root
          << (std::getenv(Brume::kShmRootVariable) ? " (from MROUTE_SHM_ROOT)" : "") << "\n";
      return kExitUsage;
    }
    tables = findTables(root);
    if (tables.empty()) out << "no tables under " << root << "\n";
  }
  std::vector<Mem::RootPath> roots;
  for (const std::string& t : tables) {
    std::string error;
    std::optional<Mem::RootPath> root = locateTable(t, &error);
    if (!root) {
      err << "mroutectl validate: " << error << "\n";
      return kExitUsage;
    }
    roots.push_back(*root);
  }
  int bad = 0;
  for (size_t i = 0; i < tables.size(); ++i) {
    const auto findings = checkTable(roots[i]);
    out << tables[i] << ": "
        << (findings.empty()
                ? "ok"
                : std::to_string(findings.size()) + (findings.size() == 1 ? " finding" : " findings"))
        << "\n";
    for (const std::string& f : findings) out << "  " << f << "\n";
    bad += !findings.empty();
  }
  return bad == 0 ? kExitOk : 1;
}

}  // namespace

const Subcommand validateCommand{"validate", "check a table's files deeply and print what is wrong",
                                 validateUsage, validateRun};

}  // namespace Mroutectl
