#!/usr/bin/env bash
# Builds the library, the tools and every test, and runs the tests.
#   scripts/test.sh            the default (RelWithDebInfo) build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer, concurrency tests only
#   scripts/test.sh bench      builds the benchmarks (Release, -O3), runs none
#   scripts/test.sh fuzz       builds the fuzz harnesses (clang) and runs each
#                              for FUZZ_SECONDS (20) from its seed corpus
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
if [ "$preset" = fuzz ]; then
  # Only the harnesses and the libraries they link. Each runs from its
  # checked-in corpus (new inputs go to a scratch corpus) and fails on any
  # crash, leak, time-out or memory blow-up; the input is left in
  # build/fuzz/findings/<harness>/.
  cmake --build --preset fuzz
  for exe in build/fuzz/fuzz/*_fuzzer; do
    name=$(basename "$exe" _fuzzer)
    scratch=build/fuzz/scratch/$name findings=build/fuzz/findings/$name
    rm -rf "$scratch" && mkdir -p "$scratch" "$findings"
    echo "fuzz: $name for ${FUZZ_SECONDS:-20} s"
    "$exe" -max_total_time="${FUZZ_SECONDS:-20}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$scratch" "fuzz/corpus/$name"
  done
  exit 0
fi
if [ "$preset" = tsan ]; then
  # Only the concurrency tests run under ThreadSanitizer.
  cmake --build --preset "$preset" --target mroute_concurrency_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset"
