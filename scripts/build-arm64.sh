#!/usr/bin/env bash
# Cross-compiles the project for 64-bit Arm (aarch64) into build-arm64/ (or
# the folder given as BUILD_DIR) with Debian's aarch64-linux-gnu toolchain
# and the arm64 multiarch libraries (scripts/install-deps.sh --arm64 installs
# them). Warnings are errors in this build. The folder is kept between runs,
# so a second run only rebuilds what changed.
#
# Arguments starting with "-" go to cmake's configure step; any other
# argument names a target to build instead of everything, e.g.
#   scripts/build-arm64.sh emulated_tests
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-arm64}

configure_args=()
targets=()
for arg in "$@"; do
  if [[ "$arg" == -* ]]; then configure_args+=("$arg"); else targets+=("$arg"); fi
done

if [[ ! -f "$build_dir/build.ninja" || ${#configure_args[@]} -gt 0 ]]; then
  cmake -S . -B "$build_dir" -G Ninja --toolchain cmake/aarch64-linux-gnu.cmake \
    -DDTL_BUILD_BENCH=OFF -DDTL_WERROR=ON "${configure_args[@]}" >/dev/null
fi
if ((${#targets[@]} > 0)); then
  cmake --build "$build_dir" -j "$(nproc)" --target "${targets[@]}"
else
  cmake --build "$build_dir" -j "$(nproc)"
fi
