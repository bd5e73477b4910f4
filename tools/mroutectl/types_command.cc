// mroutectl types [NAME]: the entity, value and enumeration types registered
// in the library, or one type's attributes with their ids, kinds and
// defaults (an enumeration's literals with their values).
#include <iomanip>
#include <ostream>
#include <string>

#include "command.h"
#include "mroute/entity/kiv/type_registry.h"

namespace Mroutectl {
namespace {

void typesUsage(std::ostream& os) {
  os << "usage: mroutectl types           every registered type: kind and qualified name\n"
        "       mroutectl types <name>    one type's attributes: id, name, kind, type, default\n";
}

void listTypes(std::ostream& out) {
  for (const Kiv::TypeRecord* t : Kiv::registeredTypes()) {
    out << std::left << std::setw(12) << Kiv::typeKindName(t->kind) << t->name << "\n";
  }
}

void showType(const Kiv::TypeRecord& t, std::ostream& out) {
  out << t.name << " (" << Kiv::typeKindName(t.kind) << ")\n";
  for (const Kiv::EnumLiteral& l : t.literals) out << "  " << std::setw(4) << l.value << "  " << l.name << "\n";
  for (const Kiv::AttrRecord& a : t.attributes) {
    out << "  " << std::setw(4) << a.id << "  " << std::left << std::setw(24) << a.name << std::setw(9) << a.kind
        << a.type << std::right;
    if (!a.defaultText.empty()) out << " = " << a.defaultText;
    if (a.capacity != 0) out << ", capacity " << a.capacity;
    out << "\n";
  }
}

int runTypes(const Args& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) {
    listTypes(out);
    return kExitOk;
  }
  if (args.size() != 1) {
    typesUsage(err);
    return kExitUsage;
  }
  const Kiv::TypeRecord* t = Kiv::findType(args[0]);
  if (t == nullptr) {
    err << "mroutectl types: no type '" << args[0] << "' (see mroutectl types)\n";
    return kExitUsage;
  }
  showType(*t, out);
  return kExitOk;
}

}  // namespace

const Subcommand typesCommand{"types", "list the registered types, or one type's attributes", typesUsage,
                              runTypes};

}  // namespace Mroutectl
