"""Value records (`value`): checked fields, ordering, hash, text form."""

from emit_common import attr_record, doc_comment, fill, param
from model import DescriptionError

VALUE_DECL = '''
{{DOC}}class {{NAME}} {
 public:
  static constexpr std::string_view kTypeName = "{{NS}}::{{NAME}}";
  {{NAME}}() = default;{{CTOR}}
{{MEMBERS}}{{METHODS}}

  friend bool operator==(const {{NAME}}&, const {{NAME}}&) = default;
  friend bool operator<(const {{NAME}}& a, const {{NAME}}& b) { return {{TIE_A}} < {{TIE_B}}; }
  // Over the fields in declaration order.
  size_t hash() const;
  // Reads the text that operator<< writes.
  static {{NAME}} fromText(std::string_view text);
  static const Kiv::TypeRecord& type();

 private:
{{STORAGE}}
};

std::ostream& operator<<(std::ostream& os, const {{NAME}}& v);
'''

VALUE_CTOR = '''
  {{EXPLICIT}}{{NAME}}({{PARAMS}});'''

VALUE_HASH = '''
template <>
struct std::hash<{{NS}}::{{NAME}}> {
  size_t operator()(const {{NS}}::{{NAME}}& v) const { return v.hash(); }
};
'''

VALUE_DEFS = '''{{CTOR}}{{HASH}}
const Kiv::TypeRecord& {{NAME}}::type() {
  static const Kiv::TypeRecord& record = Kiv::registerType("{{NS}}::{{NAME}}", Kiv::TypeKind::value, {}, {{{ATTRS}}});
  return record;
}

std::ostream& operator<<(std::ostream& os, const {{NAME}}&{{V}}) {
  Kiv::ValueWriter(os, "{{NS}}::{{NAME}}"){{WRITES}}.end();
  return os;
}

{{NAME}} {{NAME}}::fromText(std::string_view text) {
  Kiv::ValueReader r(text, "{{NS}}::{{NAME}}");
  {{NAME}} v;{{READS}}
  r.end();
  return v;
}
'''

VALUE_CTOR_DEF = '''
{{NAME}}::{{NAME}}({{PARAMS}}) {{{SETS}}
}
'''

HASH_DEF = '''
size_t {{NAME}}::hash() const { return Kiv::hashFields({{FIELDS}}); }
'''

FIELD_DECL = '''
  {{R}} {{x}}() const { return {{x}}_; }
  void {{x}}Is({{P}} v) {{{CHECK}} {{x}}_ = v; }'''

# A record without fields: every two are equal.
EMPTY_DECL = '''
{{DOC}}class {{NAME}} {
 public:
  static constexpr std::string_view kTypeName = "{{NS}}::{{NAME}}";
  friend bool operator==(const {{NAME}}&, const {{NAME}}&) = default;
  friend bool operator<(const {{NAME}}&, const {{NAME}}&) { return false; }
  size_t hash() const { return 0; }
  static {{NAME}} fromText(std::string_view text);
  static const Kiv::TypeRecord& type();
};

std::ostream& operator<<(std::ostream& os, const {{NAME}}& v);
'''

EMPTY_HASH = '''
template <>
struct std::hash<{{NS}}::{{NAME}}> {
  size_t operator()(const {{NS}}::{{NAME}}& v) const { return v.hash(); }
};
'''


def field_check(t, f):
    check, limit = f.check
    if check == 'range':
        low, high = limit.split('..')
        text = '%s::%s < %s or > %s not allowed' % (t.name, f.name, low, high)
        return ' Kiv::checkRange<%s>(v, %s, %s, "%s");' % (f.type, low, high, text)
    if check == 'max':
        text = '%s::%s > %s not allowed' % (t.name, f.name, limit)
        return ' Kiv::checkMax<%s>(v, %s, "%s");' % (f.type, limit, text)
    return ''


# Fields packed into one word, lowest bits first: the value is exactly its word.
PACKED_FIELD_DECL = '''
  {{T}} {{x}}() const { return static_cast<{{T}}>((bits_ >> {{SHIFT}}) & {{MASK}}u); }
  void {{x}}Is({{T}} v) {
    Kiv::checkMax<{{T}}>(v, {{MASK}}u, "{{NAME}}::{{x}} > {{MASK}} not allowed");
    bits_ = static_cast<{{W}}>((bits_ & ~({{MASK}}u << {{SHIFT}})) | (unsigned(v) << {{SHIFT}}));
  }'''
PACKED_LAYOUT = '''static_assert(sizeof({{NS}}::{{NAME}}) == sizeof({{W}}) && std::is_trivially_copyable_v<{{NS}}::{{NAME}}>);
'''


def packed_word(t):
    """The word of a value whose fields all have `bits`, or None when none has."""
    widths = [f.bits for f in t.members]
    if not any(widths):
        return None
    if not all(widths):
        raise DescriptionError('line %d: %s: either every field or none has bits' % (t.line, t.name))
    total = sum(widths)
    for word, size in (('uint8_t', 8), ('uint16_t', 16), ('uint32_t', 32)):
        if total <= size:
            return word
    raise DescriptionError('line %d: %s: %d bits do not fit one word' % (t.line, t.name, total))


def emit_value(ns, t, enums):
    """(declaration, after the namespace, definitions)."""
    fields = t.members
    word = packed_word(t)
    members, storage, sets, writes, reads = [], [], [], [], []
    shift, initial = 0, 0
    for f in fields:
        if word:
            mask = (1 << f.bits) - 1
            members.append(fill(PACKED_FIELD_DECL, T=f.type, x=f.name, SHIFT=shift, MASK='0x%x' % mask,
                                NAME=t.name, W=word))
            initial |= (int(f.default or '0', 0) & mask) << shift
            shift += f.bits
        else:
            members.append(fill(FIELD_DECL, x=f.name, P=param(f.type, enums), R=param(f.type, enums),
                                CHECK=field_check(t, f)))
        writes.append('\n      .field("%s", v.%s())' % (f.name, f.name))
        reads.append('\n  Kiv::readInto<%s>(r, "%s", [&v](%s x) { v.%sIs(x); });'
                     % (f.type, f.name, param(f.type, enums), f.name))
        if not word:
            # A value may be read from bytes another process wrote: a flag is
            # kept as a byte and read as != 0, so no byte is an invalid bool.
            stored = 'uint8_t' if f.type == 'bool' else f.type
            storage.append('  %s %s_ = %s;' % (stored, f.name, f.default or '{}'))
        sets.append('\n  %sIs(%s);' % (f.name, f.name))
    if word:
        storage.append('  %s bits_ = %d;' % (word, initial))
    params = ', '.join('%s %s' % (param(f.type, enums), f.name) for f in fields)
    attrs = ', '.join(attr_record(f, 'field') for f in fields)
    if not fields:
        decl = fill(EMPTY_DECL, DOC=doc_comment(t.doc), NAME=t.name, NS=ns)
        after = fill(EMPTY_HASH, NS=ns, NAME=t.name)
        definition = fill(VALUE_DEFS, NS=ns, NAME=t.name, CTOR='', HASH='', ATTRS='', WRITES='', READS='', V='')
        return decl, after, definition
    if word:
        tie = lambda o: 'std::make_tuple(%s)' % ', '.join('%s.%s()' % (o, f.name) for f in fields)
    else:
        tie = lambda o: 'std::tie(%s)' % ', '.join('%s.%s_' % (o, f.name) for f in fields)
    ctor = fill(VALUE_CTOR, EXPLICIT='explicit ' if len(fields) == 1 else '', NAME=t.name, PARAMS=params)
    methods = ''.join('\n' + doc_comment(doc, '  ') + '  %s;' % declaration for declaration, doc in t.methods)
    decl = fill(VALUE_DECL, DOC=doc_comment(t.doc), NAME=t.name, NS=ns, CTOR=ctor, MEMBERS='\n'.join(members),
                METHODS=methods,
                TIE_A=tie('a'), TIE_B=tie('b'), STORAGE='\n'.join(storage))
    after = fill(VALUE_HASH, NS=ns, NAME=t.name)
    if word:
        after += fill(PACKED_LAYOUT, NS=ns, NAME=t.name, W=word)
    definition = fill(VALUE_DEFS, NS=ns, NAME=t.name, ATTRS=attrs,
                      CTOR=fill(VALUE_CTOR_DEF, NAME=t.name, PARAMS=params, SETS=''.join(sets)),
                      HASH=fill(HASH_DEF, NAME=t.name,
                                FIELDS=', '.join(('%s()' if word else '%s_') % f.name for f in fields)),
                      WRITES=''.join(writes), READS=''.join(reads), V=' v')
    return decl, after, definition
