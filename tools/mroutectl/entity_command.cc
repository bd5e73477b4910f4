// mroutectl entity <mount path> [--follow] [--json]: mounts an agent's entity
// tree read-only and prints it, attribute by attribute, as text forms; with
// --follow it then prints every change as it arrives.

#include <csignal>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "table_json.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/entity/replication/mount_types.h"
#include "mroute/kivbrume/attach_on_parent.h"
#include "mroute/runtime/loop/event_loop.h"

namespace Mroutectl {
namespace {

using Kiv::AttrLogAttr;
using Kiv::AttrLogKind;
using Kiv::AttrLogType;

volatile std::sig_atomic_t gStop = 0;

std::string jsonString(const std::string& s) { return jsonText(Json(s)); }

void printText(std::ostream& out, const Kiv::Entity& e, const AttrLogType& type, const std::string& indent) {
  out << indent << e.name() << " (" << type.name << ")\n";
  std::vector<std::string> keys;
  for (const AttrLogAttr& a : type.attrs) {
    if (a.kind == AttrLogKind::scalar) out << indent << "  " << a.name << ": " << a.valueText(e) << "\n";
    if (a.kind != AttrLogKind::collection && a.kind != AttrLogKind::children) continue;
    keys.clear();
    a.keys(e, keys);
    for (const std::string& k : keys) {
      if (a.kind == AttrLogKind::collection) {
        out << indent << "  " << a.name << "[" << a.keyText(k) << "]: " << a.memberText(e, k) << "\n";
      } else if (const Kiv::Entity* c = a.child(e, k)) {
        printText(out, *c, a.childType(), indent + "  ");
      }
    }
  }
}

void printJson(std::ostream& out, const Kiv::Entity& e, const AttrLogType& type) {
  out << "{\"name\": " << jsonString(e.name().stdString()) << ", \"type\": " << jsonString(type.name);
  std::vector<std::string> keys;
  for (const AttrLogAttr& a : type.attrs) {
    if (a.kind == AttrLogKind::skipped) continue;
    out << ", " << jsonString(a.name) << ": ";
    if (a.kind == AttrLogKind::scalar) {
      out << jsonString(a.valueText(e));
      continue;
    }
    keys.clear();
    a.keys(e, keys);
    out << "{";
    for (size_t i = 0; i < keys.size(); ++i) {
      out << (i ? ", " : "") << jsonString(a.keyText(keys[i])) << ": ";
      if (a.kind == AttrLogKind::collection) {
        out << jsonString(a.memberText(e, keys[i]));
      } else if (const Kiv::Entity* c = a.child(e, keys[i])) {
        printJson(out, *c, a.childType());
      } else {
        out << "null";
      }
    }
    out << "}";
  }
  out << "}";
}

struct EntityOptions {
  std::string path;
  bool follow = false;
  double seconds = 5;
};

void entityRun(const EntityOptions& o, Context& ctx) {
  std::ostream& out = ctx.out;
  const std::string& path = o.path;
  const bool follow = o.follow;
  const bool json = ctx.json;
  const double seconds = o.seconds;
  const Kiv::NboAttrLog::MountType* root = Kiv::NboAttrLog::mountType(path);
  if (root == nullptr || root->make == nullptr) {
    throw CommandError(kExitNotFound, "no entity tree is known at '" + path + "'");
  }
  Mroute::Loop::EventLoop loop;
  KivBrume::attachContextIs(&loop, Brume::BrumeType::reader);  // the tree's shared tables, read-only
  const std::string leaf = path.substr(path.rfind('/') + 1);
  Kiv::Ptr<Kiv::Entity> entity = root->make(Kiv::Name(leaf));
  const AttrLogType& type = root->type();
  Kiv::NboAttrLog::ReaderMount mount(loop, path, entity, type, std::chrono::milliseconds(50));
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!mount.synced() && std::chrono::steady_clock::now() < end) loop.runOnce(std::chrono::milliseconds(20));
  if (!mount.synced()) {
    // Something answered on the socket: say what went wrong with it.
    if (mount.connections() == 0) {
      throw CommandError(kExitNotFound, "no writer serves " + mount.path() + ": its agent is not running");
    }
    if (mount.lastDrop().rfind("malformed", 0) == 0) {
      throw CommandError(kExitDamaged, "the writer at " + mount.path() + " sent what a reader cannot read (" +
                                           mount.lastDrop() + "): it is not this system's agent, or not its version");
    }
    std::ostringstream waited;
    waited << seconds << " s";
    throw CommandError(kExitNotFound, "the writer at " + mount.path() + " did not send its whole tree within " +
                                          waited.str() + (mount.lastDrop().empty() ? "" : " (" + mount.lastDrop() + ")") +
                                          "; --seconds waits longer");
  }
  if (json) {
    printJson(out, *entity, type);
    out << "\n";
  } else {
    printText(out, *entity, type, "");
  }
  if (!follow) return;
  out.flush();
  mount.replica().applied = [&](const Kiv::Entity& e, const AttrLogAttr& a, const std::string* key) {
    out << Kiv::entityPath(e) << " " << a.name;
    if (key != nullptr) {
      out << "[" << a.keyText(*key) << "]";
      if (a.kind == AttrLogKind::collection) {
        const std::string v = a.memberText(e, *key);
        out << ": " << (v.empty() && !a.child ? "-" : v);
      } else {
        out << ": " << (a.child(e, *key) ? "+" : "-");
      }
    } else {
      out << ": " << a.valueText(e);
    }
    out << std::endl;
  };
  std::signal(SIGINT, [](int) { gStop = 1; });
  std::signal(SIGTERM, [](int) { gStop = 1; });
  while (!gStop) loop.runOnce(std::chrono::milliseconds(100));
}

}  // namespace

void addEntityCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<EntityOptions>();
  CliCommand sub = app.addCommand("entity", "print an agent's entity tree (and follow it)");
  sub.footer("Mounts the entity tree that an agent publishes at the mount path (e.g. routing/multicast/vrf/config,\nrouting/hardware/multicast/status, routing/multicast/fib/<application>) read-only and prints it; --follow then prints each change: '<entity path> <attribute>[<key>]: <value>'\n('-' for a removed member). Waits up to N seconds (default 5) for the writer.");
  sub.addOption("path", &o->path, "the tree's mount path").required();
  sub.addFlag("--follow", &o->follow, "then print each change");
  addSecondsOption(sub, &o->seconds, "how long to wait for the writer (default 5)");
  addJsonFlag(sub, ctx);
  sub.callback([o, &ctx] { entityRun(*o, ctx); });
}

}  // namespace Mroutectl
