// mroutectl trace: the trace facilities of the system with the levels that
// MROUTE_TRACE enables for each, and any problem with the trace settings.

#include <iomanip>
#include <ostream>
#include <string>

#include "command.h"
#include "mroute/runtime/trace.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

void runTrace(Context& ctx) {
  const auto facilities = Mroute::Trace::listFacilityLevels();
  const auto problems = Mroute::Trace::environmentErrors();
  if (ctx.json) {
    Json list = Json::array();
    for (const auto& f : facilities) {
      list.push_back(Json{{"facility", f.name}, {"levels", Mroute::Trace::levelsText(f.levels)}});
    }
    ctx.out << jsonText(Json{{"facilities", list}, {"problems", problems}}) << "\n";
    return;
  }
  ctx.out << std::left << std::setw(32) << "FACILITY" << "LEVELS\n";
  for (const auto& f : facilities) {
    const std::string levels = Mroute::Trace::levelsText(f.levels);
    ctx.out << std::setw(32) << f.name << (levels.empty() ? "-" : levels) << "\n";
  }
  for (const auto& p : problems) ctx.out << "problem: " << p << "\n";
}

}  // namespace

void addTraceCommand(CommandLine& app, Context& ctx) {
  CliCommand sub = app.addCommand("trace", "list the trace facilities and the levels MROUTE_TRACE enables");
  sub.footer("Levels are written as MROUTE_TRACE reads them (\"0-3\", \"0-39\"); '-' means none.\n"
              "Set e.g. MROUTE_TRACE='Mroute::Brume*/0-3' and MROUTE_TRACE_FILE=/tmp/mroute.trace.");
  addJsonFlag(sub, ctx);
  sub.callback([&ctx] { runTrace(ctx); });
}

}  // namespace Mroutectl
