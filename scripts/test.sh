#!/usr/bin/env bash
# Builds the library, the tools and every test, and runs the tests.
#   scripts/test.sh            the default (RelWithDebInfo) build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer, concurrency tests only
#   scripts/test.sh bench      builds the library, tools and benchmarks
#                              (Release, -O3), runs no benchmark
#   scripts/test.sh fuzz       builds the fuzz harnesses (clang) and runs each
#                              for FUZZ_SECONDS (20) from its seed corpus,
#                              FUZZ_JOBS (2) at a time
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/bootstrap.sh "$preset"
cmake --preset "$preset"
if [ "$preset" = bench ]; then
  # Everything the preset builds, as the README's benchmark commands do: the
  # library, the tools and the benchmarks at -O3 (the preset has no tests).
  cmake --build --preset bench
  exit 0
fi
if [ "$preset" = fuzz ]; then
  # Only the harnesses and the libraries they link. Each runs from its
  # checked-in corpus (new inputs go to a scratch corpus) and fails on any
  # crash, leak, time-out or memory blow-up; the input is left in
  # build/fuzz/findings/<harness>/.
  cmake --build --preset fuzz
  # Two harnesses at a time (each is one process; CI has two cores), each
  # for the full FUZZ_SECONDS. A harness's output is shown when it ends, so
  # that the two do not interleave.
  fuzz_one() {
    local exe=$1 name scratch findings
    name=$(basename "$exe" _fuzzer)
    scratch=build/fuzz/scratch/$name findings=build/fuzz/findings/$name
    rm -rf "$scratch" && mkdir -p "$scratch" "$findings"
    "$exe" -max_total_time="${FUZZ_SECONDS:-20}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$scratch" "fuzz/corpus/$name" > "build/fuzz/$name.log" 2>&1
  }
  failed=()
  pending=()
  finish() {  # waits for the oldest running harness and shows its output
    local name=${pending[0]%%:*} pid=${pending[0]#*:} rc=0
    pending=("${pending[@]:1}")
    wait "$pid" || rc=$?
    echo "fuzz: $name for ${FUZZ_SECONDS:-20} s (exit $rc)"
    cat "build/fuzz/$name.log"
    [ "$rc" -eq 0 ] || failed+=("$name")
  }
  for exe in build/fuzz/fuzz/*_fuzzer; do
    [ ${#pending[@]} -lt "${FUZZ_JOBS:-2}" ] || finish
    fuzz_one "$exe" &
    pending+=("$(basename "$exe" _fuzzer):$!")
  done
  while [ ${#pending[@]} -gt 0 ]; do finish; done
  if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: failed: ${failed[*]} (inputs in build/fuzz/findings/)" >&2
    exit 1
  fi
  exit 0
fi
if [ "$preset" = tsan ]; then
  # Only the concurrency tests run under ThreadSanitizer.
  cmake --build --preset "$preset" --target mroute_concurrency_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset"
