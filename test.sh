#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite:
#   1. every unit test under AddressSanitizer + UndefinedBehaviorSanitizer (asan preset);
#   2. the concurrency stress tests under ThreadSanitizer (tsan preset);
#   3. the optimised build of everything (examples, benchmarks) with its tests, including the
#      install-and-consume check and the multi-gigabyte streaming test (release preset);
#   4. each libFuzzer target for a short while, when Clang's libFuzzer is available.
# Exits 0 only when everything passed.
set -euo pipefail
cd "$(dirname "$0")"

FUZZ_SECONDS="${FUZZ_SECONDS:-30}"

./scripts/install-deps.sh

step() { printf '\n==== %s ====\n' "$*"; }

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan
cmake --build --preset asan
ctest --preset asan

step "ThreadSanitizer (concurrency stress tests)"
cmake --preset tsan
cmake --build --preset tsan
ctest --preset tsan

step "Release build: examples, benchmarks, install check, large streaming test"
cmake --preset release
cmake --build --preset release
ctest --preset release

if ./scripts/has-libfuzzer.sh; then
  step "libFuzzer targets (${FUZZ_SECONDS}s each)"
  cmake --preset fuzz
  cmake --build --preset fuzz
  ./scripts/run-fuzzers.sh build/fuzz "${FUZZ_SECONDS}"
else
  step "libFuzzer not available: fuzz targets skipped"
fi

step "All tests passed"
