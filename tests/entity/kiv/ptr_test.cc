#include "mroute/entity/kiv/ptr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

struct Counted : Kiv::PtrInterface {
  explicit Counted(int* alive) : alive_(alive) { ++*alive_; }
  ~Counted() override { --*alive_; }
  int* alive_;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(PtrTest, SelfAssignmentKeepsAndLastReferenceDestroys) {
  int alive = 0;
  {
    Kiv::Ptr<Counted> a = new Counted(&alive);
    Kiv::Ptr<Counted>& same = a;
    a = same;  // self-assignment keeps the object
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(a->references(), 1u);
    Kiv::Ptr<Counted> b = a;
    EXPECT_EQ(a->references(), 2u);
    a = nullptr;
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(b->references(), 1u);
  }
  EXPECT_EQ(alive, 0);
}

TEST(PtrTest, MoveAndConversionKeepOneCount) {
  int alive = 0;
  Kiv::Ptr<Derived> d = new Derived(&alive);
  Kiv::Ptr<const Counted> c = d;
  EXPECT_EQ(d->references(), 2u);
  Kiv::Ptr<const Counted> moved = std::move(c);
  EXPECT_FALSE(c);
  EXPECT_EQ(d->references(), 2u);
  EXPECT_TRUE(moved == Kiv::Ptr<const Counted>(d));
  d = nullptr;
  moved = nullptr;
  EXPECT_EQ(alive, 0);
}

// With the process-wide switch on, counts survive concurrent copies.
TEST(PtrTest, ThreadSafeCountsUnderConcurrentCopies) {
  Kiv::threadSafePtrIs(true);
  int alive = 0;
  Kiv::Ptr<Counted> shared = new Counted(&alive);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int i = 0; i < 20000; ++i) Kiv::Ptr<Counted> copy = shared;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared->references(), 1u);
  shared = nullptr;
  EXPECT_EQ(alive, 0);
  Kiv::threadSafePtrIs(false);
}

}  // namespace
