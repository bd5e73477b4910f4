"""Entities: the class, its notifiees, factory, reset()/isDefault(), and the scalar members
(attr, counter, const, ref, backptr). Collections come from emit_collections."""

from emit_attr_log import emit_attr_log
from emit_collections import emit_collection, table_init
from emit_common import attr_record, cstring, doc_comment, fill, param
from emit_enum import emit_enum
from model import DescriptionError, cap

ENTITY_DECL = '''
{{DOC}}class {{NAME}} : public {{BASE}} {
 public:{{ENUMS}}
{{IDS}}

  class NotifieeConst;
  class Notifiee;

  explicit {{NAME}}(const Kiv::Name& entityName{{CTOR_PARAMS}});{{DTOR_DECL}}
  static const Kiv::TypeRecord& type();
  const Kiv::TypeRecord& fwkType() const override { return type(); }
{{MOUNT}}{{MEMBERS}}
  void reset();
  bool isDefault() const;
{{PROTECTED}}
 private:{{INIT}}
{{STORAGE}}
};

class {{NAME}}::NotifieeConst : public {{NOTIFIEE_BASE}} {
 public:{{NOTIFIER}}
{{CALLBACKS}}
};

class {{NAME}}::Notifiee : public Kiv::NotifieeOf<{{NAME}}, {{NAME}}::NotifieeConst> {};
{{FACTORY}}'''

# A derived entity's notifiees are notifiees of its base too, so the base's setters reach them.
DERIVED_NOTIFIER = '''
  Kiv::Ptr<const {{NAME}}> notifier() const { return static_cast<const {{NAME}}*>(notifierEntity()); }
  void notifierIs(const Kiv::Ptr<const {{NAME}}>& e) { notifierEntityIs(const_cast<{{NAME}}*>(e.ptr())); }'''

ENTITY_DEFS = '''
{{NAME}}::{{NAME}}(const Kiv::Name& entityName{{CTOR_PARAMS}}) : {{BASE}}(entityName{{BASE_ARGS}}){{CTOR_INITS}} {{{CALL_INIT}}}{{DTOR_DEF}}

const Kiv::TypeRecord& {{NAME}}::type() {
  static const Kiv::TypeRecord& record = Kiv::registerType("{{NS}}::{{NAME}}", Kiv::TypeKind::entity, {}, {{ATTR_LIST}});
  return record;
}
{{DEFS}}
void {{NAME}}::reset() {{{RESET}}
}

bool {{NAME}}::isDefault() const { return {{IS_DEFAULT}}; }
{{INIT_DEF}}{{FACTORY}}'''

SCALAR_DECL = '''
  {{R}} {{x}}() const { return {{x}}_; }
  void {{x}}Is({{P}} v);'''
SCALAR_DEF = '''
void {{E}}::{{x}}Is({{P}} v) {{{CHECKS}} Kiv::attrIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v, &NotifieeConst::on{{X}}); }'''
# A cross-attribute check: hand-written, it throws to refuse the values it is given.
CHECK_DECL = '''
{{DOC}}  static void {{F}}({{PARAMS}});'''
CTOR_ATTR_DECL = '''
  {{R}} {{x}}() const { return {{x}}_; }'''
COUNTER_DECL = '''
  {{T}} {{x}}Inc({{P}} n);
  {{T}} {{x}}Dec({{P}} n);'''
COUNTER_DEF = '''
{{T}} {{E}}::{{x}}Inc({{P}} n) { return Kiv::attrInc<NotifieeConst>(*this, k{{X}}Id, {{x}}_, n, &NotifieeConst::on{{X}}); }
{{T}} {{E}}::{{x}}Dec({{P}} n) { return Kiv::attrDec<NotifieeConst>(*this, k{{X}}Id, {{x}}_, n, &NotifieeConst::on{{X}}); }'''
CONST_DECL = '''
  static {{T}} {{x}}() { return {{DEFAULT}}; }'''
CONST_TEXT_DECL = '''
  static const {{T}}& {{x}}() {
    static const {{T}} value = Kiv::constantFromText<{{T}}>({{DEFAULT}});
    return value;
  }'''
REF_DECL = '''
  Kiv::Ptr<{{T}}> {{x}}() const { return {{x}}_; }
  void {{x}}Is({{P}} v);'''
REF_DEF = '''
void {{E}}::{{x}}Is({{P}} v) { Kiv::attrIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, Kiv::Ptr<{{T}}>(v), &NotifieeConst::on{{X}}); }'''
# A plain back pointer: not counted, not notified, never replicated.
BACKPTR_DECL = '''
  {{T}}* {{x}}() const { return {{x}}_; }
  void {{x}}Is({{T}}* v) { {{x}}_ = v; }'''

SCALAR_CALLBACK = '''  virtual void on{{X}}() {}'''

MOUNT_DECL = '''  static std::string mountPath(Orvet::AddressFamily af) { return Kiv::familyPath(af.value(), "{{V4}}", "{{V6}}"); }
'''
MOUNT_ARGS_DECL = '''  static std::string mountPath(Orvet::AddressFamily af, const L3::VrfName& vrf, const Kiv::Name& application) {
    return Kiv::familyPath(af.value(), "{{V4}}", "{{V6}}", {vrf.str(), application});
  }
'''

FACTORY_DECL = '''
Kiv::Ptr<{{NAME}}> {{FACTORY}}({{PARAMS}});
'''
FACTORY_DEF = '''
Kiv::Ptr<{{NAME}}> {{FACTORY}}({{PARAMS}}) { return new {{NAME}}({{ARGS}}); }
'''


def ref_param(m):
    return 'const Kiv::%s<%s>&' % ('ValidPtr' if m.valid else 'Ptr', m.type)


def emit_scalar(t, m, enums, holes, out):
    decls, defs, callbacks, storage, attrs = out
    x, X = m.name, cap(m.name)
    if m.kind == 'const':
        text = m.default.startswith('"')
        decls.append(fill(CONST_TEXT_DECL if text else CONST_DECL, **holes))
        attrs.append(attr_record(m, 'const'))
        return
    if m.kind == 'backptr':
        decls.append(fill(BACKPTR_DECL, **holes))
        storage.append('  %s* %s_%s;' % (m.type, x, '' if m.ctor else ' = nullptr'))
        attrs.append(attr_record(m, 'backptr'))
        return
    if m.kind == 'ref':
        holes['P'] = ref_param(m)
        decls.append(fill(REF_DECL, **holes))
        defs.append(fill(REF_DEF, **holes))
        storage.append('  Kiv::Ptr<%s> %s_;' % (m.type, x))
        attrs.append(attr_record(m, 'validref' if m.valid else 'ref'))
    elif m.ctor:
        decls.append(fill(CTOR_ATTR_DECL, **holes))
        storage.append('  %s %s_;' % (m.type, x))
        attrs.append(attr_record(m, 'ctor'))
        return
    else:
        decls.append(fill(SCALAR_DECL, **holes))
        if not m.custom:  # a custom setter is hand-written; it stores through Kiv::attrIs as this one does
            defs.append(fill(SCALAR_DEF, CHECKS=''.join(' %s;' % c for c in holes['checks']), **holes))
        if m.kind == 'counter':
            decls.append(fill(COUNTER_DECL, **holes))
            defs.append(fill(COUNTER_DEF, **holes))
        storage.append('  %s %s_ = %s;' % (m.type, x, m.default or '{}'))
        attrs.append(attr_record(m, m.kind))
    callbacks.append(fill(SCALAR_CALLBACK, X=X))


def check_calls(t, enums, decls):
    """Declares each check; returns {attribute: [call with `v` for it]} and the constructor's calls."""
    by_name = {m.name: m for m in t.members}
    per_attr, ctor = {}, []
    for function, names, doc, line in t.checks:
        members = []
        for n in names:
            m = by_name.get(n)
            if m is None or m.kind != 'attr':
                raise DescriptionError('line %d: check %s: %r is not a plain attribute' % (line, function, n))
            members.append(m)
        params = ', '.join('%s %s' % (param(m.type, enums), m.name) for m in members)
        decls.append(fill(CHECK_DECL, DOC=doc_comment(doc, '  '), F=function, PARAMS=params))
        ctor.append('%s(%s);' % (function, ', '.join('%s_' % m.name for m in members)))
        for m in members:
            if not m.ctor:
                args = ', '.join('v' if o is m else '%s_' % o.name for o in members)
                per_attr.setdefault(m.name, []).append('%s(%s)' % (function, args))
    return per_attr, ctor


def reset_lines(t):
    by_name = {m.name: m for m in t.members}
    resets, defaults = [], []
    for name in t.reset:
        m = by_name.get(name)
        if m is None or m.kind in ('const', 'backptr') or m.ctor:
            raise DescriptionError('line %d: %s: cannot reset %r' % (t.line, t.name, name))
        if m.kind in ('coll', 'child', 'table'):
            resets.append('\n  %sDelAll();' % name)
            defaults.append('%s_.empty()' % name)
        elif m.kind == 'ref':
            resets.append('\n  %sIs(nullptr);' % name)
            defaults.append('!%s_' % name)
        else:
            resets.append('\n  %sIs(%s);' % (name, m.default or '{}'))
            defaults.append('%s_ == %s' % (name, m.default or '%s{}' % m.type))
    return ''.join(resets), ' && '.join(defaults) or 'true'


def ctor_members(t):
    """The members the constructor takes, in declaration order."""
    return [m for m in t.members if m.ctor or (m.kind == 'ref' and m.valid)]


def arg_param(m, enums):
    if m.kind == 'ref':
        return ref_param(m)
    if m.kind == 'backptr':
        return '%s*' % m.type
    return param(m.type, enums)


def ctor_params(t, enums):
    """", T x[ = {}]" for each constructor member; those after the last required one have defaults."""
    members = ctor_members(t)
    required = max([i for i, m in enumerate(members) if m.kind == 'ref'] + [-1])
    return ''.join(', %s %s%s' % (arg_param(m, enums), m.name, ' = {}' if i > required else '')
                   for i, m in enumerate(members))


def factories(t, by_name, enums):
    """(declarations, definitions): XIs(name) when nothing must be given, and each named factory."""
    if not t.factory:
        return '', ''
    members = ctor_members(t)
    decls, defs = [], []
    if not any(m.kind == 'ref' for m in members):
        holes = dict(NAME=t.name, FACTORY='%sIs' % t.name, PARAMS='const Kiv::Name& name', ARGS='name')
        decls.append(fill(FACTORY_DECL, **holes))
        defs.append(fill(FACTORY_DEF, **holes))
    for function, args in t.factories:
        params, entity_name = [], None
        for a in args:
            m = by_name.get(a)
            if m is None and a == 'name':
                params.append('const Kiv::Name& name')
                entity_name = 'name'
            elif m is None or m not in members:
                raise DescriptionError('line %d: factory argument %r is not an attribute set at construction'
                                       % (t.line, a))
            else:
                params.append('%s %s' % (arg_param(m, enums), a))
        for m in members:
            if m.kind == 'ref' and m.name not in args:
                raise DescriptionError('line %d: factory %s must take %s' % (t.line, function, m.name))
        if entity_name is None:
            entity_name = 'Kiv::childName(%s)' % args[0] if args else 'Kiv::Name("%s")' % t.name
        call = [entity_name] + [m.name if m.name in args else '{}' for m in members]
        while len(call) > 1 and call[-1] == '{}':
            call.pop()
        holes = dict(NAME=t.name, FACTORY=function, PARAMS=', '.join(params), ARGS=', '.join(call))
        decls.append(fill(FACTORY_DECL, **holes))
        defs.append(fill(FACTORY_DEF, **holes))
    return ''.join(decls), ''.join(defs)


def emit_entity(ns, t, enums):
    """(declaration, [(EnumInfo, functions)], definitions, enum registry definitions, registrations)."""
    decls, defs, callbacks, storage, attrs, ids = [], [], [], [], [], []
    out = (decls, defs, callbacks, storage, attrs)
    enum_decls, after, enum_defs, registers = '', [], [], ['%s::type()' % t.name]
    for e in t.enums:
        d, info, funcs, typedef = emit_enum(ns, e, t.name)
        enum_decls += d.replace('\nenum', '\n  enum')
        after.append((info, funcs))
        enum_defs.append(typedef)
        registers.append('Kiv::EnumInfo<%s::%s>::type()' % (t.name, e.name))
    tables = []
    check_decls = []
    checks, ctor_checks = check_calls(t, enums, check_decls)
    for m in t.members:
        x, X = m.name, cap(m.name)
        ids.append('  static constexpr Kiv::AttrId k%sId = %d;' % (X, m.id))
        holes = dict(E=t.name, x=x, X=X, T=m.type, P=param(m.type, enums), R=param(m.type, enums),
                     DEFAULT=m.default, checks=checks.get(m.name, []))
        if m.kind in ('coll', 'child', 'table'):
            emit_collection(t, m, enums, holes, out)
            if m.kind == 'table':
                tables.append(m)
        else:
            emit_scalar(t, m, enums, holes, out)
    by_name = {m.name: m for m in t.members}
    taken = ctor_members(t)
    ctor_inits = ''.join(', %s_(%s)' % (m.name, m.name) if m in taken else ', ' + table_init(m)
                         for m in t.members if m in taken or m.kind == 'table')
    params = ctor_params(t, enums)
    reset, is_default = reset_lines(t)
    if t.mount:
        mount = fill(MOUNT_ARGS_DECL if t.mount_args else MOUNT_DECL, V4=t.mount[0], V6=t.mount[1])
    else:
        mount = ''
    if t.attach_on_parent and not tables:
        raise DescriptionError('line %d: %s: "attach on-parent" needs a table' % (t.line, t.name))
    if tables:
        from emit_collections import emit_mount_tables
        emit_mount_tables(t, tables, out)
    decls.extend(check_decls)
    for declaration, doc in t.methods:
        decls.append('\n' + doc_comment(doc, '  ') + '  %s;' % declaration)
    protected = ''.join('\n' + doc_comment(doc, '  ') + '  %s;' % declaration for declaration, doc in t.protected_methods)
    for name, typ, doc, _ in t.state:
        storage.append(doc_comment(doc, '  ') + '  %s %s_;' % (typ, name))
    log_members, log_class, log_defs = emit_attr_log(ns, t, enums)
    decls.append(log_members)
    base = t.parent or 'Kiv::Entity'
    factory_decl, factory_def = factories(t, by_name, enums)
    # An entity with tables destroys them in its own unit: an implicit destructor would be defined, with the
    # whole table front behind it, in every unit that includes the header.
    dtor_decl = '\n  ~%s() override;' % t.name if tables else ''
    dtor_def = '\n%s::~%s() = default;' % (t.name, t.name) if tables else ''
    decl = fill(ENTITY_DECL, DOC=doc_comment(t.doc), NAME=t.name, BASE=base, ENUMS=enum_decls, DTOR_DECL=dtor_decl,
                IDS='\n'.join(ids), CTOR_PARAMS=params, PROTECTED='\n protected:' + protected + '\n' if protected else '', MOUNT=mount, MEMBERS='\n'.join(decls),
                INIT='\n  void doInit();' if t.init else '', STORAGE='\n'.join(storage),
                NOTIFIEE_BASE=('%s::NotifieeConst' % t.parent) if t.parent else 'Kiv::NotifieeConstOf<%s>' % t.name,
                NOTIFIER=fill(DERIVED_NOTIFIER, NAME=t.name) if t.parent else '',
                CALLBACKS='\n'.join(callbacks), FACTORY=factory_decl) + log_class
    init_def = '\nvoid %s::doInit() { %s }\n' % (t.name, t.init) if t.init else ''
    definition = fill(ENTITY_DEFS, NS=ns, NAME=t.name, BASE=base, DTOR_DEF=dtor_def,
                      BASE_ARGS=', %s' % t.parent_args if t.parent_args else '', CTOR_PARAMS=params.replace(' = {}', ''),
                      CTOR_INITS=ctor_inits,
                      CALL_INIT=''.join(' %s' % c for c in ctor_checks + (['doInit();'] if t.init else []))
                      + (' ' if ctor_checks or t.init else ''),
                      ATTR_LIST=('Kiv::withInherited(%s::type(), {%s})' % (t.parent, ', '.join(attrs))) if t.parent
                      else '{%s}' % ', '.join(attrs),
                      DEFS='\n'.join(defs) + '\n', RESET=reset, IS_DEFAULT=is_default, INIT_DEF=init_def,
                      FACTORY=factory_def) + log_defs
    return decl, after, definition, enum_defs, registers


__all__ = ['emit_entity', 'cstring']
