"""Enumerations: an enum class, its registry record and the functions every enumeration has."""

from emit_common import doc_comment, fill

ENUM_DECL = '''
{{DOC}}enum class {{NAME}} : uint8_t { {{LITERALS}} };
'''

ENUM_INFO = '''
template <>
struct Kiv::EnumInfo<{{NS}}::{{QNAME}}> {
  static const TypeRecord& type();
};
'''

ENUM_FUNCTIONS = '''
inline {{QNAME}} {{NAME}}Instance(unsigned v) { return Kiv::enumInstance<{{QNAME}}>(v); }
inline {{QNAME}} {{NAME}}Instance(const Kiv::String8& literal) { return Kiv::enumInstance<{{QNAME}}>(literal); }
inline Kiv::String8 stringValue({{QNAME}} e) { return Kiv::enumLiteral(e); }
inline std::string valueToStrep({{QNAME}} e) { return Kiv::enumStrep(e); }
inline bool sequenceToValue(const char* begin, const char* end, {{QNAME}}& result) {
  return Kiv::enumFromSequence(begin, end, result);
}
inline std::ostream& operator<<(std::ostream& os, {{QNAME}} e) { return Kiv::writeEnum(os, e); }
'''

ENUM_TYPE = '''
const Kiv::TypeRecord& Kiv::EnumInfo<{{NS}}::{{QNAME}}>::type() {
  static const TypeRecord& record =
      registerType("{{NS}}::{{QNAME}}", TypeKind::enumeration, {{{LITERALS}}});
  return record;
}
'''


def emit_enum(ns, e, outer):
    """(declaration, EnumInfo declaration, functions, registry definition)."""
    qname = '%s::%s' % (outer, e.name) if outer else e.name
    lits = ', '.join('%s = %d' % (l, i) for i, l in enumerate(e.literals))
    table = ', '.join('{"%s", %d}' % (l, i) for i, l in enumerate(e.literals))
    return (fill(ENUM_DECL, DOC=doc_comment(e.doc), NAME=e.name, LITERALS=lits),
            fill(ENUM_INFO, NS=ns, QNAME=qname),
            fill(ENUM_FUNCTIONS, NAME=e.name, QNAME=qname),
            fill(ENUM_TYPE, NS=ns, QNAME=qname, LITERALS=table))
