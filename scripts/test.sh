#!/usr/bin/env bash
# Builds the library, the tools and every test, and runs the tests.
#   scripts/test.sh            the default (RelWithDebInfo) build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer, concurrency tests only
#   scripts/test.sh bench      builds the benchmarks (Release, -O3), runs none
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/bootstrap.sh "$preset"
cmake --preset "$preset"
if [ "$preset" = bench ]; then
  # Only the benchmark programs and the libraries they link: the preset has
  # no tests, and the tools are built by the other presets.
  cmake --build --preset bench --target mroute_benchmarks
  exit 0
fi
if [ "$preset" = tsan ]; then
  # Only the concurrency tests run under ThreadSanitizer.
  cmake --build --preset "$preset" --target mroute_concurrency_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset"
