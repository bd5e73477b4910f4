#include <cerrno>
#include <type_traits>

#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace {

int half(int x) {
  MROUTE_ASSERT(x % 2 == 0);
  return x / 2;
}

TEST(Assertions, TextIsTheViolatedExpression) {
  EXPECT_ASSERTION(half(3), "x % 2 == 0");
  Mroute::ThrowingAssertHandler throwing;
  EXPECT_EQ(half(4), 2);
}

TEST(Assertions, HandlerIsRestoredAfterScope) {
  auto* before = Mroute::assertHandlerIs(nullptr);
  { Mroute::ThrowingAssertHandler throwing; }
  EXPECT_EQ(Mroute::assertHandlerIs(before), before);
}

TEST(AssertionsDeathTest, DefaultHandlerAborts) {
  EXPECT_DEATH(half(1), "assertion failed: x % 2 == 0");
}

TEST(Errors, ErrnoExceptionCarriesContextAndSystemMessage) {
  Mroute::ErrnoException e("setsockopt(IGMP_NOCACHE)", ENOPROTOOPT);
  EXPECT_STREQ(e.what(), "setsockopt(IGMP_NOCACHE): Protocol not available");
  EXPECT_EQ(e.errnum(), ENOPROTOOPT);
  errno = EBADF;
  EXPECT_THROW_TEXT(Mroute::throwErrno("recvmsg"), Mroute::ErrnoException, "recvmsg: Bad file descriptor");
}

// Callers catch by family.
static_assert(std::is_base_of_v<Pavo::Exception, Brume::TableFullException>);
static_assert(std::is_base_of_v<std::out_of_range, Kiv::RangeException>);

}  // namespace
