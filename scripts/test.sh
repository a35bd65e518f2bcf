#!/usr/bin/env bash
# The project's test command: installs what is missing, builds, runs the whole
# test suite, then runs it again in an AddressSanitizer + UndefinedBehaviour
# sanitizer build. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/install-deps.sh

run_suite() {
  local dir=$1
  echo "== tests in $dir"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300
}

BUILD_DIR=build scripts/build.sh
run_suite build

echo "== AddressSanitizer + UndefinedBehaviourSanitizer build"
BUILD_DIR=build-asan scripts/build.sh -DDTL_SANITIZE=address,undefined -DDTL_BUILD_BENCH=OFF
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0} \
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
  run_suite build-asan
