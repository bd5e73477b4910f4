// mroutectl follow <table>: prints a table's changes as its writer notifies
// them, one line per change (change_printer.h), each with the time it was
// seen; any table whose value type is registered (value_codec.h) can be
// followed. --group/--source keep the routes of interest; the last line says
// truthfully why following stopped.

#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>

#include "change_printer.h"
#include "command.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/survey/table_survey.h"
#include "route_filter.h"
#include "route_table.h"
#include "route_text.h"
#include "stored_types.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

volatile std::sig_atomic_t gSignal = 0;

struct FollowOptions {
  std::string table;
  double seconds = -1;  // until interrupted
  bool text = false;
  bool wait = false;
  std::string group;
  std::string source;
};

// "2026-11-23T03:10:49.123Z": UTC, milliseconds.
std::string now() {
  const auto t = std::chrono::system_clock::now();
  const std::time_t secs = std::chrono::system_clock::to_time_t(t);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() % 1000;
  std::tm tm{};
  gmtime_r(&secs, &tm);
  char buf[96];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
  return buf;
}

class Output {
 public:
  explicit Output(Context& ctx) : ctx_(ctx) {}
  // One event: a line "<time> <text>", or one JSON object a line.
  void event(const std::string& name, const std::string& text, Json fields = Json::object()) {
    if (ctx_.json) {
      Json j;
      j["time"] = now();
      j["event"] = name;
      for (auto& [k, v] : fields.items()) j[k] = v;
      ctx_.out << jsonText(j) << std::endl;
    } else {
      ctx_.out << now() << " " << text << std::endl;
    }
  }

 private:
  Context& ctx_;
};

// The key of a route change: from the value, or the value last seen, or
// (a removal never seen) the key's display text.
std::optional<Routing::Multicast::Fib::IpGenRouteKey> routeKeyOf(const std::string& key,
                                                                const ChangePrinter::Change& c) {
  if (c.now) return routeOf(*c.now).key();
  if (c.before) return routeOf(*c.before).key();
  try {
    return routeKeyFromText(key);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void runFollow(const FollowOptions& o, Context& ctx) {
  const RouteFilter filter = RouteFilter::fromText(o.group, o.source);
  Brume::Survey::Problem problem{};
  std::string error;
  const bool present = Brume::Survey::locateTable(o.table, &problem, &error).has_value();
  if (!present && problem == Brume::Survey::Problem::badName) throw CommandError(kExitUsage, error);
  if (!present && !o.wait) throw CommandError(kExitNotFound, error + " (--wait waits for its writer to create it)");
  // A table not made yet is taken for a route table, the kind --wait is for.
  const Brume::Survey::TableStat stat = Brume::Survey::statTable(o.table);
  const Brume::Survey::ValueCodec* codec =
      stat.readable ? Brume::Survey::findValueCodec(stat.valueType, stat.valueSize)
                    : Brume::Survey::findValueCodec(Route::kTypeName, sizeof(RouteValue));
  if (codec == nullptr || !codec->follow) {
    throw CommandError(kExitUsage, o.table + " holds " + stat.valueType +
                                       ", a type this tool does not know: it cannot follow it (mroutectl dump "
                                       "shows its bytes)");
  }
  if (filter.active() && !holdsRoutes(*codec)) {
    throw CommandError(kExitUsage, o.table + " holds " + stat.valueType +
                                       ", not routes: --group and --source apply to route tables");
  }
  const size_t slash = o.table.rfind('/');
  std::signal(SIGINT, [](int n) { gSignal = n; });
  std::signal(SIGTERM, [](int n) { gSignal = n; });
  Mroute::Loop::EventLoop loop;
  // An operator watching a table wants its writer's restart seen within a
  // second, not after the default retry period.
  Brume::BrumeMapOptions options;
  options.remountPeriod = std::chrono::seconds(1);
  const std::unique_ptr<Brume::Survey::TableFollower> table =
      codec->follow(loop, o.table.substr(0, slash), o.table.substr(slash + 1), options);
  ChangePrinter printer(*codec, o.text);
  Output output(ctx);
  for (const ValueBytes& v : table->entries()) printer.seed(v);
  const bool writer = Brume::Survey::writerPid(table->tablePath()) != 0;
  output.event("following",
               "following " + o.table + ": " +
                   (table->ready() ? "attached, " + std::to_string(printer.entries()) +
                                         " entries (mroutectl dump lists them)"
                                   : "waiting for its writer") +
                   (writer ? "" : "; no writer runs now"),
               Json{{"table", o.table}, {"valueType", codec->typeName}, {"attached", table->ready()},
                    {"entries", printer.entries()}, {"writerRunning", writer}});
  table->onReadyIs([&](bool ready) {
    if (ready) {
      const size_t n = table->entries().size();
      output.event("attached", "attached, " + std::to_string(n) + " entries", Json{{"entries", n}});
    } else {
      output.event("detached", "detached: the writer stopped or was replaced; waiting for it to come back");
    }
  });
  uint64_t shown = 0;
  table->onChangeIs([&](const std::string& key, const ValueBytes* now) {
    const ChangePrinter::Change c = printer.classify(key, now);
    if (filter.active()) {
      const auto k = routeKeyOf(key, c);
      if (!k || !filter.matches(*k)) return;
    }
    ++shown;
    Json fields{{"key", key}};
    if (c.now) fields["text"] = shownOrDamaged("", [&] { return codec->text(c.now->data()); });
    if (!c.diff.empty()) fields["changes"] = c.diff;
    output.event(c.mark == '+' ? "added" : c.mark == '~' ? "changed" : "removed", printer.line(key, c), fields);
  });
  const auto start = std::chrono::steady_clock::now();
  const auto end = start + std::chrono::milliseconds(static_cast<int64_t>(o.seconds * 1000));
  while (gSignal == 0 && (o.seconds < 0 || std::chrono::steady_clock::now() < end)) {
    loop.runOnce(std::chrono::milliseconds(100));
  }
  // Closing the table detaches it; that is not news about the writer.
  table->onReadyIs(nullptr);
  table->onChangeIs(nullptr);
  const bool writerNow = Brume::Survey::writerPid(table->tablePath()) != 0;
  const std::string reason = gSignal == SIGINT    ? "interrupted (SIGINT)"
                             : gSignal == SIGTERM ? "terminated (SIGTERM)"
                                                  : "--seconds passed";
  output.event("stopped",
               "stopped: " + reason + "; " + std::to_string(shown) + " changes shown; " +
                   (writerNow ? "the writer still runs" : "no writer runs"),
               Json{{"reason", gSignal == 0 ? "time" : gSignal == SIGINT ? "interrupted" : "terminated"},
                    {"changes", shown}, {"writerRunning", writerNow}});
}

}  // namespace

void addFollowCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<FollowOptions>();
  CliCommand sub = app.addCommand("follow", "print a table's changes live");
  sub.footer(
      "Attaches as a reader and prints each change as the writer notifies it, with the time it was\n"
      "seen: '+' added, '~' changed (routes: with what changed), '-' removed; until interrupted or N\n"
      "seconds have passed. Routes print one per line, other values in their Value(...) text form.\n"
      "The last line says why it stopped.");
  sub.addOption("table", &o->table, "<mount path>/<name>").required();
  addSecondsOption(sub, &o->seconds, "stop after N seconds");
  sub.addFlag("--text", &o->text, "routes in their Value(...) text form");
  sub.addFlag("--wait", &o->wait, "the table need not exist yet: wait for its writer to create it");
  sub.addOption("--group", &o->group, "only routes whose group lies in this prefix").optionText("PREFIX");
  sub.addOption("--source", &o->source, "only routes whose source lies in this prefix").optionText("PREFIX");
  addJsonFlag(sub, ctx);
  sub.callback([o, &ctx] { runFollow(*o, ctx); });
}

}  // namespace Mroutectl
