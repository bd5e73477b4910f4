// mroutectl tables (alias: list): the tables under the shared-memory root,
// one aligned row each; --verbose adds the health of each table's queue.
// mroutectl stat <table>: one table's summary and health.

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <memory>
#include <ostream>
#include <sstream>

#include "command.h"
#include "mroute/entity/kiv/type_registry.h"
#include "mroute/table/shm_root.h"
#include "table_json.h"

namespace Mroutectl {

using Brume::Survey::TableStat;

namespace {

// Sequences the slowest connected reader has yet to acknowledge.
uint64_t lag(const TableStat& s) { return s.newestSequence > s.oldestNeeded ? s.newestSequence - s.oldestNeeded : 0; }

// A time from the health file as UTC text; null when never.
Json timeJson(uint64_t ns) {
  if (ns == 0) return nullptr;
  const std::time_t t = static_cast<std::time_t>(ns / 1000000000u);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) return nullptr;
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return std::string(buf);
}

Json healthJson(const TableStat& s) {
  if (!s.health) return s.healthProblem.empty() ? Json(nullptr) : Json{{"problem", s.healthProblem}};
  const TableStat::Health& h = *s.health;
  Json j;
  j["writerPid"] = h.writerPid;
  j["compactions"] = h.compactions;
  j["lastCompaction"] = h.lastCompactionNs == 0
                            ? Json(nullptr)
                            : Json{{"time", timeJson(h.lastCompactionNs)}, {"entries", h.lastCompactionKept}};
  j["corruptionReports"] = h.corruptionReports;
  j["lastCorruptionReport"] =
      h.lastReportNs == 0 ? Json(nullptr) : Json{{"time", timeJson(h.lastReportNs)}, {"text", h.lastReport}};
  j["readersDropped"] = h.readersDropped;
  j["readersUnlisted"] = h.unlisted;
  Json readers = Json::array();
  for (const TableStat::Reader& r : h.readers) {
    Json o;
    o["pid"] = r.pid;
    o["state"] = r.state;
    o["since"] = timeJson(r.connectedNs);
    o["goneAt"] = timeJson(r.goneNs);
    o["lastAck"] = r.acked ? Json(r.lastAck) : Json(nullptr);
    // The reader's own claim may run ahead of the queue (an older writer).
    o["lag"] = r.acked ? Json(s.newestSequence > r.lastAck ? s.newestSequence - r.lastAck : 0) : Json(nullptr);
    o["restarts"] = r.restarts;
    o["lookasideReads"] = r.lookasideReads;
    o["resyncs"] = r.resyncs;
    readers.push_back(o);
  }
  j["readers"] = readers;
  return j;
}

}  // namespace

Json statJson(const TableStat& s) {
  Json j;
  j["table"] = s.table;
  j["dir"] = s.dir;
  j["readable"] = s.readable;
  if (s.readable) {
    j["valueType"] = s.valueType;
    j["registered"] = Kiv::findType(s.valueType) != nullptr;
    j["valueSize"] = s.valueSize;
    j["entries"] = s.entries;
    j["capacity"] = s.capacity;
    j["maxSlots"] = s.maxSlots;
    j["fixedCapacity"] = s.fixedCapacity;
    j["incarnation"] = s.fileEmber;
    j["incarnationMatches"] = s.ember == s.fileEmber;
  }
  j["writerPid"] = s.writerPid > 0 ? Json(s.writerPid) : Json(nullptr);
  j["writerRunning"] = s.writerPid != 0;
  j["readers"] = s.writerPid != 0 ? Json(s.readers) : Json(nullptr);
  Json q;
  q["file"] = s.queueFile;
  q["entries"] = s.queueEntries;
  q["capacity"] = s.queueCapacity;
  q["newestSequence"] = s.newestSequence;
  q["oldestNeeded"] = s.oldestNeeded;
  q["slowestReaderLag"] = s.writerPid != 0 && s.readers != 0 ? Json(lag(s)) : Json(nullptr);
  q["shrinking"] = s.shrinking;
  j["queue"] = q;
  j["corruptionReported"] = s.corruptionReported;
  j["health"] = healthJson(s);
  return j;
}

namespace {

std::string hex(uint32_t v) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(8) << std::setfill('0') << v;
  return os.str();
}

std::string notes(const TableStat& s) {
  std::string n;
  if (s.ember != s.fileEmber) n += "incarnation file says " + hex(s.ember) + "; ";
  if (s.corruptionReported) n += "CORRUPTION REPORTED by a reader; ";
  if (!n.empty()) n.resize(n.size() - 2);
  return n;
}


std::vector<std::string> row(const TableStat& s, bool verbose) {
  const bool running = s.writerPid != 0;
  std::vector<std::string> r;
  if (!s.readable) {
    r = {s.table, "?", "?", "?", running ? "running" : "none", "-", "slot file unreadable"};
  } else {
    r = {s.table,
         s.valueType,
         std::to_string(s.entries),
         std::to_string(s.capacity),
         running ? (s.writerPid > 0 ? "pid " + std::to_string(s.writerPid) : "running") : "none",
         running ? std::to_string(s.readers) : "-",
         notes(s)};
  }
  if (verbose) {
    const bool readers = running && s.readers != 0;
    const bool h = s.health.has_value();
    r.insert(r.end() - 1, {s.queueFile.empty() ? "-" : s.queueFile, std::to_string(s.newestSequence),
                           readers ? std::to_string(lag(s)) : "-",
                           hex(s.fileEmber),
                           h && timeJson(s.health->lastCompactionNs).is_string()
                               ? timeJson(s.health->lastCompactionNs).get<std::string>() + " (" +
                                     std::to_string(s.health->lastCompactionKept) + ")"
                               : "-",
                           h ? std::to_string(s.health->corruptionReports) : "-"});
  }
  return r;
}

void printRows(std::vector<std::vector<std::string>> rows, std::ostream& out) {
  std::vector<size_t> width(rows[0].size(), 0);
  for (const auto& r : rows) {
    for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
  }
  for (const auto& r : rows) {
    std::string line;
    for (size_t c = 0; c < r.size(); ++c) {
      const std::string pad(width[c] - r[c].size(), ' ');
      const bool number = !r[c].empty() && std::all_of(r[c].begin(), r[c].end(), ::isdigit);
      line += (c == 0 ? "" : "  ") + (number ? pad + r[c] : r[c] + pad);
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
}

void requireRoot() {
  if (const std::string why = Brume::Survey::rootProblem(); !why.empty()) throw CommandError(kExitNotFound, why);
}

void runTables(bool verbose, Context& ctx) {
  requireRoot();
  const std::string root = Brume::shmRootDirectory();
  const auto tables = Brume::Survey::listTables(root);
  if (ctx.json) {
    Json list = Json::array();
    for (const std::string& t : tables) list.push_back(statJson(Brume::Survey::statTable(t)));
    ctx.out << jsonText(Json{{"root", root}, {"tables", list}}) << "\n";
    return;
  }
  if (tables.empty()) {
    ctx.out << "no tables under " << root << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows = {
      {"TABLE", "VALUE TYPE", "ENTRIES", "CAPACITY", "WRITER", "READERS", "NOTES"}};
  if (verbose) {
    rows[0].insert(rows[0].end() - 1, {"QUEUE", "NEWEST SEQ", "LAG", "INCARNATION", "LAST COMPACTION (KEPT)", "REPORTS"});
  }
  std::vector<std::vector<std::string>> readerRows = {
      {"TABLE", "READER PID", "STATE", "LAG", "RESTARTS", "LOOKASIDE READS", "RESYNCS"}};
  for (const std::string& t : tables) {
    const TableStat s = Brume::Survey::statTable(t);
    rows.push_back(row(s, verbose));
    if (!verbose || !s.health) continue;
    for (const TableStat::Reader& r : s.health->readers) {
      const uint64_t l = s.newestSequence > r.lastAck ? s.newestSequence - r.lastAck : 0;
      readerRows.push_back({t, std::to_string(r.pid), r.state, r.acked ? std::to_string(l) : "-",
                            std::to_string(r.restarts), std::to_string(r.lookasideReads), std::to_string(r.resyncs)});
    }
  }
  printRows(std::move(rows), ctx.out);
  if (readerRows.size() > 1) {
    ctx.out << "\n";
    printRows(std::move(readerRows), ctx.out);
  }
}

void runStat(const std::string& table, Context& ctx) {
  Brume::Survey::Problem problem{};
  std::string error;
  if (!Brume::Survey::locateTable(table, &problem, &error)) {
    throw CommandError(problem == Brume::Survey::Problem::badName ? kExitUsage : kExitNotFound, error);
  }
  const TableStat s = Brume::Survey::statTable(table);
  if (ctx.json) {
    ctx.out << jsonText(statJson(s)) << "\n";
    return;
  }
  const Json j = statJson(s);
  for (const auto& [field, value] : j.items()) {
    if (field == "queue") {
      for (const auto& [qf, qv] : value.items()) ctx.out << "queue." << qf << ": " << jsonText(qv) << "\n";
    } else if (field == "health" && value.is_object()) {
      for (const auto& [hf, hv] : value.items()) {
        if (hf != "readers") ctx.out << "health." << hf << ": " << jsonText(hv) << "\n";
      }
      for (const auto& r : value.value("readers", Json::array())) ctx.out << "health.reader: " << jsonText(r) << "\n";
    } else {
      ctx.out << field << ": " << (value.is_string() ? value.get<std::string>() : jsonText(value)) << "\n";
    }
  }
  if (s.writerPid == 0) ctx.out << "(no writer runs: readers and queue figures are those it left behind)\n";
}

}  // namespace

void addTablesCommand(CommandLine& app, Context& ctx) {
  auto verbose = std::make_shared<bool>(false);
  CliCommand tables = app.addCommand("tables", "list the shared-memory tables and their health");
  tables.alias("list");
  tables.footer(
      "Columns: value type, entries, capacity, the writer process and the readers connected to it.\n"
      "--verbose adds the notification queue: its current file, the newest sequence, the lag of the\n"
      "slowest reader in sequences, and the writer's incarnation id.");
  tables.addFlag("--verbose,-v", verbose.get(), "add the queue's health");
  addJsonFlag(tables, ctx);
  tables.callback([verbose, &ctx] { runTables(*verbose, ctx); });

  auto table = std::make_shared<std::string>();
  CliCommand stat = app.addCommand("stat", "one table's summary and health");
  stat.addOption("table", table.get(), "<mount path>/<name>").required();
  addJsonFlag(stat, ctx);
  stat.callback([table, &ctx] { runStat(*table, ctx); });
}

}  // namespace Mroutectl
