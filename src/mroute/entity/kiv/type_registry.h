// The type registry: one record per entity, value and enumeration type,
// registered once when the library is loaded (a generated source unit
// registers its types from a static initialiser, in the unit's order).
//
// Thread-safety: registration happens during static initialisation, before
// threads exist; afterwards the registry is only read and any thread may
// look types up.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

enum class TypeKind { entity, value, enumeration };

struct EnumLiteral {
  std::string name;
  unsigned value;
};

struct TypeRecord {
  std::string name;  // qualified, e.g. "Routing::Multicast::Fib::Config"
  TypeKind kind;
  std::vector<EnumLiteral> literals;  // enumerations only, in value order

  const EnumLiteral* literal(unsigned value) const;
  const EnumLiteral* literal(std::string_view name) const;
};

// Registers a type. The record lives as long as the process.
// REQUIRES: `name` is not registered yet (asserted).
const TypeRecord& registerType(std::string name, TypeKind kind, std::vector<EnumLiteral> literals = {});

// The record of a registered type, or null.
const TypeRecord* findType(std::string_view name);

// Every record, in registration order.
std::vector<const TypeRecord*> registeredTypes();

}  // namespace Kiv
