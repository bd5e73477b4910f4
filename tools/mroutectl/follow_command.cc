// mroutectl follow <table>: prints a route table's changes as its writer
// notifies them, one line per change (change_printer.h).
#include <chrono>
#include <csignal>
#include <optional>
#include <ostream>
#include <string>

#include "change_printer.h"
#include "command.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/shm_root.h"
#include "table_access.h"

namespace Mroutectl {
namespace {

volatile std::sig_atomic_t gStop = 0;

void followUsage(std::ostream& os) {
  os << "usage: mroutectl follow <mount path>/<name> [--seconds N] [--text] [--wait]\n"
        "  Attaches as a reader and prints each change as the writer notifies it: '+' added, '~' changed\n"
        "  (with what changed), '-' removed; until interrupted or N seconds have passed.\n"
        "  --text   routes in their Value(...) text form\n"
        "  --wait   the table need not exist yet: wait for its writer to create it\n";
}

struct FollowArgs {
  std::string table;
  double seconds = -1;  // until interrupted
  bool text = false;
  bool wait = false;
};

bool parse(const Args& args, FollowArgs* f, std::ostream& err) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--text") {
      f->text = true;
    } else if (args[i] == "--wait") {
      f->wait = true;
    } else if (args[i] == "--seconds") {
      if (i + 1 == args.size() || !parseSeconds(args[i + 1], &f->seconds)) {
        err << "mroutectl follow: --seconds needs a number of seconds\n";
        return false;
      }
      ++i;
    } else if (f->table.empty() && !args[i].starts_with("-")) {
      f->table = args[i];
    } else {
      followUsage(err);
      return false;
    }
  }
  if (f->table.empty()) followUsage(err);
  return !f->table.empty();
}

int followRun(const Args& args, std::ostream& out, std::ostream& err) {
  FollowArgs f;
  if (!parse(args, &f, err)) return kExitUsage;
  std::string mount, name, error;
  if (!splitTable(f.table, &mount, &name)) {
    err << "mroutectl follow: '" << f.table << "' is not <mount path>/<name>\n";
    return kExitUsage;
  }
  if (!locateTable(f.table, &error)) {
    if (!f.wait || !error.starts_with("no table")) {
      err << "mroutectl follow: " << error << (f.wait ? "" : " (--wait waits for its writer)") << "\n";
      return kExitUsage;
    }
  } else if (const TableSummary s = summarize(f.table); s.readable && s.valueType != Route::kTypeName) {
    err << "mroutectl follow: " << f.table << " holds " << s.valueType << ", not routes\n";
    return kExitUsage;
  }
  std::signal(SIGINT, [](int) { gStop = 1; });
  std::signal(SIGTERM, [](int) { gStop = 1; });
  Mroute::Loop::EventLoop loop;
  RouteMap routes(loop, mount, name, Brume::BrumeType::shadow);
  ChangePrinter printer(f.text);
  routes.forEachKey([&](const auto& k) {
    if (const auto v = routes.lookup(k)) printer.seed(v->value);
  });
  const bool writer = writerPid(routes.tablePath()) != 0;
  out << "following " << f.table << ": "
      << (routes.ready()
              ? "attached, " + std::to_string(printer.routes()) + " routes (mroutectl dump lists them)"
              : "waiting for its writer")
      << (writer ? "" : "; no writer runs now") << "\n"
      << std::flush;
  routes.onReadyIs([&](bool ready) {
    out << (ready ? "attached, " + std::to_string(routes.members()) + " routes"
                  : "detached: the writer went away")
        << "\n"
        << std::flush;
  });
  routes.onChangeIs([&](const Routing::Multicast::Fib::IpGenRouteKey& k) {
    const auto v = routes.lookup(k);
    out << printer.change(k, v ? std::optional<Route>(v->value) : std::nullopt) << "\n" << std::flush;
  });
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<int64_t>(f.seconds * 1000));
  while (gStop == 0 && (f.seconds < 0 || std::chrono::steady_clock::now() < end)) {
    loop.runOnce(std::chrono::milliseconds(100));
  }
  return kExitOk;
}

}  // namespace

const Subcommand followCommand{"follow", "print a route table's changes live", followUsage, followRun};

}  // namespace Mroutectl
