// mroutectl routes: the merged view a forwarding agent programs. Every
// application's table set of a VRF (found under
// <root>/routing[6]/multicast/routestatus/<vrf>/<application>) is opened
// read-only; per key the winning application is shown with its priority,
// the incoming interface and the outgoing interfaces by name (through the
// winner's oif-index table) and the route's flags. --all lists every
// application's candidate and marks the winner with '*'.

#include <algorithm>
#include <memory>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "command.h"
#include "table_json.h"
#include "mroute/mfibdir/merged_route_iterator.h"
#include "mroute/mfibdir/mfib_entity_manager.h"
#include "mroute/route/route_intf_iterator.h"
#include "mroute/table/shm_root.h"
#include "route_text.h"

namespace Mroutectl {
namespace {

using Brume::Multicast::Fib::MfibBrumeColl;
using Brume::Multicast::Fib::Route;
using Brume::Multicast::Fib::Status;


struct Options {
  std::string vrf;
  int af = 4;
  bool all = false;
  bool json = false;
};

// One application's route as the operator reads it.
struct Candidate {
  std::string app;
  int priority;
  std::string iif;
  std::vector<std::string> oifs;
  std::vector<std::string> flags;
  bool winner;
  std::string damage;  // why the record cannot be read; empty when sound
};

Candidate describe(const std::string& app, const Route& r, const Status& status, bool winner) {
  Candidate c{app, r.routePriority().value(), "", {}, {}, winner, {}};
  try {
    requireInRange(r);
    c.iif = r.iif().isNull() ? "none" : r.iif().name();
    Brume::Multicast::Fib::RouteIntfIteratorConst it(r, status);
    for (it.next(); !it.atEnd(); it.next()) {
      if (!it.oifIndex().isNull()) c.oifs.push_back(it.intf().name());
    }
    c.flags = flagNames(r);
  } catch (const std::out_of_range& e) {
    c.damage = e.what();
  }
  return c;
}

std::string text(const Candidate& c) {
  std::ostringstream os;
  os << "app " << c.app << "  prio " << c.priority;
  if (!c.damage.empty()) {
    os << "  damaged record: " << c.damage;
  } else {
    os << "  iif " << c.iif << "  oifs " << (c.oifs.empty() ? "none" : join(c.oifs, ",")) << "  flags "
       << (c.flags.empty() ? "none" : join(c.flags, ","));
  }
  return os.str();
}

Json json(const Candidate& c) {
  Json j = c.damage.empty()
               ? Json{{"app", c.app}, {"priority", c.priority}, {"iif", c.iif}, {"oifs", c.oifs}, {"flags", c.flags}}
               : Json{{"app", c.app}, {"priority", c.priority}, {"damaged", c.damage}};
  if (c.winner) j["winner"] = true;
  return j;
}

// A table of an application's set that its reader could not attach: not
// made yet, or refused as damaged. What it holds is missing from the merge.
struct Unreadable {
  std::string table;  // named after the set's mount path, as mroutectl validate takes it
  bool missing;       // its directory does not exist
  std::string text() const { return table + (missing ? " (missing)" : " (damaged, or its writer is re-creating it)"); }
};

std::vector<Unreadable> unreadableTables(const Status& s, const std::string& mountPath) {
  std::vector<Unreadable> out;
  auto check = [&](const auto& table) {
    if (table.front() != nullptr && table.front()->ready()) return;
    std::error_code ec;
    const bool missing = !std::filesystem::exists(Brume::tableRoot(mountPath, table.name()).dir(), ec);
    out.push_back({mountPath + "/" + table.name(), missing});
  };
  check(s.route());
  check(s.oifIndexIntf());
  return out;
}

std::vector<std::string> subdirs(const std::filesystem::path& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    if (e.is_directory()) out.push_back(e.path().filename().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

void routesRun(Options o, Context& ctx) {
  std::ostream& out = ctx.out;
  o.json = ctx.json;
  if (!o.vrf.empty()) {
    try {
      L3::VrfName check(o.vrf);
    } catch (const std::out_of_range&) {
      throw CommandError(kExitUsage, "bad VRF name '" + o.vrf + "': longer than " +
                                         std::to_string(L3::VrfName::maxBytes) + " bytes");
    }
  }
  const Orvet::AddressFamily family(o.af == 4 ? 1 : 2);
  const std::filesystem::path base =
      std::filesystem::path(Brume::shmRootDirectory()) / (o.af == 4 ? "routing" : "routing6") / "multicast" / "routestatus";
  std::vector<std::string> vrfs = o.vrf.empty() ? subdirs(base) : std::vector<std::string>{o.vrf};

  Mroute::Loop::EventLoop loop;
  Brume::Multicast::Fib::MfibEntityManager manager(loop);
  const auto info = Brume::Multicast::Fib::TableInfo::mfibMountInfo(Status::type().name);
  Json jsonVrfs = Json::array();
  size_t damaged = 0, unreadableSets = 0;
  bool unreadableDamaged = false;  // a table is there but refused
  for (const std::string& vrf : vrfs) {
    Kiv::Ptr<MfibBrumeColl> coll = Brume::Multicast::Fib::MfibBrumeCollIs(Kiv::Name(vrf));
    std::map<uint32_t, std::string> apps, paths;
    uint32_t number = 0;
    for (const std::string& app : subdirs(base / vrf)) {
      const std::string path = Status::mountPath(family, L3::VrfName(vrf), Kiv::Name(app));
      coll->brumePtrIs(++number, manager.mountStatus(path, Brume::BrumeType::reader, info));
      apps[number] = app;
      paths[number] = path;
    }
    // Reader fronts attach while they are built; give late ones a moment.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    auto allReady = [&] {
      for (const auto& [n, s] : coll->brumePtr()) {
        if (!unreadableTables(*s, paths[n]).empty()) return false;
      }
      return true;
    };
    while (!allReady() && std::chrono::steady_clock::now() < end) loop.runOnce(std::chrono::milliseconds(10));
    // app -> its tables that could not be read
    std::map<std::string, std::vector<Unreadable>> unreadable;
    for (const auto& [n, s] : coll->brumePtr()) {
      std::vector<Unreadable> tables = unreadableTables(*s, paths[n]);
      if (tables.empty()) continue;
      unreadableSets += 1;
      for (const Unreadable& u : tables) unreadableDamaged = unreadableDamaged || !u.missing;
      unreadable[apps[n]] = std::move(tables);
    }

    // The merged walk goes in hash order; the operator reads keys in order.
    std::map<Routing::Multicast::Fib::IpGenRouteKey, std::string> lines;
    std::map<Routing::Multicast::Fib::IpGenRouteKey, Json> jsonRoutes;
    for (Brume::Multicast::Fib::MfibBrumeCollRouteIteratorConst it(*coll); !it.atEnd(); it.updateToBestRouteIterators()) {
      std::vector<Candidate> cands;
      if (o.all) {
        for (const auto& c : it.candidates()) cands.push_back(describe(apps[c.brumeKey], *c.route, **c.status, c.brumeKey == it.brumeKey()));
      } else {
        cands.push_back(describe(apps[it.brumeKey()], it.route(), *it.status(), true));
      }
      for (const Candidate& c : cands) damaged += c.damage.empty() ? 0 : 1;
      const std::string key = keyText(it.route().key());
      if (o.json) {
        Json items = Json::array();
        for (const Candidate& c : cands) items.push_back(json(c));
        jsonRoutes[it.route().key()] = Json{{"key", key}, {"candidates", items}};
      } else if (!o.all) {
        lines[it.route().key()] = "  " + key + "  " + text(cands.front()) + "\n";
      } else {
        std::string& l = lines[it.route().key()];
        l = "  " + key + "\n";
        for (const Candidate& c : cands) l += std::string("    ") + (c.winner ? "* " : "  ") + text(c) + "\n";
      }
    }
    if (o.json) {
      Json routes = Json::array();
      for (auto& [k, j] : jsonRoutes) routes.push_back(std::move(j));
      Json j{{"vrf", vrf}, {"af", o.af}, {"routes", std::move(routes)}};
      for (const auto& [app, tables] : unreadable) {
        for (const Unreadable& u : tables) {
          j["unreadable"][app].push_back(
              Json{{"table", u.table}, {"problem", u.missing ? "missing" : "damaged or being re-created"}});
        }
      }
      jsonVrfs.push_back(std::move(j));
      continue;
    }
    out << "VRF " << vrf << " (IPv" << o.af << "): " << apps.size() << " application(s)\n";
    for (const auto& [app, tables] : unreadable) {
      std::vector<std::string> texts;
      for (const Unreadable& u : tables) texts.push_back(u.text());
      out << "  application " << app << ": cannot read " << join(texts, " and ") << "; its routes are left out\n";
    }
    for (const auto& [k, line] : lines) out << line;
  }
  if (o.json) out << jsonText(jsonVrfs) << "\n";
  if (damaged != 0 || unreadableSets != 0) {
    std::vector<std::string> what;
    if (unreadableSets != 0) what.push_back(std::to_string(unreadableSets) + " application table set(s) cannot be read");
    if (damaged != 0) what.push_back(std::to_string(damaged) + " damaged record(s)");
    throw CommandError(kExitDamaged,
                       join(what, " and ") + (damaged != 0 || unreadableDamaged ? " (mroutectl validate says more)" : ""));
  }
}

}  // namespace

void addRoutesCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<Options>();
  CliCommand sub = app.addCommand("routes", "the winning route per key across applications");
  sub.footer("The route each key would be programmed with: per key the winning application\n(strictly highest priority; ties to the first in the collection's order;\npriority 0 never wins), its incoming and outgoing interfaces by name and its flags, read\nfrom every application's table set under $MROUTE_SHM_ROOT. --vrf limits the\noutput to one VRF, --af picks the family (default 4), --all shows every\napplication's candidate with '*' on the winner, --json prints one JSON object.");
  sub.addOption("--vrf", &o->vrf, "only this VRF").optionText("V");
  sub.addOption("--af", &o->af, "the address family, 4 (default) or 6").oneOf({4, 6});
  sub.addFlag("--all", &o->all, "every application's candidate, '*' on the winner");
  addJsonFlag(sub, ctx);
  sub.callback([o, &ctx] { routesRun(*o, ctx); });
}

}  // namespace Mroutectl
