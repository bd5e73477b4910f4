// mroutectl entity <mount path> [--follow] [--json]: mounts an agent's entity
// tree read-only and prints it, attribute by attribute, as text forms; with
// --follow it then prints every change as it arrives.
#include <csignal>
#include <ostream>
#include <string>
#include <vector>

#include "command.h"
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

void entityUsage(std::ostream& os) {
  os << "usage: mroutectl entity <mount path> [--follow] [--json] [--seconds N]\n"
        "  Mounts the entity tree that an agent publishes at the mount path (e.g. routing/multicast/vrf/config,\n"
        "  routing/hardware/multicast/status, routing/multicast/fib/<application>)\n"
        "  read-only and prints it; --follow then prints each change: '<entity path> <attribute>[<key>]: <value>'\n"
        "  ('-' for a removed member). Waits up to N seconds (default 5) for the writer.\n";
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      out += ' ';
      continue;
    }
    out += c;
  }
  return out + "\"";
}

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

int entityRun(const Args& args, std::ostream& out, std::ostream& err) {
  std::string path;
  bool follow = false;
  bool json = false;
  double seconds = 5;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--follow") {
      follow = true;
    } else if (args[i] == "--json") {
      json = true;
    } else if (args[i] == "--seconds" && i + 1 < args.size() && parseSeconds(args[i + 1], &seconds)) {
      ++i;
    } else if (path.empty() && !args[i].starts_with("-")) {
      path = args[i];
    } else {
      entityUsage(err);
      return kExitUsage;
    }
  }
  const Kiv::NboAttrLog::MountType* root = Kiv::NboAttrLog::mountType(path);
  if (root == nullptr || root->make == nullptr) {
    err << "mroutectl entity: no entity tree is known at '" << path << "'\n";
    return kExitUsage;
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
    err << "mroutectl entity: no writer serves " << mount.path() << "\n";
    return kExitUsage;
  }
  if (json) {
    printJson(out, *entity, type);
    out << "\n";
  } else {
    printText(out, *entity, type, "");
  }
  if (!follow) return kExitOk;
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
  return kExitOk;
}

}  // namespace

const Subcommand entityCommand = {"entity", "print an agent's entity tree (and follow it)", entityUsage, entityRun};

}  // namespace Mroutectl
