// mroutectl types [NAME]: the entity, value and enumeration types registered
// in the library, or one type's attributes with their ids, kinds and
// defaults (an enumeration's literals with their values).

#include <iomanip>
#include <memory>
#include <ostream>
#include <string>

#include "command.h"
#include "mroute/entity/kiv/type_registry.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

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

Json typeJson(const Kiv::TypeRecord& t) {
  Json j{{"name", t.name}, {"kind", Kiv::typeKindName(t.kind)}};
  if (t.kind == Kiv::TypeKind::enumeration) {
    Json literals = Json::array();
    for (const Kiv::EnumLiteral& l : t.literals) literals.push_back(Json{{"name", l.name}, {"value", l.value}});
    j["literals"] = literals;
    return j;
  }
  Json attrs = Json::array();
  for (const Kiv::AttrRecord& a : t.attributes) {
    Json x{{"id", a.id}, {"name", a.name}, {"kind", a.kind}, {"type", a.type}};
    if (!a.defaultText.empty()) x["default"] = a.defaultText;
    if (a.capacity != 0) x["capacity"] = a.capacity;
    attrs.push_back(x);
  }
  j["attributes"] = attrs;
  return j;
}

void runTypes(const std::string& name, Context& ctx) {
  if (name.empty()) {
    if (!ctx.json) {
      listTypes(ctx.out);
      return;
    }
    Json list = Json::array();
    for (const Kiv::TypeRecord* t : Kiv::registeredTypes()) {
      list.push_back(Json{{"name", t->name}, {"kind", Kiv::typeKindName(t->kind)}});
    }
    ctx.out << jsonText(list) << "\n";
    return;
  }
  const Kiv::TypeRecord* t = Kiv::findType(name);
  if (t == nullptr) throw CommandError(kExitNotFound, "no type '" + name + "' is registered (mroutectl types lists them)");
  if (ctx.json) {
    ctx.out << jsonText(typeJson(*t)) << "\n";
  } else {
    showType(*t, ctx.out);
  }
}

}  // namespace

void addTypesCommand(CommandLine& app, Context& ctx) {
  auto name = std::make_shared<std::string>();
  CliCommand sub = app.addCommand("types", "list the registered types, or one type's attributes");
  sub.addOption("name", name.get(), "a qualified type name: its attribute ids, names, kinds, types, defaults");
  addJsonFlag(sub, ctx);
  sub.callback([name, &ctx] { runTypes(*name, ctx); });
}

}  // namespace Mroutectl
