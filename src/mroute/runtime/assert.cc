#include "mroute/runtime/assert.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace Mroute {
namespace {

[[noreturn]] void abortingHandler(const char* expr, const char* file, int line) {
  std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", expr, file, line);
  std::fflush(stderr);
  std::abort();
}

void throwingHandler(const char* expr, const char*, int) { throw AssertionFailure(expr); }

std::atomic<AssertHandler> currentHandler{&abortingHandler};

}  // namespace

void assertFailed(const char* expr, const char* file, int line) {
  currentHandler.load(std::memory_order_acquire)(expr, file, line);
  // A handler that returns is treated like the default one.
  abortingHandler(expr, file, line);
}

AssertHandler assertHandlerIs(AssertHandler handler) {
  return currentHandler.exchange(handler ? handler : &abortingHandler, std::memory_order_acq_rel);
}

ThrowingAssertHandler::ThrowingAssertHandler() : previous_(assertHandlerIs(&throwingHandler)) {}
ThrowingAssertHandler::~ThrowingAssertHandler() { assertHandlerIs(previous_); }

}  // namespace Mroute
