"""Entities: the attribute-log stream adapter KivNboAttrLogSa of each entity type. The adapter's logic is
written once (mroute/entity/replication/kiv_nbo_attr_log_sa.h); what is generated per type is the table of
its logged attributes (one call per attribute into attr_log_type.h) and the notifiee callbacks that
forward each change to it."""

from emit_common import fill, param
from model import cap

HEADER = 'mroute/entity/replication/kiv_nbo_attr_log_sa.h'

MEMBER_DECLS = '''
  // Replication over an attribute log: the adapter of this entity on `out`.
  class KivNboAttrLogSa;
  Kiv::Ptr<Kiv::Entity::KivNboAttrLogSa> kivNboAttrLogSaIs(uint32_t notifieeBits, uint32_t connectionId,
                                                       const Kiv::Ptr<Kiv::NboAttrLog::Out>& out,
                                                       Kiv::Entity::KivNboAttrLogSa* parent);
  void kivNboAttrLogSaDel(const Kiv::Ptr<Kiv::NboAttrLog::Out>& out);'''

CLASS_DECL = '''
class {{NAME}}::KivNboAttrLogSa : public Kiv::KivNboAttrLogSaOf<{{NAME}}> {
 public:
  using KivNboAttrLogSaOf::KivNboAttrLogSaOf;
  ~KivNboAttrLogSa() override;
  static const Kiv::AttrLogType& logType();
{{HANDLERS}}

 private:
  class KivNboAttrLogSaAdapter_;
  void reactorIs(bool on) override;
  std::unique_ptr<KivNboAttrLogSaAdapter_> reactor_;
};
'''

DEFS = '''
class {{NAME}}::KivNboAttrLogSa::KivNboAttrLogSaAdapter_ : public {{NAME}}::NotifieeConst {
 public:
  explicit KivNboAttrLogSaAdapter_(KivNboAttrLogSa& sa) : sa_(sa) { notifierIs(Kiv::Ptr<const {{NAME}}>(&sa.entity())); }
{{FORWARDS}}

 private:
  [[maybe_unused]] KivNboAttrLogSa& sa_;  // an entity with nothing to forward leaves it unused
};

{{NAME}}::KivNboAttrLogSa::~KivNboAttrLogSa() = default;

void {{NAME}}::KivNboAttrLogSa::reactorIs(bool on) {
  if (on && !reactor_) reactor_ = std::make_unique<KivNboAttrLogSaAdapter_>(*this);
  if (!on) reactor_.reset();
}

const Kiv::AttrLogType& {{NAME}}::KivNboAttrLogSa::logType() {
  static const Kiv::AttrLogType type("{{NS}}::{{NAME}}", {{{ATTRS}}
  }, &Kiv::newKivNboAttrLogSa<{{NAME}}>);
  return type;
}

Kiv::Ptr<Kiv::Entity::KivNboAttrLogSa> {{NAME}}::kivNboAttrLogSaIs(uint32_t notifieeBits, uint32_t connectionId,
                                                          const Kiv::Ptr<Kiv::NboAttrLog::Out>& out,
                                                          Kiv::Entity::KivNboAttrLogSa* parent) {
  return Kiv::kivNboAttrLogSaIs(*this, KivNboAttrLogSa::logType(), notifieeBits, connectionId, out, parent);
}

void {{NAME}}::kivNboAttrLogSaDel(const Kiv::Ptr<Kiv::NboAttrLog::Out>& out) { Kiv::kivNboAttrLogSaDel(*this, out.ptr()); }

namespace {
// Mountable by path (mount_types.h): registered at load with the unit's types.
[[maybe_unused]] const bool kivMountable{{NAME}} = Kiv::NboAttrLog::mountableTypeIs<{{NAME}}>({{{PATHS}}});
}  // namespace
'''


def logged(m):
    """The kind of log entry of a member: scalar, ctor, ref, coll, record, children, table, or None."""
    if m.kind in ('attr', 'counter'):
        return 'ctor' if m.ctor else 'scalar'
    if m.kind == 'ref':
        return 'ref'
    if m.kind == 'coll':
        return 'record' if m.keyed else 'coll'
    if m.kind == 'child':
        return 'children'
    if m.kind == 'table':
        return 'table'
    return None  # constants and back pointers


def entry(t, m, enums):
    E, x, X = t.name, m.name, cap(m.name)
    kind = logged(m)
    if kind == 'scalar':
        return 'Kiv::logScalar<%s, %s, &%s::%s, &%s::%sIs>(k%sId, "%s")' % (E, m.type, E, x, E, x, X, x)
    if kind == 'ctor':
        return 'Kiv::logCtor<%s, %s, &%s::%s>(k%sId, "%s")' % (E, m.type, E, x, X, x)
    if kind == 'ref':
        return 'Kiv::logRef<%s, %s, &%s::%s, &%s::%sIs>(k%sId, "%s")' % (E, m.type, E, x, E, x, X, x)
    if kind == 'table':
        get = 'static_cast<%s::%sTable& (%s::*)()>(&%s::%s)' % (E, X, E, E, x)
        return 'Kiv::logTable<%s, %s::%sTable, %s, &%s::%sNotify, &%s::%sNotifyCollection>(k%sId, "%s")' % (
            E, E, X, get, E, x, E, x, X, x)
    if kind is None:
        return 'Kiv::logSkipped(k%sId, "%s")' % (X, x)
    # The map getter and xDel(key) are overloaded: a cast names the one meant.
    get = 'static_cast<const %s::%sMap& (%s::*)() const>(&%s::%s)' % (E, X, E, E, x)
    # A collection's xDel(key) returns the removed value; a child's returns nothing.
    ret = 'void' if kind == 'children' else m.type
    delete = 'static_cast<%s (%s::*)(%s)>(&%s::%sDel)' % (ret, E, param(m.key, enums), E, x)
    if kind == 'children':
        return 'Kiv::logChildren<%s, %s, %s::%sMap, %s, &%s::%sIs, %s, &%s::%sDelAll>(k%sId, "%s")' % (
            E, m.type, E, X, get, E, x, delete, E, x, X, x)
    fn = 'logColl' if kind == 'coll' else 'logRecordColl'
    return 'Kiv::%s<%s, %s::%sMap, %s, &%s::%sIs, %s, &%s::%sDelAll>(k%sId, "%s")' % (
        fn, E, E, X, get, E, x, delete, E, x, X, x)


def logged_members(t):
    """The members the adapter covers: the base entities' (t.inherited, found by the type check), then
    the type's own."""
    own = {m.name for m in t.members}
    return [m for m in t.inherited if m.name not in own] + list(t.members)


def emit_attr_log(ns, t, enums):
    """(member declarations, class declaration, definitions) of the entity's adapter."""
    handlers, forwards, attrs = [], [], []
    for m in logged_members(t):
        x, X = m.name, cap(m.name)
        attrs.append('\n      ' + entry(t, m, enums) + ',')
        if m.kind in ('const', 'backptr') or m.ctor:
            continue
        if m.kind in ('coll', 'child', 'table'):
            kp = 'const %s&' % m.key  # as the notifiee declares it
            # A table's rows are not logged: readers mount the table itself.
            call = 'onMember(k%sId, k)' % X if logged(m) not in (None, 'table') else ''
            handlers.append('  void on%s(%s k) { %s; }' % (X, kp, call) if call else
                            '  void on%s(%s) {}' % (X, kp))
            forwards.append('  void on%s(%s k) override { sa_.on%s(k); }' % (X, kp, X))
        else:
            call = 'onAttr(k%sId);' % X if logged(m) else ''
            handlers.append('  void on%s() { %s }' % (X, call))
            forwards.append('  void on%s() override { sa_.on%s(); }' % (X, X))
    paths = ['%s/*/*' % p if t.mount_args else p for p in (t.mount or [])]
    holes = dict(NAME=t.name, NS=ns, PATHS=', '.join('"%s"' % p for p in paths), HANDLERS='\n'.join(handlers), FORWARDS='\n'.join(forwards),
                 ATTRS=''.join(attrs).rstrip(','))
    return MEMBER_DECLS, fill(CLASS_DECL, **holes), fill(DEFS, **holes)
