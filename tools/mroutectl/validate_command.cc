// mroutectl validate [<table> ...]: the deep check of each table's files
// (mroute/table/survey/table_survey.h), each finding one line. Nothing is
// written to the tables.

#include <memory>
#include <optional>
#include <ostream>

#include "command.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/shm_root.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

void runValidate(std::vector<std::string> tables, Context& ctx) {
  if (tables.empty()) {
    if (const std::string why = Brume::Survey::rootProblem(); !why.empty()) {
      throw CommandError(kExitNotFound, why);
    }
    tables = Brume::Survey::listTables(Brume::shmRootDirectory());
  }
  // Every name is checked before any table is: a typo is not half a report.
  std::vector<Mem::RootPath> roots;
  for (const std::string& t : tables) {
    Brume::Survey::Problem problem{};
    std::string error;
    std::optional<Mem::RootPath> root = Brume::Survey::locateTable(t, &problem, &error);
    if (!root) throw CommandError(problem == Brume::Survey::Problem::badName ? kExitUsage : kExitNotFound, error);
    roots.push_back(*root);
  }
  int bad = 0;
  Json list = Json::array();
  for (size_t i = 0; i < tables.size(); ++i) {
    const auto findings = Brume::Survey::validateTable(roots[i]);
    bad += !findings.empty();
    if (ctx.json) {
      list.push_back(Json{{"table", tables[i]}, {"ok", findings.empty()}, {"findings", findings}});
      continue;
    }
    ctx.out << tables[i] << ": "
            << (findings.empty()
                    ? "ok"
                    : std::to_string(findings.size()) + (findings.size() == 1 ? " finding" : " findings"))
            << "\n";
    for (const std::string& f : findings) ctx.out << "  " << f << "\n";
  }
  if (ctx.json) ctx.out << jsonText(Json{{"tables", list}}) << "\n";
  if (!ctx.json && tables.empty()) ctx.out << "no tables under " << Brume::shmRootDirectory() << "\n";
  if (bad != 0) {
    throw CommandError(kExitDamaged, std::to_string(bad) + (bad == 1 ? " table has" : " tables have") +
                                         " findings (a writer re-formats such a table, losing its entries, when "
                                         "it next attaches)");
  }
}

}  // namespace

void addValidateCommand(CommandLine& app, Context& ctx) {
  auto tables = std::make_shared<std::vector<std::string>>();
  CliCommand sub = app.addCommand("validate", "check tables' files deeply and print what is wrong");
  sub.footer(
      "Checks the given tables (every table under the root when none is given): the header of every\n"
      "file, then the free list, every hash chain and the notification queue, as the writer does when\n"
      "it attaches. Read-only. Exit 1 when a table has findings.");
  sub.addOption("tables", tables.get(), "<mount path>/<name> ...");
  addJsonFlag(sub, ctx);
  sub.callback([tables, &ctx] { runValidate(*tables, ctx); });
}

}  // namespace Mroutectl
