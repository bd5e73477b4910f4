"""Flag words (`flags`) and bounded numbers (`bounded`): thin classes over Kiv::FlagSet and Kiv::BoundedValue."""

from emit_common import doc_comment, fill

FLAGS_DECL = '''
{{DOC}}class {{NAME}} : public Kiv::FlagSet<{{NAME}}, {{WORD}}, {{COUNT}}> {
 public:
  using FlagSet::FlagSet;
  static constexpr std::string_view kTypeName = "{{QNAME}}";
  static constexpr std::string_view kShortName = "{{NAME}}";
  static constexpr std::array<std::string_view, {{COUNT}}> kFlagNames = {{{FLAG_NAMES}}};{{BARE}}
  static const Kiv::TypeRecord& type();
{{FLAGS}}
};
{{LAYOUT}}'''
FLAG_DECL = '''  bool {{x}}() const { return flag({{BIT}}); }
  void {{x}}Is(bool v) { flagIs({{BIT}}, v); }'''
BARE_TEXT = '''
  static constexpr bool kBareFlagText = true;'''

BOUNDED_DECL = '''
{{DOC}}class {{NAME}} : public Kiv::BoundedValue<{{NAME}}, {{WORD}}, {{MIN}}, {{MAX}}, {{DEFAULT}}> {
 public:
  using BoundedValue::BoundedValue;
  static constexpr std::string_view kShortName = "{{NAME}}";{{ERROR}}
  static const Kiv::TypeRecord& type();
{{CONSTS}}};
{{CONST_DEFS}}{{LAYOUT}}'''
RANGE_ERROR = '''
  static constexpr std::string_view kRangeError = "{{TEXT}}";'''
NAMED_CONST = '''{{DOC}}  static const {{NAME}} {{x}};'''
CALLED_CONST = '''{{DOC}}  static constexpr {{NAME}} {{x}}() { return {{NAME}}({{V}}); }'''
CONST_TEST = '''  constexpr bool {{TEST}}() const { return value() == {{V}}; }'''
CONST_TEST_NOT = '''  constexpr bool {{TEST}}() const { return value() != {{V}}; }'''
NUMBER_CONST = '''{{DOC}}  static constexpr {{WORD}} {{x}} = {{V}};'''
CONST_DEF = '''inline constexpr {{NAME}} {{NAME}}::{{x}}{{{V}}};
'''

# A flag word or bounded number is exactly its word: it is copied byte for byte.
LAYOUT = '''
static_assert(sizeof({{NAME}}) == sizeof({{WORD}}) && std::is_trivially_copyable_v<{{NAME}}>);
'''

TYPE_DEF = '''
const Kiv::TypeRecord& {{NAME}}::type() {
  static const Kiv::TypeRecord& record = Kiv::registerType("{{QNAME}}", Kiv::TypeKind::value);
  return record;
}
'''


def emit_flags(t):
    """(declaration, definitions): names, and one getter/setter pair a flag."""
    flags = [fill(FLAG_DECL, x=flag, BIT=bit) for bit, flag in enumerate(t.literals)]
    decl = fill(FLAGS_DECL, DOC=doc_comment(t.doc), NAME=t.name, WORD=t.base, COUNT=len(t.literals),
                QNAME=t.qname, FLAG_NAMES=', '.join('"%s"' % f for f in t.literals),
                BARE=BARE_TEXT if t.bare else '', FLAGS='\n' + '\n'.join(flags),
                LAYOUT=fill(LAYOUT, NAME=t.name, WORD=t.base))
    return decl, fill(TYPE_DEF, NAME=t.name, QNAME=t.qname)


def literal(n):
    """A template argument or constant; past int's range it needs the suffix."""
    return '%d' % n if n <= 0x7fffffff else '%dull' % n


def emit_bounded(t):
    """(declaration, definitions): the range, named constants (x or x()) and their tests."""
    consts, defs = [], []
    for c in t.members:
        test = (c.test or '').lstrip('!')
        holes = dict(DOC=doc_comment(c.doc, '  '), NAME=t.name, WORD=t.base, x=c.name,
                     V=literal(int(c.default, 0)), TEST=test)
        if c.kind == 'number':
            consts.append(fill(NUMBER_CONST, **holes))
            continue
        consts.append(fill(CALLED_CONST if c.ctor else NAMED_CONST, **holes))
        if c.test:
            consts.append(fill(CONST_TEST_NOT if c.test.startswith('!') else CONST_TEST, **holes))
        if not c.ctor:
            defs.append(fill(CONST_DEF, **holes))
    decl = fill(BOUNDED_DECL, DOC=doc_comment(t.doc), NAME=t.name, WORD=t.base, MIN=literal(t.low),
                MAX=literal(t.high), DEFAULT=literal(t.initial),
                ERROR=fill(RANGE_ERROR, TEXT=t.error) if t.error else '',
                CONSTS=''.join('\n' + c for c in consts) + ('\n' if consts else ''),
                CONST_DEFS=('\n' + ''.join(defs)) if defs else '',
                LAYOUT=fill(LAYOUT, NAME=t.name, WORD=t.base))
    return decl, fill(TYPE_DEF, NAME=t.name, QNAME=t.qname)
