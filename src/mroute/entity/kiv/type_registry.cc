#include "mroute/entity/kiv/type_registry.h"

#include <deque>
#include <map>

#include "mroute/runtime/assert.h"

namespace Kiv {
namespace {

struct Registry {
  std::deque<TypeRecord> records;  // a deque keeps records in place as it grows
  std::map<std::string, const TypeRecord*, std::less<>> byName;
};

// Built on first use, so registrations from any unit's initialiser find it.
Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

const EnumLiteral* TypeRecord::literal(unsigned value) const {
  // Values run from 0 in declaration order.
  return value < literals.size() ? &literals[value] : nullptr;
}

const EnumLiteral* TypeRecord::literal(std::string_view name) const {
  for (const EnumLiteral& l : literals) {
    if (l.name == name) return &l;
  }
  return nullptr;
}

const TypeRecord& registerType(std::string name, TypeKind kind, std::vector<EnumLiteral> literals,
                               std::vector<AttrRecord> attributes) {
  Registry& r = registry();
  MROUTE_ASSERT(r.byName.find(name) == r.byName.end());
  for (size_t i = 0; i < literals.size(); ++i) MROUTE_ASSERT(literals[i].value == i);
  const TypeRecord& rec = r.records.emplace_back(
      TypeRecord{std::move(name), kind, std::move(literals), std::move(attributes)});
  r.byName.emplace(rec.name, &rec);
  return rec;
}

std::vector<AttrRecord> withInherited(const TypeRecord& base, std::vector<AttrRecord> own) {
  std::vector<AttrRecord> all = base.attributes;
  all.insert(all.end(), own.begin(), own.end());
  return all;
}

const TypeRecord* findType(std::string_view name) {
  Registry& r = registry();
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

const char* typeKindName(TypeKind kind) {
  switch (kind) {
    case TypeKind::entity:
      return "entity";
    case TypeKind::value:
      return "value";
    case TypeKind::enumeration:
      return "enumeration";
  }
  return "?";
}

std::vector<const TypeRecord*> registeredTypes() {
  std::vector<const TypeRecord*> out;
  for (const TypeRecord& rec : registry().records) out.push_back(&rec);
  return out;
}

}  // namespace Kiv
