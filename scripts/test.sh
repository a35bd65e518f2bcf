#!/usr/bin/env bash
# The project's test command: installs what is missing, builds, runs the whole
# test suite, then runs it again in an AddressSanitizer + UndefinedBehaviour
# sanitizer build, the multi-threaded parts under ThreadSanitizer, fuzzes the
# receive path, builds the Debian package and tests it in a clean Debian
# root and, with ARM64=1, runs the aarch64 cross build's unit tests under
# emulation and builds the arm64 package. Exits non-zero on any failure.
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

echo "== ThreadSanitizer build of the multi-threaded parts"
cmake -S . -B build-tsan -G Ninja -DDTL_SANITIZE=thread -DDTL_BUILD_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$jobs" --target threaded_tests
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} \
  ctest --test-dir build-tsan -L threaded -j "$jobs" --output-on-failure --timeout 300

# Bounded libFuzzer run over the receive path, seeded with simulator output.
# The corpus it grows is kept in the build folder for the next run.
echo "== fuzzing the receive path for ${FUZZ_SECONDS:-60} s"
# Only the fuzz target and its seed generator: the rest is tested above.
cmake -S . -B build-fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DDTL_BUILD_FUZZ=ON -DDTL_SANITIZE=address,undefined -DDTL_BUILD_TESTS=OFF -DDTL_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$jobs" --target datagram_fuzz datagram_fuzz_seeds
(
  cd build-fuzz
  rm -rf seeds && mkdir -p corpus artifacts
  bin/datagram_fuzz_seeds seeds >/dev/null
  bin/datagram_fuzz -max_total_time="${FUZZ_SECONDS:-60}" -timeout=10 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix=artifacts/ corpus seeds ../tests/fuzz/regressions \
    2>fuzz.log || { tail -60 fuzz.log; echo "fuzzing found a failure; input in build-fuzz/artifacts/"; exit 1; }
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' fuzz.log || true
)
# The data-file reader and the switch answers, 30 s each, the same way.
fuzz_more() {
  local target=$1 seeds=$2
  echo "== fuzzing $target for ${MORE_FUZZ_SECONDS:-30} s"
  cmake --build build-fuzz -j "$jobs" --target "$target"
  (
    cd build-fuzz
    mkdir -p "$target-corpus" "$target-artifacts"
    "bin/$target" -max_total_time="${MORE_FUZZ_SECONDS:-30}" -timeout=10 -rss_limit_mb=4096 \
      -malloc_limit_mb=512 -print_final_stats=1 -artifact_prefix="$target-artifacts/" "$target-corpus" \
      "../tests/fuzz/$seeds" 2>"$target.log" ||
      { tail -60 "$target.log"; echo "fuzzing found a failure; input in build-fuzz/$target-artifacts/"; exit 1; }
    grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$target.log" || true
  )
}
fuzz_more data_file_fuzz data_file_seeds
fuzz_more switch_answer_fuzz switch_answer_seeds

# The Debian package, from its own build folder (prefix /usr, tests off:
# build/ is configured for a /usr/local layout), checked by lintian (an error
# fails the run) and installed with apt into a clean Debian 12 root, where
# the installed programs collect, read and draw a burst of samples.
echo "== package: build, lintian, install into a clean root"
package_start=$SECONDS
scripts/build-deb.sh
scripts/package-test.sh
echo "== package stage took $((SECONDS - package_start)) s"

# With ARM64=1: the product's target architecture. Cross-builds the suites
# that need no io_uring, sockets or threads of the host kernel for aarch64
# (build-arm64/, kept between runs) and runs them under qemu user-mode
# emulation, where the byte-swap takes its NEON path.
if [[ "${ARM64:-0}" == 1 ]]; then
  echo "== aarch64 cross build, unit tests under emulation"
  arm64_start=$SECONDS
  scripts/build-arm64.sh emulated_tests
  ctest --test-dir build-arm64 -L emulated -j "$jobs" --output-on-failure --timeout 300
  ctest --test-dir build-arm64 -L emulated -R '^BswapTest\.EveryImplementationReversesEachWord' -V | grep -o 'byte-swap implementation: .*'
  echo "== aarch64 stage took $((SECONDS - arm64_start)) s"

  echo "== package: arm64 .deb (cross build), lintian"
  arm64_package_start=$SECONDS
  scripts/build-deb.sh --arm64
  echo "== arm64 package stage took $((SECONDS - arm64_package_start)) s"
fi
