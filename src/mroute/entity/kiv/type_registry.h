// The type registry: one record per entity, value and enumeration type,
// registered once when the library is loaded (a generated source unit
// registers its types from a static initialiser, in the unit's order).
//
// Thread-safety: registration happens during static initialisation, before
// threads exist; afterwards the registry is only read and any thread may
// look types up.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

enum class TypeKind { entity, value, enumeration };

struct EnumLiteral {
  std::string name;
  unsigned value;
};

// One attribute of an entity or field of a value type, as its description gives it.
struct AttrRecord {
  std::string name;
  int id;                    // attribute id (entities: from 258); fields count on the same way
  std::string kind;          // attr, counter, const, ctor, coll, child, table, ref, validref, backptr, field
  std::string type;          // the C++ type; "K -> V" for keyed members
  std::string defaultText;   // as described; empty when the type's own default
  uint32_t capacity = 0;     // shared tables: initial entries
  std::string operations;    // keyed members: the operation names replication knows ("routeIs routeDel ...")
};

struct TypeRecord {
  std::string name;  // qualified, e.g. "Routing::Multicast::Fib::Config"
  TypeKind kind;
  std::vector<EnumLiteral> literals;  // enumerations only, in value order
  std::vector<AttrRecord> attributes;  // in id order

  const EnumLiteral* literal(unsigned value) const;
  const EnumLiteral* literal(std::string_view name) const;
};

// Registers a type. The record lives as long as the process.
// REQUIRES: `name` is not registered yet (asserted).
const TypeRecord& registerType(std::string name, TypeKind kind, std::vector<EnumLiteral> literals = {},
                               std::vector<AttrRecord> attributes = {});

// A derived entity's attributes: its base's (the lower ids) and then its own.
std::vector<AttrRecord> withInherited(const TypeRecord& base, std::vector<AttrRecord> own);

// "entity", "value" or "enumeration".
const char* typeKindName(TypeKind kind);

// The record of a registered type, or null.
const TypeRecord* findType(std::string_view name);

// Every record, in registration order.
std::vector<const TypeRecord*> registeredTypes();

}  // namespace Kiv
