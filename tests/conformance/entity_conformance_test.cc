// The entity shape, run over every generated entity type: registration,
// attribute ids, defaults and reset, notifiees, mount paths, and every
// settable scalar attribute driven through the attribute-log table of its
// type: a different value is stored and heard once by each notifiee in list
// order, the same value again by nobody.
#include <string>

#include "conformance.h"
#include "mroute/entity/replication/wire.h"
#include "testing/expect_assert.h"

namespace Conformance {
namespace {

// ---------------------------------------------------------------- entities

template <class E>
class EntityShape : public testing::Test {
 protected:
  Kiv::Ptr<E> entity = fresh<E>();
};

TYPED_TEST_SUITE(EntityShape, Entities);

TYPED_TEST(EntityShape, RegisteredOnceByItsQualifiedName) {
  const Kiv::TypeRecord& type = TypeParam::type();
  EXPECT_EQ(Kiv::findType(type.name), &type);
  EXPECT_EQ(&this->entity->fwkType(), &type);
  EXPECT_EQ(type.kind, Kiv::TypeKind::entity);
  int seen = 0;
  for (const Kiv::TypeRecord* r : Kiv::registeredTypes()) seen += r->name == type.name;
  EXPECT_EQ(seen, 1);
}

TYPED_TEST(EntityShape, AttributeIdsStartAt258AndRise) {
  int previous = Kiv::kFirstAttrId - 1;
  for (const Kiv::AttrRecord& a : TypeParam::type().attributes) {
    EXPECT_GT(a.id, previous) << a.name;
    previous = a.id;
  }
}

TYPED_TEST(EntityShape, FreshIsDefaultAndResetKeepsIt) {
  EXPECT_TRUE(this->entity->isDefault());
  this->entity->reset();
  EXPECT_TRUE(this->entity->isDefault());
  EXPECT_EQ(this->entity->references(), 1u);
}

TYPED_TEST(EntityShape, NotifieesAttachAndDetach) {
  typename TypeParam::Notifiee n;
  n.notifierIs(this->entity);
  EXPECT_EQ(n.notifier(), this->entity);
  EXPECT_TRUE(this->entity->notifieeList().contains(&n));
  n.isRegisteredNotifieeIs(false);
  EXPECT_FALSE(this->entity->notifieeList().contains(&n));
  n.notifierIs(nullptr);
  EXPECT_EQ(this->entity->references(), 1u);
}

TYPED_TEST(EntityShape, MountPathsPairByFamily) {
  if constexpr (requires { TypeParam::mountPath(Orvet::AddressFamily(1)); }) {
    const std::string v4 = TypeParam::mountPath(Orvet::AddressFamily(1));
    const std::string v6 = TypeParam::mountPath(Orvet::AddressFamily(2));
    EXPECT_NE(v4, v6);
    EXPECT_TRUE(v6.find('6') != std::string::npos) << v6;
    EXPECT_ASSERTION(TypeParam::mountPath(Orvet::AddressFamily(3)), "false && \"Unsupported address family\"");
  } else {
    GTEST_SKIP() << "no fixed mount path";
  }
}

std::string wireOf(const Kiv::AttrLogAttr& a, const Kiv::Entity& e) {
  std::string bytes;
  Kiv::NboAttrLog::WireWriter w(bytes);
  a.writeValue(e, w);
  return bytes;
}

// `log` is what two listeners, a and b (attached in that order), hear of `e`.
// `socketSetters`: the hand-written setters that act on the socket are left
// to the upcall socket's own tests.
void checkScalarsNotifyOnlyOnChange(Kiv::Entity& e, HeardLog& log, bool socketSetters) {
  const Kiv::AttrLogType& logType = logTypeOf(e);
  for (const Kiv::AttrRecord& r : e.fwkType().attributes) {
    if (r.kind != "attr" && r.kind != "counter") continue;
    if (socketSetters && (r.name == "enabled" || r.name == "options" || r.name == "netNs")) continue;
    SCOPED_TRACE(e.fwkType().name + "::" + r.name);
    const Kiv::AttrLogAttr* a = logType.attr(r.id);
    ASSERT_TRUE(a != nullptr && a->kind == Kiv::AttrLogKind::scalar);
    const Samples* s = samplesOf(r.type);
    ASSERT_NE(s, nullptr) << "no sample values of " << r.type;
    const std::string& other = wireOf(*a, e) == s->first ? s->second : s->first;
    log.clear();
    applyValue(*a, e, other);
    EXPECT_EQ(wireOf(*a, e), other);
    applyValue(*a, e, other);
    EXPECT_EQ(log, (HeardLog{{'a', r.id}, {'b', r.id}}));
  }
}

TYPED_TEST(EntityShape, ScalarsNotifyOnlyOnChangeInListOrder) {
  HeardLog log;
  Listener<TypeParam> a(log, 'a'), b(log, 'b');
  a.notifierIs(Kiv::Ptr<const TypeParam>(this->entity));
  b.notifierIs(Kiv::Ptr<const TypeParam>(this->entity));
  checkScalarsNotifyOnlyOnChange(*this->entity, log, std::is_base_of_v<Notify::MrtSocketPam, TypeParam>);
}

}  // namespace
}  // namespace Conformance
