// Fatal assertions whose text is the violated expression.
//
// MROUTE_ASSERT(expr) checks `expr` in every build (integrity checks of shared
// memory and of callers' contracts stay on in release builds). On failure the
// installed handler receives the expression exactly as written in the source,
// e.g. "type not_eq mroute_" or "false && \"Unsupported address family\"".
// The default handler prints the text with its location and aborts; tests
// install a ThrowingAssertHandler to check the text without a death test.
//
// Thread-safety: the handler is process-wide; install it before starting
// threads.
#pragma once

#include <stdexcept>
#include <string>

namespace Mroute {

using AssertHandler = void (*)(const char* expr, const char* file, int line);

// Never returns: either the handler throws or the process aborts.
[[noreturn]] void assertFailed(const char* expr, const char* file, int line);

// Returns the previous handler. A null handler restores the aborting default.
AssertHandler assertHandlerIs(AssertHandler handler);

// Thrown by the throwing handler; what() is the violated expression.
class AssertionFailure : public std::logic_error {
 public:
  explicit AssertionFailure(const std::string& expr) : std::logic_error(expr) {}
};

// Installs a handler that throws AssertionFailure for as long as it lives.
class ThrowingAssertHandler {
 public:
  ThrowingAssertHandler();
  ~ThrowingAssertHandler();
  ThrowingAssertHandler(const ThrowingAssertHandler&) = delete;
  ThrowingAssertHandler& operator=(const ThrowingAssertHandler&) = delete;

 private:
  AssertHandler previous_;
};

}  // namespace Mroute

#define MROUTE_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Mroute::assertFailed(#expr, __FILE__, __LINE__))
