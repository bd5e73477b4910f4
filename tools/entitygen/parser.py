"""Reads a description (*.ent) into the model; see entitygen.py for the language."""

import re

from model import (UNSIGNED_BITS, DescriptionError, Description, Member, Type, ctype, next_id, number_attributes)

MEMBER = re.compile(r'(\w+)\s+(\w+)\s*:\s*(.*)$')
ALLOWED = {'entity': {'reset', 'init', 'factory', 'mount', 'enum', 'attr', 'counter', 'const', 'coll', 'child',
                      'table', 'ref', 'backptr', 'method', 'attach', 'check', 'state'},
           'value': {'field', 'method'}, 'flags': {'name', 'text'}, 'bounded': {'name', 'error', 'const', 'number'}}
NAMED_NUMBER = re.compile(r'(const|number)\s+(\w+)(\(\))?\s*=\s*(\w+)(?:\s+test\s+(!?\w+))?$')
BOUNDED = re.compile(r'(\w+)\s*:\s*(\w+)\s*(?:=\s*(\w+))?\s*(?:(range|max)\s+(\S+))?$')
SCALAR = re.compile(r'([\w:]+)\s*(?:=\s*(".*"|[^"]+?))?\s*(?:(range|max)\s+(\S+))?$')
# Trailing options of a member line: "id 263", "capacity 12000", "keyed key", and single words.
OPTION_WITH_VALUE = re.compile(r'\s+(id|capacity|keyed|bits)\s+(\w+)\s*$')
# A collection's value: a type name, or a counted reference to an entity.
VALUE_TYPE = re.compile(r'[\w:]+|Kiv::Ptr<\s*(?:const\s+)?[\w:]+\s*>')
OPTION_WORD = re.compile(r'\s+(ordered|ctor|valid|custom)\s*$')


def number(text):
    return int(text, 0)


def unsigned_word(t):
    if t not in UNSIGNED_BITS:
        raise DescriptionError('%r is not an unsigned word (u8, u16, u32, u64)' % t)
    return ctype(t)


def parse(text, path='description', header=None):
    ns, includes, types, doc, member_doc, cur = None, [], [], [], [], None
    for line_no, raw in enumerate(text.splitlines(), 1):
        line = raw.rstrip()
        try:
            if not line.strip():
                doc, member_doc = [], []
                continue
            if line.lstrip().startswith('#'):
                (member_doc if raw[0].isspace() else doc).append(line.lstrip()[1:].strip())
                continue
            if raw[0].isspace():
                if cur is None:
                    raise DescriptionError('member outside a type')
                parse_member(cur, line.strip(), member_doc, line_no)
                member_doc = []
                continue
            word, _, rest = line.partition(' ')
            if word == 'namespace':
                ns = rest.strip()
            elif word == 'include':
                includes.append(rest.strip())
            elif word in ('entity', 'value'):
                name, _, parent = rest.partition(':')
                cur = Type(word, name.strip(), doc, line_no)
                if parent.strip():
                    if word != 'entity':
                        raise DescriptionError('only an entity has a base')
                    # "Base" or "Base(argument, ...)": what the base's constructor gets after the name.
                    m = re.fullmatch(r'([\w:]+)\s*(?:\((.*)\))?', parent.strip())
                    if not m:
                        raise DescriptionError('a base is "Name" or "Name(arguments)"')
                    cur.parent, cur.parent_args = m.group(1), m.group(2)
                types.append(cur)
            elif word in ('enum', 'flags'):
                name, _, lits = rest.partition(':')
                cur = Type(word, name.strip(), doc, line_no)
                words = lits.split()
                if word == 'flags':
                    cur.base, bits, words = unsigned_word(words[0]), UNSIGNED_BITS[words[0]], words[1:]
                    if not 1 <= len(words) <= bits:
                        raise DescriptionError('a flag word needs 1 to %d flags' % bits)
                cur.literals = words
                types.append(cur)
            elif word == 'bounded':
                cur = parse_bounded(rest, doc, line_no)
                types.append(cur)
            else:
                raise DescriptionError('unknown word %r' % word)
            if word not in ('namespace', 'include'):
                check_unique(types, cur.name)
            doc = []
        except (DescriptionError, IndexError, ValueError) as e:
            raise DescriptionError('line %d: %s: %s' % (line_no, e, line))
    if not ns:
        raise DescriptionError('no namespace')
    by_name = {t.name: t for t in types}
    for t in types:
        # A base in this file numbers on at once; one described elsewhere is numbered by the type check.
        first = 258
        if t.parent in by_name:
            first = next_id(by_name[t.parent])
        number_attributes(t, first)
        if t.bare and len(t.literals) != 1:
            raise DescriptionError('%s: "text bare" needs exactly one flag' % t.name)
        t.qname = t.qname or '%s::%s' % (ns, t.name)
    return Description(path, ns, includes, types, header)


def check_unique(types, name):
    if [t.name for t in types].count(name) > 1:
        raise DescriptionError('type %s is declared twice' % name)


def parse_bounded(rest, doc, line_no):
    """bounded Name: word [= default] [range low..high | max high]"""
    m = BOUNDED.match(rest.strip())
    if not m:
        raise DescriptionError('cannot read bounded value')
    name, word, default, check, limit = m.groups()
    t = Type('bounded', name, doc, line_no)
    t.base = unsigned_word(word)
    t.low, t.high = 0, (1 << UNSIGNED_BITS[word]) - 1
    if check == 'range':
        low, high = limit.split('..')
        t.low, t.high = number(low), number(high)
    elif check == 'max':
        t.high = number(limit)
    t.initial = t.low if default is None else number(default)
    if not 0 <= t.low <= t.initial <= t.high < 1 << UNSIGNED_BITS[word]:
        raise DescriptionError('need 0 <= low <= default <= high within the word')
    return t


def split_options(decl):
    """Takes the trailing options off a member's declaration."""
    options = {}
    while True:
        m = OPTION_WITH_VALUE.search(' ' + decl) or OPTION_WORD.search(' ' + decl)
        if not m:
            return decl.strip(), options
        options[m.group(1)] = m.group(2) if m.re is OPTION_WITH_VALUE else True
        decl = (' ' + decl)[:m.start()].strip()


def parse_member(t, line, doc, line_no):
    word, _, rest = line.partition(' ')
    if word not in ALLOWED.get(t.kind, ()):
        raise DescriptionError('%r does not belong in %s %s' % (word, t.kind, t.name))
    if t.kind in ('flags', 'bounded'):
        parse_word_member(t, line, doc, line_no)
        return
    if t.kind == 'value' and word == 'method':
        parse_method(t, rest, doc)
        return
    if word == 'reset':
        t.reset = rest.split()
        return
    if word == 'init':
        t.init = rest.strip()
        return
    if word == 'factory':
        parse_factory(t, rest.strip())
        return
    if word == 'mount':
        words = rest.split()
        if len(words) == 3 and words[2] == 'vrf-application':
            t.mount_args, words = True, words[:2]
        if len(words) != 2:
            raise DescriptionError('mount needs an IPv4 and an IPv6 path')
        t.mount = words
        return
    if word == 'attach':
        # attach on-parent: mount the tables when the entity gets its parent, under its path.
        if rest.strip() != 'on-parent':
            raise DescriptionError('the only attach is "attach on-parent"')
        t.attach_on_parent = True
        return
    if word == 'method':
        parse_method(t, rest, doc)
        return
    if word == 'check':
        parse_check(t, rest.strip(), doc, line_no)
        return
    if word == 'state':
        # state name: Type - hand-written data the class holds as name_, for its hand-written methods.
        m = re.fullmatch(r'(\w+)\s*:\s*([\w:]+)', rest.strip())
        if not m:
            raise DescriptionError('state needs "name: Type"')
        t.state.append((m.group(1), m.group(2), list(doc), line_no))
        return
    if word == 'enum':
        name, _, lits = rest.partition(':')
        e = Type('enum', name.strip(), [], line_no)
        e.literals = lits.split()
        t.enums.append(e)
        return
    m = MEMBER.match(line)
    if not m:
        raise DescriptionError('cannot read member')
    kind, name, decl = m.groups()
    decl, options = split_options(decl)
    allowed = {'coll': {'id', 'ordered', 'keyed'}, 'child': {'id', 'ordered'}, 'table': {'id', 'capacity'},
               'attr': {'id', 'ctor', 'custom'}, 'counter': {'id'}, 'const': {'id'}, 'ref': {'id', 'valid'},
               'backptr': {'ctor'}, 'field': {'bits'}}[kind]
    for option in options:
        if option not in allowed:
            raise DescriptionError('%r is not an option of %s' % (option, kind))
    if kind in ('coll', 'child', 'table'):
        key, arrow, value = decl.partition('->')
        if not arrow or not VALUE_TYPE.fullmatch(value.strip()):
            raise DescriptionError('%s needs "key -> value"' % kind)
        member = Member(kind, name, ctype(re.sub(r'\s+', ' ', value.strip())), key=ctype(key.strip()), ordered='ordered' in options,
                        line=line_no)
        member.keyed = options.get('keyed')
        if kind == 'table':
            if 'capacity' not in options:
                raise DescriptionError('a table needs "capacity N"')
            member.capacity = number(options['capacity'])
    elif kind in ('ref', 'backptr'):
        if not re.fullmatch(r'[\w:]+', decl):
            raise DescriptionError('%s needs one entity type' % kind)
        member = Member(kind, name, decl, line=line_no)
        member.valid = 'valid' in options
        member.ctor = 'ctor' in options
    else:
        m2 = SCALAR.match(decl)
        if not m2:
            raise DescriptionError('cannot read type and default')
        typ, default, check, limit = m2.groups()
        member = Member(kind, name, ctype(typ), default, line=line_no)
        member.check = (check, limit)
        member.ctor = 'ctor' in options
        member.custom = 'custom' in options
        if member.ctor and member.custom:
            raise DescriptionError('an attribute set at construction has no setter to write by hand')
        if kind == 'const' and default is None:
            raise DescriptionError('a constant needs "= value"')
        if 'bits' in options:
            # A field packed with the other fields of its value into one word, lowest bits first.
            if typ not in UNSIGNED_BITS or check is not None or not 0 < number(options['bits']) <= 16:
                raise DescriptionError('bits needs an unsigned field without range or max, of 1 to 16 bits')
            member.bits = number(options['bits'])
    if 'id' in options:
        member.explicit_id = number(options['id'])
    member.doc = list(doc)
    t.members.append(member)
    if [x.name for x in t.members].count(name) > 1:
        raise DescriptionError('%s is declared twice' % name)


def parse_method(t, rest, doc):
    """A hand-written operation: its declaration goes into the class as written; "method protected ..."
    puts it among the protected members, for the type and the entities derived from it."""
    protected, declaration = False, rest.strip()
    if declaration.startswith('protected '):
        protected, declaration = True, declaration[len('protected '):].strip()
    if not re.fullmatch(r'[\w:<>&*, ]+\s+(\w+)\(.*\)(\s*const)?(\s*override)?', declaration):
        raise DescriptionError('method needs a C++ declaration "Type name(params) [const] [override]"')
    (t.protected_methods if protected else t.methods).append((declaration, list(doc)))


CHECK = re.compile(r'(\w+)\s*\(\s*(\w+(?:\s*,\s*\w+)*)\s*\)$')


def parse_check(t, rest, doc, line_no):
    """check name(attribute, ...): a hand-written static function that throws to refuse a combination of
    attribute values; the constructor and every listed setter call it before anything is stored."""
    m = CHECK.match(rest)
    if not m:
        raise DescriptionError('check needs "name(attribute, ...)"')
    t.checks.append((m.group(1), [a.strip() for a in m.group(2).split(',')], list(doc), line_no))


FACTORY = re.compile(r'(\w+)\s*\(([\w\s,]*)\)$')


def parse_factory(t, rest):
    """factory none | factory name(arg, ...): each argument is an attribute set at construction, or
    `name`, the entity's name, when no attribute is called so."""
    if rest == 'none':
        t.factory = False
        return
    m = FACTORY.match(rest)
    if not m:
        raise DescriptionError('factory needs "none" or "name(attribute, ...)"')
    t.factories.append((m.group(1), [a.strip() for a in m.group(2).split(',') if a.strip()]))


def parse_word_member(t, line, doc, line_no):
    word, _, rest = line.partition(' ')
    rest = rest.strip()
    if word == 'name':
        t.qname = rest
    elif word == 'text':
        if rest != 'bare':
            raise DescriptionError('the only text option is "bare"')
        t.bare = True
    elif word == 'error':
        if not re.fullmatch(r'"[^"\\]*"', rest):
            raise DescriptionError('error needs one double-quoted text')
        t.error = rest[1:-1]
    else:
        m = NAMED_NUMBER.match(line)
        if not m or (m.group(1) == 'number' and (m.group(5) or m.group(3))):
            raise DescriptionError('cannot read %s' % word)
        kind, name, call, value, test = m.groups()
        member = Member(kind, name, t.base, value, line=line_no)
        member.doc, member.test = list(doc), test
        member.ctor = bool(call)  # a constant read as name(), not name
        if kind == 'const' and not t.low <= number(value) <= t.high:
            raise DescriptionError('%s = %s lies outside %d..%d' % (name, value, t.low, t.high))
        if any(c.name == name for c in t.members):
            raise DescriptionError('%s is declared twice' % name)
        t.members.append(member)
