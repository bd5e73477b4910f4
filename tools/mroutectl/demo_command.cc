// mroutectl demo: a writer process publishes routes and a reader process
// follows them; what the reader sees is printed, one line per change
// (change_printer.h). The tables stay for the
// other subcommands to look at.
//
// The two processes hand off through pipes, not through timing: the writer
// starts changing routes once the reader has attached, and leaves once the
// reader has seen the last change, so a slow or busy machine shows the same
// story as a quiet one.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <iostream>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "change_printer.h"
#include "command.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/shm_root.h"
#include "route_table.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

using Clock = std::chrono::steady_clock;
using Routing::Multicast::Fib::IpGenRouteKey;

// The demo's routes: (*,G) and (S,G) entries of a small PIM router, each
// with an incoming interface, a few oif indexes and the flags a programmed
// route carries.
struct DemoRoute {
  const char* source;  // "*" for (*,G)
  const char* group;
  const char* iif;
  std::vector<uint16_t> oifs;
};

const std::vector<DemoRoute>& demoRoutes() {
  static const std::vector<DemoRoute> routes = {
      {"*", "239.1.1.1", "Ethernet1", {3, 7}},
      {"10.0.0.1", "239.1.1.1", "Ethernet2", {3, 7, 12}},
      {"*", "239.1.1.2", "Vlan100", {4}},
      {"10.0.0.2", "239.1.1.2", "Ethernet2", {4, 9}},
      {"10.1.5.20", "232.1.1.1", "Port-Channel7", {12, 15, 40}},
      {"*", "239.255.0.1", "Vlan200", {5, 6}},
  };
  return routes;
}

IpGenRouteKey demoKey(const DemoRoute& d) {
  const std::string s = d.source == std::string("*") ? "0.0.0.0/0" : std::string(d.source) + "/32";
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText(s),
                       Orvet::IpGenPrefix::fromText(std::string(d.group) + "/32"));
}

// Sets oif `i`, raising maxOifIndex with it so that the oif walk reaches it.
void addOif(Route& r, uint16_t i) {
  r.oifIs(Brume::Multicast::Fib::OifIndex(i), true);
  if (r.maxOifIndex().isNull() || r.maxOifIndex().value() < i)
    r.maxOifIndexIs(Brume::Multicast::Fib::OifIndex(i));
}

Route demoRoute(const DemoRoute& d) {
  Route r(demoKey(d));
  r.iifIs(Orvet::IntfId(d.iif));
  for (uint16_t i : d.oifs) addOif(r, i);
  Route::RouteFlags flags;
  flags.validIs(true);
  flags.programmableIs(d.source != std::string("*"));
  r.routeFlagsIs(flags);
  return r;
}

// The descriptors a demo process uses to hear from and speak to the other:
// `hear` is read, `tell` is written; -1 when unused.
struct Handoff {
  int hear = -1;
  int tell = -1;
};

void tell(int fd) {
  const char byte = 1;
  while (::write(fd, &byte, 1) < 0 && errno == EINTR) {
  }
}

// Runs `loop` until a byte arrives on `fd` or the other end closes (false),
// or `limit` passes (false). The loop keeps serving the table meanwhile.
bool hear(Mroute::Loop::EventLoop& loop, int fd, std::chrono::milliseconds limit) {
  enum { waiting, heard, closed } state = waiting;
  Mroute::Loop::FdWatch watch(loop, fd);
  watch.onReadableIs([&] {
    char byte = 0;
    const ssize_t n = ::read(fd, &byte, 1);
    if (n > 0) state = heard;
    else if (n == 0 || errno != EINTR) state = closed;
  });
  const auto end = Clock::now() + limit;
  while (state == waiting && Clock::now() < end) loop.runOnce(std::chrono::milliseconds(10));
  return state == heard;
}

// How long one process waits for the other before going on alone.
constexpr std::chrono::seconds kHandoffLimit{10};

// The writer: the routes above, then one change every 150 ms, in turn: an
// oif joins a route, an oif leaves one, a route is removed, a removed route
// comes back. Every write carries the next version number. It tells the
// reader when its table is up, changes nothing before the reader has
// attached, and tells the reader when it has made its last change.
int runWriter(double seconds, Handoff h) {
  Mroute::Loop::EventLoop loop;
  RouteMap routes(loop, kDemoMount, kDemoName, Brume::BrumeType::writer);
  if (!routes.ready()) {
    const std::string why = routes.attachStatus().message;
    std::cerr << "mroutectl demo: the writer cannot open its table: " << (why.empty() ? "no reason given" : why)
              << "\n";
    return 1;
  }
  const auto& all = demoRoutes();
  uint32_t version = 0;
  auto publish = [&](Route r) {
    r.versionIs(++version);
    routes.write(RouteValue(r));
  };
  for (const DemoRoute& d : all) publish(demoRoute(d));
  tell(h.tell);  // the table is up
  hear(loop, h.hear, kHandoffLimit);  // the reader has attached
  // The index of the route that is away, or all.size() when none is.
  size_t removed = all.size();
  const auto end = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  auto next = Clock::now();
  for (uint32_t step = 0; Clock::now() < end; ++step) {
    next += std::chrono::milliseconds(150);
    while (Clock::now() < next) loop.runOnce(std::chrono::milliseconds(10));
    const size_t i = (step / 4 + step) % all.size();
    const auto current = routes.lookup(demoKey(all[i]));
    switch (step % 4) {
      case 0:  // an oif joins
        if (current) {
          Route r = current->value;
          addOif(r, static_cast<uint16_t>(20 + step % 30));
          publish(r);
        }
        break;
      case 1:  // the highest oif leaves
        if (current) {
          Route r = current->value;
          Brume::Multicast::Fib::OifIndex last = Brume::Multicast::Fib::OifIndex::null;
          for (auto o : r.oifIteratorConst()) last = o;
          if (!last.isNull() && r.oifs() > 1) r.oifDel(last);
          publish(r);
        }
        break;
      case 2:  // a route goes away
        if (removed == all.size() && current) {
          routes.remove(demoKey(all[i]));
          removed = i;
        }
        break;
      default:  // and comes back
        if (removed != all.size()) {
          publish(demoRoute(all[removed]));
          removed = all.size();
        }
        break;
    }
  }
  // The reader says when it has seen everything; a last moment takes in its
  // acknowledgement. The files stay.
  tell(h.tell);
  hear(loop, h.hear, kHandoffLimit);
  for (int i = 0; i < 10; ++i) loop.runOnce(std::chrono::milliseconds(10));
  return 0;
}

// The reader: attaches once the writer's table is up, tells the writer so,
// and tells it again once it has seen everything after the writer's last
// change (nothing new for a while).
int runReader(double, Handoff h) {
  Mroute::Loop::EventLoop loop;
  // A table left by an earlier demo is not followed: the writer says when
  // its own is up.
  if (!hear(loop, h.hear, kHandoffLimit)) return 0;  // the writer failed, and says why
  const Brume::Survey::ValueCodec* codec = Brume::Survey::findValueCodec(Route::kTypeName, sizeof(RouteValue));
  auto routes = codec->follow(loop, kDemoMount, kDemoName, Brume::BrumeMapOptions{});
  ChangePrinter printer(*codec, false);
  // What the writer published first shows as added.
  const auto present = routes->entries();
  if (routes->ready()) std::cout << "reader: attached, " << present.size() << " routes" << std::endl;
  for (const ValueBytes& v : present) {
    const std::string key = codec->keyText(v.data());
    std::cout << "reader: " << printer.line(key, printer.classify(key, &v)) << std::endl;
  }
  // The writer hears of the first attach only: a later one (its restart)
  // must not pass for the reader having caught up.
  bool attached = routes->ready();
  routes->onReadyIs([&](bool ready) {
    std::cout << "reader: " << (ready ? "attached, " + std::to_string(routes->entries().size()) + " routes" : "detached")
              << std::endl;
    if (ready && !attached) tell(h.tell);
    attached = attached || ready;
  });
  auto lastChange = Clock::now();
  routes->onChangeIs([&](const std::string& key, const ValueBytes* now) {
    std::cout << "reader: " << printer.line(key, printer.classify(key, now)) << std::endl;
    lastChange = Clock::now();
  });
  if (attached) tell(h.tell);
  // The writer's last change is in the queue when it says so; what is left
  // arrives while the loop runs, so a quiet moment after that means caught up.
  const bool writerDone = hear(loop, h.hear, std::chrono::hours(1));
  constexpr auto quiet = std::chrono::milliseconds(300);
  const auto done = Clock::now();
  while (writerDone && Clock::now() - std::max(lastChange, done) < quiet && Clock::now() - done < kHandoffLimit) {
    loop.runOnce(std::chrono::milliseconds(20));
  }
  tell(h.tell);
  routes->onReadyIs(nullptr);  // closing the table is no news
  std::cout << "reader: done, " << routes->entries().size() << " routes in its copy" << std::endl;
  return 0;
}

// Runs `body` in a child process with its ends of the pipes, closing every
// other end it inherited; `quiet` sends its report lines nowhere.
pid_t start(int (*body)(double, Handoff), double seconds, Handoff h, const std::vector<int>& others, bool quiet) {
  std::cout.flush();
  const pid_t pid = ::fork();
  if (pid < 0) throw CommandError(kExitInternal, std::string("fork: ") + ::strerror(errno));
  if (pid == 0) {
    for (int fd : others) ::close(fd);
    if (quiet) {
      const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
      if (null >= 0) ::dup2(null, STDOUT_FILENO);
    }
    int code = 1;
    try {
      code = body(seconds, h);
    } catch (const std::exception& e) {
      std::cerr << "mroutectl demo: " << e.what() << "\n";
    }
    std::cout.flush();
    ::_exit(code);
  }
  return pid;
}

void runDemo(double seconds, Context& ctx) {
  const std::string dir = Brume::tableRoot(kDemoMount, kDemoName).dir();
  if (!ctx.json) {
    ctx.out << "demo: writer publishes routes into " << dir << " for " << seconds
            << " s; a reader process follows\n"
            << std::flush;
  }
  // toWriter carries the reader's news, toReader the writer's; a process
  // that dies closes its end, and the other stops waiting.
  int toWriter[2], toReader[2];
  if (::pipe2(toWriter, O_CLOEXEC) != 0) throw CommandError(kExitInternal, std::string("pipe: ") + ::strerror(errno));
  if (::pipe2(toReader, O_CLOEXEC) != 0) {
    ::close(toWriter[0]);
    ::close(toWriter[1]);
    throw CommandError(kExitInternal, std::string("pipe: ") + ::strerror(errno));
  }
  const pid_t reader = start(&runReader, seconds, {toReader[0], toWriter[1]}, {toReader[1], toWriter[0]}, ctx.json);
  const pid_t writer = start(&runWriter, seconds, {toWriter[0], toReader[1]}, {toWriter[1], toReader[0]}, ctx.json);
  for (int fd : {toWriter[0], toWriter[1], toReader[0], toReader[1]}) ::close(fd);
  int wstatus = 0, rstatus = 0;
  ::waitpid(writer, &wstatus, 0);
  ::waitpid(reader, &rstatus, 0);
  auto ok = [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; };
  if (ctx.json) {
    ctx.out << jsonText(Json{{"table", std::string(kDemoMount) + "/" + kDemoName}, {"dir", dir}, {"seconds", seconds},
                    {"writerOk", ok(wstatus)}, {"readerOk", ok(rstatus)}})
            << "\n";
  } else {
    if (ok(wstatus) && ok(rstatus)) {
      ctx.out << "demo: done; the table stays in " << dir << "\n"
              << "      look at it with: mroutectl tables; mroutectl dump " << kDemoMount << "/" << kDemoName
              << "; mroutectl validate\n";
    } else {
      ctx.out << "demo: FAILED\n";
    }
  }
  if (!ok(wstatus) || !ok(rstatus)) {
    const int status = ok(wstatus) ? rstatus : wstatus;
    const std::string how = WIFSIGNALED(status) ? std::string("was killed by signal ") +
                                                      std::to_string(WTERMSIG(status)) + " (" +
                                                      ::strsignal(WTERMSIG(status)) + ")"
                                                : "failed (its error is above)";
    throw CommandError(kExitInternal, std::string("the demo's ") + (ok(wstatus) ? "reader" : "writer") +
                                          " process " + how);
  }
}

}  // namespace

void addDemoCommand(CommandLine& app, Context& ctx) {
  auto seconds = std::make_shared<double>(3);
  CliCommand sub = app.addCommand("demo", "a writer and a reader process exchanging routes");
  sub.footer(std::string("Starts a writer process that publishes (*,G) and (S,G) routes into <root>/") + kDemoMount +
              "/" + kDemoName +
              "\nand keeps changing them (oifs join and leave, routes go and come back), and a reader process\n"
              "that follows them and prints what it sees. The table is left in place for the other commands.");
  addSecondsOption(sub, seconds.get(), "how long the writer runs (default 3)");
  addJsonFlag(sub, ctx);
  sub.callback([seconds, &ctx] { runDemo(*seconds, ctx); });
}

}  // namespace Mroutectl
