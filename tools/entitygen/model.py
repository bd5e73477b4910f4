"""The model of descriptions: types, members, and the catalog of every type name the generated code may use.

The catalog holds the types of every description of the tree and the hand-written types listed in
known_types.txt, each with the header that declares it. The type check resolves each type a member names,
as C++ would from the description's namespace outward; an unknown type or a name declared twice is an error
that names the file and line. The includes of a generated header are the headers of the types it uses.
"""

import copy
import os
import re

UNSIGNED_BITS = {'u8': 8, 'u16': 16, 'u32': 32, 'u64': 64}
SHORT_TYPES = {'u8': 'uint8_t', 'u16': 'uint16_t', 'u32': 'uint32_t', 'u64': 'uint64_t',
               'i8': 'int8_t', 'i16': 'int16_t', 'i32': 'int32_t', 'i64': 'int64_t'}
BY_VALUE = {'bool', 'double', 'float'} | set(SHORT_TYPES.values())
# Types the entity layer itself provides (entity_support.h includes them).
BUILTIN = BY_VALUE | {'Kiv::Name', 'Kiv::String', 'Kiv::String8'}


class DescriptionError(Exception):
    pass


def cap(name):
    return name[0].upper() + name[1:]


def ctype(t):
    return SHORT_TYPES.get(t, t)


class Member:
    def __init__(self, kind, name, type_=None, default=None, key=None, ordered=False, line=0):
        self.kind, self.name, self.type, self.default = kind, name, type_, default
        self.key, self.ordered, self.line = key, ordered, line
        self.check = (None, None)  # ('range', '1..4094') or ('max', '0x3f')
        self.id = 0
        self.explicit_id = None
        self.doc, self.test = [], None  # bounded constants: comment lines, is...() predicate
        self.capacity = None            # shared tables: initial entries
        self.keyed = None               # record collections: the record's key accessor
        self.ctor = False               # attributes set at construction only
        self.custom = False             # attributes whose setter is hand-written
        self.valid = False              # references that may not be null
        self.bits = None                # packed value fields: width in bits


class Type:
    def __init__(self, kind, name, doc, line=0):
        self.kind, self.name, self.doc, self.line = kind, name, doc, line
        self.members, self.enums, self.reset, self.mount = [], [], [], None
        self.init, self.factory, self.literals, self.base = None, True, [], None
        self.factories = []  # named factories: (function name, argument names)
        self.attach_on_parent = False
        self.parent = None  # entity inheritance: the base entity's name
        self.parent_args = None  # ... and what its constructor gets after the name (C++ as written)
        self.methods = []  # hand-written operations: (declaration, comment lines)
        self.protected_methods = []  # ... that only the type and those derived from it call
        self.state = []  # hand-written non-attribute data: (name, type, comment lines, line)
        self.base_type = None  # the base entity's Type once the type check found it, and its namespace
        self.base_ns = None
        self.inherited = []  # the bases' members, as inherited_members() gives them
        self.checks = []  # cross-attribute checks: (function, attribute names, comment lines, line)
        self.mount_args = False  # mount paths with a VRF and application
        self.qname, self.bare, self.error = None, False, None  # flags and bounded values
        self.low = self.high = self.initial = None  # bounded values, as numbers


class Description:
    def __init__(self, path, ns, includes, types, header=None):
        self.path, self.ns, self.includes, self.types, self.header = path, ns, includes, types, header


def next_id(t):
    """The first id after the type's attributes, its bases' included."""
    if t.members:
        return t.members[-1].id + 1
    return next_id(t.base_type) if t.base_type else 258


def number_attributes(t, first=258):
    """Ids count from `first` in declaration order; an explicit id moves the count on."""
    nxt = first
    for m in t.members:
        if m.explicit_id is not None:
            if m.explicit_id < nxt:
                raise DescriptionError('line %d: id %d of %s is not above the previous id' % (m.line, m.explicit_id, m.name))
            nxt = m.explicit_id
        m.id = nxt
        nxt += 1


# ---------------------------------------------------------------- catalog

class Entry:
    def __init__(self, qname, header, kind, where, type_=None, ns=None):
        self.qname, self.header, self.kind, self.where = qname, header, kind, where
        self.type, self.ns = type_, ns  # described types: the Type and its namespace


def same_file(a, b):
    """Whether two "file:line" places are in one file."""
    return os.path.abspath(a.rsplit(':', 1)[0]) == os.path.abspath(b.rsplit(':', 1)[0])


class Catalog:
    """Qualified type name -> where it is declared."""

    def __init__(self):
        self.entries = {}
        self.registered = []  # the registry names of the described types

    def add(self, qname, header, kind, where, type_=None, ns=None):
        old = self.entries.get(qname)
        if old is not None and old.header != header and same_file(old.where, where) is False:
            raise DescriptionError('%s: type %s is declared twice (first at %s)' % (where, qname, old.where))
        self.entries[qname] = Entry(qname, header, kind, where, type_, ns)

    def add_description(self, d):
        for t in d.types:
            where = '%s:%d' % (d.path, t.line)
            self.add('%s::%s' % (d.ns, t.name), d.header, t.kind, where, t, d.ns)
            self.registered.append(t.qname)
            for e in t.enums:
                self.add('%s::%s::%s' % (d.ns, t.name, e.name), d.header, 'enum', where)
                self.registered.append('%s::%s::%s' % (d.ns, t.name, e.name))

    def add_known(self, path):
        with open(path) as f:
            for number, raw in enumerate(f, 1):
                line = raw.split('#', 1)[0].strip()
                if line:
                    qname, header = line.split()
                    self.add(qname, header, 'known', '%s:%d' % (path, number))

    def resolve(self, name, scopes):
        """The entry `name` means in the innermost of `scopes` (namespaces, outermost last)."""
        for scope in scopes:
            found = self.entries.get('%s::%s' % (scope, name) if scope else name)
            if found is not None:
                return found
        return None


def scopes_of(ns, outer=None):
    parts = ns.split('::')
    scopes = ['::'.join(parts[:i]) for i in range(len(parts), 0, -1)] + ['']
    return (['%s::%s' % (ns, outer)] if outer else []) + scopes


TEMPLATE_ARGS = re.compile(r'[\w:]+')


def used_types(t):
    """(member, type name) for every type a member names."""
    for m in t.members:
        if t.kind in ('flags', 'bounded'):
            continue
        for name in (m.type, m.key):
            if name:
                ptr = re.fullmatch(r'Kiv::(?:Valid)?Ptr<\s*(?:const\s+)?([\w:]+)\s*>', name)
                yield m, ptr.group(1) if ptr else name


def link_base(t, ns, path, catalog):
    """Finds the base entity of `t` (in any description) and numbers t's ids on after the base's,
    recursively; returns the header that declares the base."""
    if not t.parent:
        return None
    found = catalog.resolve(t.parent, scopes_of(ns))
    if found is None or found.kind != 'entity' or found.type is None:
        raise DescriptionError('%s:%d: unknown base entity %r' % (path, t.line, t.parent))
    link_base(found.type, found.ns, found.where.rsplit(':', 1)[0], catalog)
    t.base_type, t.base_ns = found.type, found.ns
    number_attributes(t, next_id(found.type))
    return found.header


def inherited_members(t, catalog):
    """The members of t's bases, base first, with their types named as from anywhere (a base described
    in another namespace names its types from there)."""
    base = t.base_type
    if base is None:
        return []
    own = inherited_members(base, catalog)
    for m in base.members:
        q = copy.copy(m)
        for attr in ('type', 'key'):
            name = getattr(m, attr)
            found = name and catalog.resolve(name, scopes_of(t.base_ns, base.name))
            if found:
                setattr(q, attr, found.qname)
        own.append(q)
    return own


def check_types(d, catalog):
    """Resolves every used type; returns the headers to include, in first-use order."""
    headers = []
    own = {t.name for t in d.types}
    for t in d.types:
        nested = {e.name for e in t.enums}
        base_header = link_base(t, d.ns, d.path, catalog)
        if base_header and base_header != d.header and base_header not in headers:
            headers.append(base_header)
        for name, typ, _, line in t.state:
            found = catalog.resolve(typ, scopes_of(d.ns, t.name))
            if found is None:
                raise DescriptionError('%s:%d: unknown type %r of state %s' % (d.path, line, typ, name))
            if found.header and found.header != d.header and found.header not in headers:
                headers.append(found.header)
        for m, name in used_types(t):
            if name in BUILTIN or name in own or name in nested:
                continue
            found = catalog.resolve(name, scopes_of(d.ns, t.name))
            if found is None:
                raise DescriptionError('%s:%d: unknown type %r' % (d.path, m.line or t.line, name))
            if found.header and found.header != d.header and found.header not in headers:
                headers.append(found.header)
        # Hand-written methods are C++ as written; the types they name that the catalog knows are included.
        for declaration, _ in t.methods + t.protected_methods:
            for name in re.findall(r'[A-Za-z_][\w:]*', declaration):
                found = catalog.resolve(name, scopes_of(d.ns, t.name))
                if found and found.header and found.header != d.header and found.header not in headers:
                    headers.append(found.header)
    return headers


def default_catalog(src_root, known, parse):
    """Every description under src_root (header = its folder below src_root) and the known types."""
    catalog = Catalog()
    if known and os.path.exists(known):
        catalog.add_known(known)
    if src_root:
        for folder, _, files in sorted(os.walk(src_root)):
            for name in sorted(files):
                if name.endswith('.ent'):
                    path = os.path.join(folder, name)
                    prefix = os.path.relpath(folder, src_root).replace(os.sep, '/')
                    with open(path) as f:
                        catalog.add_description(parse(f.read(), path, '%s/%s.h' % (prefix, name[:-4])))
    return catalog
