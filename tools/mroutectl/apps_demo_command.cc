// mroutectl apps-demo: three routing applications, each in its own process,
// publish routes for overlapping keys in the VRFs "default" and "red"
// through the MFIB directory writer, then exit; their table sets stay for
// 'mroutectl routes' to merge. pim publishes at priority 2, igmp at 1 and
// static at 0 (which never wins).
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include "command.h"
#include "table_json.h"
#include "mroute/mfibdir/mfib_dir_writer.h"

namespace Mroutectl {
namespace {

using Brume::Multicast::Fib::OifIndex;
using Brume::Multicast::Fib::OifIndexIntf;
using Brume::Multicast::Fib::Route;

struct DemoApp {
  const char* name;
  uint8_t priority;
  std::vector<const char*> groups;
  std::vector<const char*> oifs;  // oif index i+1 is oifs[i]
};

const std::vector<DemoApp>& demoApps() {
  static const std::vector<DemoApp> apps = {
      {"pim", 2, {"239.1.1.1", "239.1.1.2"}, {"Ethernet3", "Ethernet4"}},
      {"igmp", 1, {"239.1.1.1", "239.1.1.3"}, {"Vlan100", "Vlan200"}},
      {"static", 0, {"239.1.1.2", "239.1.1.4"}, {"Ethernet9"}},
  };
  return apps;
}


void publish(const DemoApp& app) {
  Mroute::Loop::EventLoop loop;
  Brume::Multicast::Fib::MfibEntityManager manager(loop);
  Brume::Multicast::Fib::MfibDirWriter writer(app.name, Brume::Multicast::Fib::MfibDirDirectoryIs("directory"),
                                              Brume::Multicast::Fib::MfibBrumeDirIs(app.name), manager);
  writer.handleInitialized();
  for (const char* vrf : {"default", "red"}) {
    Kiv::Ptr<Brume::Multicast::Fib::Status> s = writer.doAddBrume(L3::VrfName(vrf), app.name);
    for (size_t i = 0; i < app.oifs.size(); ++i) {
      s->oifIndexIntfIs(OifIndexIntf(OifIndex(static_cast<uint16_t>(i + 1)), Orvet::IntfId(app.oifs[i]), 1));
    }
    for (const char* g : app.groups) {
      Route r(Routing::Multicast::Fib::IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.0.0.1/32"),
                                                     Orvet::IpGenPrefix::fromText(std::string(g) + "/32")));
      r.routePriorityIs(Brume::Multicast::Fib::RoutePriority(app.priority));
      r.iifIs(Orvet::IntfId("Ethernet1"));
      r.routeFlagsIs(Route::RouteFlags(0x11));  // valid, programmable
      for (size_t i = 0; i < app.oifs.size(); ++i) r.oifIs(OifIndex(static_cast<uint16_t>(i + 1)), true);
      r.maxOifIndexIs(OifIndex(static_cast<uint16_t>(app.oifs.size())));
      s->routeIs(r);
    }
  }
}

void appsDemoRun(Context& ctx) {
  std::vector<pid_t> pids;
  for (const DemoApp& app : demoApps()) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      int code = 0;
      try {
        publish(app);
      } catch (const std::exception& e) {
        // One write, so that the applications' errors do not interleave.
        const std::string line = std::string("mroutectl apps-demo: ") + app.name + ": " + e.what() + "\n";
        [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
        code = 1;
      }
      ::_exit(code);
    }
    pids.push_back(pid);
  }
  int failed = 0;
  std::vector<bool> ok;
  for (pid_t pid : pids) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    ok.push_back(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    failed += ok.back() ? 0 : 1;
  }
  if (ctx.json) {
    Json apps = Json::array();
    for (size_t i = 0; i < demoApps().size(); ++i) {
      const DemoApp& app = demoApps()[i];
      apps.push_back(Json{{"app", app.name}, {"priority", int(app.priority)}, {"routes", app.groups.size()},
                          {"vrfs", {"default", "red"}}, {"ok", bool(ok[i])}});
    }
    ctx.out << jsonText(Json{{"applications", apps}, {"failed", failed}}) << "\n";
  }
  for (size_t i = 0; i < demoApps().size() && !ctx.json; ++i) {
    const DemoApp& app = demoApps()[i];
    ctx.out << "apps-demo: " << app.name << " (priority " << int(app.priority) << ") ";
    if (ok[i]) {
      ctx.out << "published " << app.groups.size() << " routes in default and red\n";
    } else {
      ctx.out << "FAILED (its error is above)\n";
    }
  }
  if (failed != 0) {
    throw CommandError(kExitInternal, std::to_string(failed) + " application process(es) failed (errors above)");
  }
}

}  // namespace

void addAppsDemoCommand(CommandLine& app, Context& ctx) {
  CliCommand sub = app.addCommand("apps-demo", "applications publishing for the same keys");
  sub.footer("Runs three application processes (pim priority 2, igmp 1, static 0) that publish\nroutes for overlapping groups in VRFs default and red and exit. Their tables stay\nunder $MROUTE_SHM_ROOT: see them merged with 'mroutectl routes --all'.");
  addJsonFlag(sub, ctx);
  sub.callback([&ctx] { appsDemoRun(ctx); });
}

}  // namespace Mroutectl
