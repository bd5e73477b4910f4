#include "mroute/pam/pkt.h"

#include <gtest/gtest.h>

#include "testing/expect_assert.h"

namespace Orvet {
namespace {

TEST(PktTest, TrimAndHeadRemovalMoveTheWindow) {
  PktManager mgr(64, 4);
  Kiv::Ptr<Pkt> p = mgr.newPkt(32);
  ASSERT_TRUE(p);
  EXPECT_EQ(p->size(), 0u);
  EXPECT_GE(p->maxSize(), 64u);
  p->dataIs("0123456789");
  p->sizeIs(8);
  EXPECT_EQ(p->view(), "01234567");
  p->headDel(3);
  EXPECT_EQ(p->view(), "34567");
  size_t room = p->maxSize();
  EXPECT_ASSERTION(p->headDel(6), "n <= size()");
  EXPECT_ASSERTION(p->sizeIs(room + 1), "n <= maxSize()");
  p->headDel(5);
  EXPECT_EQ(p->size(), 0u);
}

TEST(PktTest, BuffersReturnToThePoolAndAreReset) {
  PktManager mgr(64, 2);
  Kiv::Ptr<Pkt> a = mgr.newPkt(10);
  Kiv::Ptr<Pkt> b = mgr.newPkt(10);
  EXPECT_FALSE(mgr.newPkt(10)) << "only two may be out";
  a->dataIs("abc");
  a->headDel(1);
  const Pkt* reused = a.ptr();
  a = nullptr;
  EXPECT_EQ(mgr.outstanding(), 1u);
  EXPECT_EQ(mgr.pooled(), 1u);
  Kiv::Ptr<Pkt> c = mgr.newPkt(10);
  EXPECT_EQ(c.ptr(), reused);
  EXPECT_EQ(c->size(), 0u);
  EXPECT_GE(c->maxSize(), 64u) << "the stripped head is given back";
}

TEST(PktTest, LargerPacketSizeRetiresSmallBuffers) {
  PktManager mgr(64, 8);
  mgr.newPkt(10);  // released at once, pooled
  EXPECT_EQ(mgr.pooled(), 1u);
  mgr.pktSizeIs(65535);
  EXPECT_EQ(mgr.pooled(), 0u);
  Kiv::Ptr<Pkt> p = mgr.newPkt(100);
  EXPECT_GE(p->maxSize(), 65535u);
  Kiv::Ptr<Pkt> big = mgr.newPkt(70000);
  EXPECT_GE(big->maxSize(), 70000u);
}

}  // namespace
}  // namespace Orvet
