"""Keyed members of entities: value collections (coll), child entities (child) and shared-memory tables
(table). Every generated member is one call into mroute/entity/*.h or mroute/kivbrume/*.h."""

from emit_common import attr_record, fill, param

COLL_DECL = '''
  using {{X}}Map = {{MAP}};
  const {{X}}Map& {{x}}() const { return {{x}}_; }
  {{V}} {{x}}({{KP}} k) const { return Kiv::collValue({{x}}_, k); }
  void {{x}}Is({{KP}} k, {{VP}} v);
  void new{{X}}({{KP}} k, {{VP}} v);
  // Returns the removed value; V() when the key was absent (nobody is told then).
  {{V}} {{x}}Del({{KP}} k);
  void {{x}}Del({{X}}Map::const_iterator it);
  void {{x}}DelAll();
  void {{x}}Notify({{KP}} k);'''
COLL_DEF = '''
void {{E}}::{{x}}Is({{KP}} k, {{VP}} v) { Kiv::collIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, v, &NotifieeConst::on{{X}}); }
void {{E}}::new{{X}}({{KP}} k, {{VP}} v) { Kiv::collNew<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, v, &NotifieeConst::on{{X}}); }
{{V}} {{E}}::{{x}}Del({{KP}} k) { return Kiv::collTake<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Del({{X}}Map::const_iterator it) { Kiv::collDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, it, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}DelAll() { Kiv::collDelAll<NotifieeConst>(*this, k{{X}}Id, {{x}}_, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Notify({{KP}} k) { Kiv::collNotify<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }'''

# Whole records keyed by their own field: xIs(record) files the record under record.<field>().
RECORD_DECL = '''
  using {{X}}Map = {{MAP}};
  const {{X}}Map& {{x}}() const { return {{x}}_; }
  {{V}} {{x}}({{KP}} k) const { return Kiv::collValue({{x}}_, k); }
  void {{x}}Is({{VP}} v);
  void new{{X}}({{VP}} v);
  {{V}} {{x}}Del({{KP}} k);
  void {{x}}Del({{X}}Map::const_iterator it);
  void {{x}}DelAll();
  void {{x}}Notify({{KP}} k);'''
RECORD_DEF = '''
void {{E}}::{{x}}Is({{VP}} v) { Kiv::collIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v.{{KEYED}}(), v, &NotifieeConst::on{{X}}); }
void {{E}}::new{{X}}({{VP}} v) { Kiv::collNew<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v.{{KEYED}}(), v, &NotifieeConst::on{{X}}); }
{{V}} {{E}}::{{x}}Del({{KP}} k) { return Kiv::collTake<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Del({{X}}Map::const_iterator it) { Kiv::collDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, it, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}DelAll() { Kiv::collDelAll<NotifieeConst>(*this, k{{X}}Id, {{x}}_, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Notify({{KP}} k) { Kiv::collNotify<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }'''

CHILD_DECL = '''
  using {{X}}Map = Kiv::ChildMap<{{K}}, {{C}}{{CHILD_BASE}}>;
  const {{X}}Map& {{x}}() const { return {{x}}_; }
  Kiv::Ptr<{{C}}> {{x}}({{KP}} k) const { return Kiv::childValue({{x}}_, k); }
  Kiv::Ptr<{{C}}> new{{X}}({{KP}} k);
  Kiv::Ptr<{{C}}> {{x}}Is({{KP}} k);
  void {{x}}Del({{KP}} k);
  void {{x}}Del({{X}}Map::const_iterator it);
  void {{x}}DelAll();
  void {{x}}Notify({{KP}} k);'''
CHILD_DEF = '''
Kiv::Ptr<{{C}}> {{E}}::new{{X}}({{KP}} k) { return Kiv::childNew<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
Kiv::Ptr<{{C}}> {{E}}::{{x}}Is({{KP}} k) { return Kiv::childIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Del({{KP}} k) { Kiv::childDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Del({{X}}Map::const_iterator it) { Kiv::childDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, it, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}DelAll() { Kiv::childDelAll<NotifieeConst>(*this, k{{X}}Id, {{x}}_, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Notify({{KP}} k) { Kiv::collNotify<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }'''

TABLE_DECL = '''
  using {{X}}Table = KivBrume::KivBrumeMap<{{K}}, {{V}}>;
  const {{X}}Table& {{x}}() const { return {{x}}_; }
  {{X}}Table& {{x}}() { return {{x}}_; }
  {{V}} {{x}}({{KP}} k) const { return {{x}}_.lookup(k); }
  void {{x}}Is({{VP}} v);
  void new{{X}}({{VP}} v);
  {{V}} {{x}}Del({{KP}} k);
  {{V}} {{x}}Del({{X}}Table::const_iterator it);
  void {{x}}DelAll();
  // Opens the slot of k for writing in place; {{x}}Commit publishes it.
  {{V}}* {{x}}DirectIs({{KP}} k) { return {{x}}_.directWrite(k); }
  void {{x}}Commit(const {{V}}* v);
  void {{x}}Notify({{KP}} k);
  void {{x}}NotifyCollection();
  uint64_t {{x}}DelCount() const { return {{x}}_.delCount(); }
  uint64_t {{x}}CommitCount() const { return {{x}}_.commitCount(); }'''
TABLE_DEF = '''
void {{E}}::{{x}}Is({{VP}} v) { KivBrume::tableIs<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v, &NotifieeConst::on{{X}}); }
void {{E}}::new{{X}}({{VP}} v) { KivBrume::tableNew<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v, &NotifieeConst::on{{X}}); }
{{V}} {{E}}::{{x}}Del({{KP}} k) { return KivBrume::tableDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, k, &NotifieeConst::on{{X}}); }
{{V}} {{E}}::{{x}}Del({{X}}Table::const_iterator it) { return KivBrume::tableDel<NotifieeConst>(*this, k{{X}}Id, {{x}}_, it, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}DelAll() { KivBrume::tableDelAll<NotifieeConst>(*this, k{{X}}Id, {{x}}_, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Commit(const {{V}}* v) { KivBrume::tableCommit<NotifieeConst>(*this, k{{X}}Id, {{x}}_, v, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}Notify({{KP}} k) { Kiv::keyNotify<NotifieeConst>(*this, k{{X}}Id, k, &NotifieeConst::on{{X}}); }
void {{E}}::{{x}}NotifyCollection() { Kiv::collectionNotify<NotifieeConst>(*this, k{{X}}Id, &NotifieeConst::on{{X}}kivImmediate, &NotifieeConst::on{{X}}); }'''

MOUNT_TABLES_DECL = '''
  // Mounts every shared table under mountPath (one directory per table, named after it); a reader kind
  // announces each change it learns as onX(key) and its readiness as the collection-level callbacks.
  void mountTables(Mroute::Loop::EventLoop& loop, std::string_view mountPath, Brume::BrumeType type);
  void unmountTables();'''
MOUNT_TABLES_DEF = '''
void {{E}}::mountTables(Mroute::Loop::EventLoop& loop, std::string_view mountPath, Brume::BrumeType type) {{{MOUNTS}}
}
void {{E}}::unmountTables() {{{UNMOUNTS}}
}'''
MOUNT_ONE = '''
  {{x}}_.mount(loop, mountPath, type, [this](const {{K}}& k) { {{x}}Notify(k); }, [this] { {{x}}NotifyCollection(); });'''

COLL_CALLBACKS = '''  virtual void on{{X}}(const {{K}}&) {}
  virtual void on{{X}}kivImmediate() {}
  virtual void on{{X}}() {}'''


def table_init(m):
    """The constructor's initializer of table member m."""
    return '%s_("%s", %d)' % (m.name, m.name, m.capacity)


def emit_collection(t, m, enums, holes, out):
    decls, defs, callbacks, storage, attrs = out
    holes.update(K=m.key, KP=param(m.key, enums), V=m.type, VP=param(m.type, enums), C=m.type)
    if m.kind == 'coll':
        holes['MAP'] = 'Kiv::%s<%s, %s>' % ('RbTreeMap' if m.ordered else 'HashMap', m.key, m.type)
        if m.keyed:
            holes['KEYED'] = m.keyed
            decls.append(fill(RECORD_DECL, **holes))
            defs.append(fill(RECORD_DEF, **holes))
        else:
            decls.append(fill(COLL_DECL, **holes))
            defs.append(fill(COLL_DEF, **holes))
        storage.append('  %sMap %s_;' % (holes['X'], m.name))
    elif m.kind == 'child':
        holes['CHILD_BASE'] = ', Kiv::RbTreeMap<%s, Kiv::Ptr<%s>>' % (m.key, m.type) if m.ordered else ''
        decls.append(fill(CHILD_DECL, **holes))
        defs.append(fill(CHILD_DEF, **holes))
        storage.append('  %sMap %s_;' % (holes['X'], m.name))
    else:
        decls.append(fill(TABLE_DECL, **holes))
        defs.append(fill(TABLE_DEF, **holes))
        # Named and sized in the constructor (table_init), not here: an initializer in the class would build
        # the table front in every unit that includes the header.
        storage.append('  %sTable %s_;' % (holes['X'], m.name))
    callbacks.append(fill(COLL_CALLBACKS, **holes))
    # The operations the attribute log knows the member by.
    ops = ' '.join(op % m.name for op in ('%sIs', '%sDel', '%sNotify'))
    attrs.append(attr_record(m, m.kind, m.capacity or 0, ops))


ATTACH_DECL = '''

 protected:
  // Mounts the tables under the entity's path when it gets a parent.
  void handleParent() override;

 public:'''
ATTACH_DEF = '''
void {{E}}::handleParent() { KivBrume::attachOnParent(*this, &{{E}}::mountTables, &{{E}}::unmountTables); }'''


def emit_mount_tables(t, tables, out):
    decls, defs = out[0], out[1]
    decls.append(MOUNT_TABLES_DECL)
    if t.attach_on_parent:
        decls.append(ATTACH_DECL)
        defs.append(fill(ATTACH_DEF, E=t.name))
    mounts = ''.join(fill(MOUNT_ONE, x=m.name, K=m.key) for m in tables)
    unmounts = ''.join('\n  %s_.unmount();' % m.name for m in tables)
    defs.append(fill(MOUNT_TABLES_DEF, E=t.name, MOUNTS=mounts, UNMOUNTS=unmounts))
