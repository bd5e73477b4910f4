#!/usr/bin/env bash
# Builds the library, the tools and every test, and runs the tests.
#   scripts/test.sh            the default (RelWithDebInfo) build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer, concurrency tests only
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/bootstrap.sh
cmake --preset "$preset"
if [ "$preset" = tsan ]; then
  # Only the concurrency tests run under ThreadSanitizer.
  cmake --build --preset "$preset" --target mroute_concurrency_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset"
