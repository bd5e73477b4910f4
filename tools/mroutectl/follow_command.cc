// mroutectl follow <table>: prints a route table's changes as its writer
// notifies them, one line per change (change_printer.h), each with the time
// it was seen; --group/--source keep the routes of interest; the last line
// says truthfully why following stopped.
#include <CLI/CLI.hpp>

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

void runFollow(const FollowOptions& o, Context& ctx) {
  const RouteFilter filter = RouteFilter::fromText(o.group, o.source);
  Brume::Survey::Problem problem{};
  std::string error;
  if (!Brume::Survey::locateTable(o.table, &problem, &error)) {
    if (problem == Brume::Survey::Problem::badName) throw CommandError(kExitUsage, error);
    if (!o.wait) throw CommandError(kExitNotFound, error + " (--wait waits for its writer to create it)");
  } else if (const auto s = Brume::Survey::statTable(o.table); s.readable && s.valueType != Route::kTypeName) {
    throw CommandError(kExitUsage, o.table + " holds " + s.valueType + ": follow shows route tables (mroutectl dump "
                                                                       "shows this one)");
  }
  const size_t slash = o.table.rfind('/');
  std::signal(SIGINT, [](int n) { gSignal = n; });
  std::signal(SIGTERM, [](int n) { gSignal = n; });
  Mroute::Loop::EventLoop loop;
  // An operator watching a table wants its writer's restart seen within a
  // second, not after the default retry period.
  Brume::BrumeMapOptions options;
  options.remountPeriod = std::chrono::seconds(1);
  RouteMap routes(loop, o.table.substr(0, slash), o.table.substr(slash + 1), Brume::BrumeType::shadow, options);
  ChangePrinter printer(o.text);
  Output output(ctx);
  routes.forEachKey([&](const auto& k) {
    if (const auto v = routes.lookup(k)) printer.seed(v->value);
  });
  const bool writer = Brume::Survey::writerPid(routes.tablePath()) != 0;
  output.event("following",
               "following " + o.table + ": " +
                   (routes.ready() ? "attached, " + std::to_string(printer.routes()) +
                                         " routes (mroutectl dump lists them)"
                                   : "waiting for its writer") +
                   (writer ? "" : "; no writer runs now"),
               Json{{"table", o.table}, {"attached", routes.ready()}, {"entries", printer.routes()},
                    {"writerRunning", writer}});
  routes.onReadyIs([&](bool ready) {
    if (ready) {
      output.event("attached", "attached, " + std::to_string(routes.members()) + " routes",
                   Json{{"entries", routes.members()}});
    } else {
      output.event("detached", "detached: the writer stopped or was replaced; waiting for it to come back");
    }
  });
  uint64_t shown = 0;
  routes.onChangeIs([&](const Routing::Multicast::Fib::IpGenRouteKey& k) {
    const auto v = routes.lookup(k);
    const ChangePrinter::Change c = printer.classify(k, v ? std::optional<Route>(v->value) : std::nullopt);
    if (!filter.matches(k)) return;
    ++shown;
    Json fields{{"key", keyText(k)}};
    if (c.route) {
      std::ostringstream text;
      text << *c.route;
      fields["text"] = text.str();
    }
    if (!c.diff.empty()) fields["changes"] = c.diff;
    output.event(c.mark == '+' ? "added" : c.mark == '~' ? "changed" : "removed", printer.line(k, c), fields);
  });
  const auto start = std::chrono::steady_clock::now();
  const auto end = start + std::chrono::milliseconds(static_cast<int64_t>(o.seconds * 1000));
  while (gSignal == 0 && (o.seconds < 0 || std::chrono::steady_clock::now() < end)) {
    loop.runOnce(std::chrono::milliseconds(100));
  }
  // Closing the table detaches it; that is not news about the writer.
  routes.onReadyIs(nullptr);
  routes.onChangeIs(nullptr);
  const bool writerNow = Brume::Survey::writerPid(routes.tablePath()) != 0;
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

void addFollowCommand(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<FollowOptions>();
  CLI::App* sub = app.add_subcommand("follow", "print a route table's changes live");
  sub->footer(
      "Attaches as a reader and prints each change as the writer notifies it, with the time it was\n"
      "seen: '+' added, '~' changed (with what changed), '-' removed; until interrupted or N seconds\n"
      "have passed. The last line says why it stopped.");
  sub->add_option("table", o->table, "<mount path>/<name>")->required();
  addSecondsOption(*sub, &o->seconds, "stop after N seconds");
  sub->add_flag("--text", o->text, "routes in their Value(...) text form");
  sub->add_flag("--wait", o->wait, "the table need not exist yet: wait for its writer to create it");
  sub->add_option("--group", o->group, "only routes whose group lies in this prefix")->option_text("PREFIX");
  sub->add_option("--source", o->source, "only routes whose source lies in this prefix")->option_text("PREFIX");
  addJsonFlag(*sub, ctx);
  sub->callback([o, &ctx] { runFollow(*o, ctx); });
}

}  // namespace Mroutectl
