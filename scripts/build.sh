#!/usr/bin/env bash
# Configures and builds into build/ (or the folder given as BUILD_DIR), in
# parallel: everything, or only the targets named in BUILD_TARGETS. Extra
# arguments go to cmake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
if [[ ! -f "$build_dir/build.ninja" || $# -gt 0 ]]; then
  cmake -S . -B "$build_dir" -G Ninja "$@" >/dev/null
fi
targets=()
for target in ${BUILD_TARGETS:-}; do targets+=(--target "$target"); done
cmake --build "$build_dir" -j "$(nproc)" "${targets[@]}"
