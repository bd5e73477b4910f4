// mroutectl dump <table>: a table's entries shown by the value type its files
// record; routes one readable line each (route_text.h) by group, or in their
// text forms with --text; --limit and a group/source filter for big tables.
// mroutectl lookup <table> <key>: one entry, found as a reader finds it.

#include <algorithm>
#include <cstring>
#include <memory>
#include <ostream>
#include <tuple>
#include <vector>

#include "change_printer.h"
#include "command.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"
#include "route_filter.h"
#include "route_table.h"
#include "route_text.h"
#include "table_json.h"

namespace Mroutectl {

using Brume::Survey::StoredEntry;
using Brume::Survey::ValueCodec;

Json entryJson(const ValueCodec* codec, const StoredEntry& e) {
  Json j;
  j["slot"] = e.slot;
  if (codec == nullptr) {
    j["bytes"] = Brume::Survey::hexText(e.bytes.data(), e.bytes.size());
    return j;
  }
  j["key"] = codec->keyText(e.bytes.data());
  bool damaged = false;
  j["text"] = shownOrDamaged("", [&] { return codec->text(e.bytes.data()); }, &damaged);
  if (damaged) j["damaged"] = true;
  return j;
}

namespace {

struct DumpOptions {
  std::string table;
  std::string key;
  bool text = false;
  size_t limit = 0;  // 0: all
  std::string group;
  std::string source;
};

// The table's directory, its summary and its codec, or the error that says
// why there are none.
struct Opened {
  Mem::RootPath root;
  Brume::Survey::TableStat stat;
  const ValueCodec* codec;
  bool routes;
};

// An entry of a registered type as dump and lookup print it: routes as one
// line unless `text`, else the Value(...) form; *damaged when the record
// holds a field out of its range.
std::string entryLine(const Opened& t, bool text, const StoredEntry& e, bool* damaged) {
  return shownOrDamaged(
      t.codec->keyText(e.bytes.data()),
      [&] { return t.routes && !text ? routeLine(routeOf(e.bytes)) : t.codec->text(e.bytes.data()); }, damaged);
}

Opened open(const std::string& table) {
  Brume::Survey::Problem problem{};
  std::string error;
  std::optional<Mem::RootPath> root = Brume::Survey::locateTable(table, &problem, &error);
  if (!root) throw CommandError(problem == Brume::Survey::Problem::badName ? kExitUsage : kExitNotFound, error);
  if (std::string damage = Brume::Survey::headerFinding(*root); !damage.empty()) {
    throw CommandError(kExitDamaged, table + " is damaged: " + damage + " (mroutectl validate says more)");
  }
  Brume::Survey::TableStat stat = Brume::Survey::statTable(table);
  const ValueCodec* codec = Brume::Survey::findValueCodec(stat.valueType, stat.valueSize);
  const bool routes = codec != nullptr && holdsRoutes(*codec);
  return Opened{*root, std::move(stat), codec, routes};
}

void runDump(const DumpOptions& o, Context& ctx) {
  const Opened t = open(o.table);
  const RouteFilter filter = RouteFilter::fromText(o.group, o.source);
  if (filter.active() && !t.routes) {
    throw CommandError(kExitUsage, o.table + " holds " + t.stat.valueType +
                                       ", not routes: --group and --source apply to route tables");
  }
  std::vector<StoredEntry> entries;
  std::string error;
  if (!Brume::Survey::readEntries(t.root, &entries, &error)) {
    throw CommandError(kExitDamaged, o.table + " is damaged: " + error + " (mroutectl validate says more)");
  }
  if (t.routes) {
    std::erase_if(entries, [&](const StoredEntry& e) { return !filter.matches(routeOf(e.bytes).key()); });
    // By group, (*,G) before the group's (S,G) routes.
    auto order = [](const StoredEntry& e) {
      const auto k = routeOf(e.bytes).key();
      return std::tuple(k.g(), k.s().length() != 0, k.s());
    };
    std::sort(entries.begin(), entries.end(),
              [&](const StoredEntry& a, const StoredEntry& b) { return order(a) < order(b); });
  } else if (t.codec != nullptr) {
    std::sort(entries.begin(), entries.end(), [&](const StoredEntry& a, const StoredEntry& b) {
      return t.codec->keyLess(a.bytes.data(), b.bytes.data());
    });
  }
  const size_t total = entries.size();
  if (o.limit != 0 && entries.size() > o.limit) entries.resize(o.limit);
  if (ctx.json) {
    Json items = Json::array();
    size_t damaged = 0;
    for (const StoredEntry& e : entries) {
      items.push_back(entryJson(t.codec, e));
      damaged += items.back().contains("damaged") ? 1 : 0;
    }
    ctx.out << jsonText(Json{{"table", o.table}, {"valueType", t.stat.valueType}, {"matching", total},
                    {"entries", items}})
            << "\n";
    if (damaged != 0) {
      throw CommandError(kExitDamaged, o.table + " holds " + std::to_string(damaged) +
                                           " damaged record(s) (mroutectl validate says more)");
    }
    return;
  }
  size_t damaged = 0;
  for (const StoredEntry& e : entries) {
    bool bad = false;
    if (t.codec != nullptr) {
      ctx.out << entryLine(t, o.text, e, &bad) << "\n";
    } else {
      ctx.out << "slot " << e.slot << ":\n" << Brume::Survey::hexText(e.bytes.data(), e.bytes.size()) << "\n";
    }
    damaged += bad ? 1 : 0;
  }
  if (entries.size() < total) {
    ctx.err << "mroutectl dump: " << entries.size() << " of " << total << " entries shown (--limit)\n";
  }
  if (damaged != 0) {
    throw CommandError(kExitDamaged, o.table + " holds " + std::to_string(damaged) +
                                         " damaged record(s) (mroutectl validate says more)");
  }
}

void runLookup(const DumpOptions& o, Context& ctx) {
  const Opened t = open(o.table);
  if (t.codec == nullptr || !t.codec->lookup) {
    throw CommandError(kExitUsage, o.table + " holds " + t.stat.valueType +
                                       ", whose keys this tool cannot read from text (mroutectl dump shows it)");
  }
  std::optional<Brume::Survey::ValueBytes> bytes;
  try {
    bytes = t.codec->lookup(t.root, o.key);
  } catch (const std::invalid_argument& e) {
    throw CommandError(kExitUsage, "bad key '" + o.key + "' for " + t.stat.valueType + ": " + e.what());
  } catch (const std::runtime_error& e) {
    if (dynamic_cast<const CommandError*>(&e)) throw;
    throw CommandError(kExitDamaged, o.table + " cannot be read: " + e.what() + " (mroutectl validate says more)");
  }
  if (!bytes) throw CommandError(kExitNotFound, "no entry for " + o.key + " in " + o.table);
  const StoredEntry e{0, *bytes};
  if (ctx.json) {
    Json j = entryJson(t.codec, e);
    j.erase("slot");
    ctx.out << jsonText(j) << "\n";
    return;
  }
  bool damaged = false;
  ctx.out << entryLine(t, o.text, e, &damaged) << "\n";
  if (damaged) throw CommandError(kExitDamaged, o.table + ": the entry for " + o.key + " is a damaged record");
}

}  // namespace

void addDumpCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<DumpOptions>();
  CliCommand dump = app.addCommand("dump", "print a table's entries");
  dump.footer(
      "Routes print one per line, sorted by group and source; entries of other registered types in\n"
      "their Value(...) text form, of unknown types as bytes in hex. Read-only.");
  dump.addOption("table", &o->table, "<mount path>/<name>").required();
  dump.addFlag("--text", &o->text, "routes in their Value(...) text form");
  dump.addOption("--limit", &o->limit, "print at most N entries (the count goes to stderr)").optionText("N");
  dump.addOption("--group", &o->group, "only routes whose group lies in this prefix").optionText("PREFIX");
  dump.addOption("--source", &o->source, "only routes whose source lies in this prefix").optionText("PREFIX");
  addJsonFlag(dump, ctx);
  dump.callback([o, &ctx] { runDump(*o, ctx); });

  CliCommand lookup = app.addCommand("lookup", "print one entry of a table by its key");
  lookup.footer("Routes are named as displayed, e.g. '(*,239.1.1.1)', or by a text form. Exit 3: no entry.");
  lookup.addOption("table", &o->table, "<mount path>/<name>").required();
  lookup.addOption("key", &o->key, "the key").required();
  lookup.addFlag("--text", &o->text, "the route in its Value(...) text form");
  addJsonFlag(lookup, ctx);
  lookup.callback([o, &ctx] { runLookup(*o, ctx); });
}

}  // namespace Mroutectl
