#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the tools and the
# demo need. Quick when everything is already present: apt is only called for
# packages that dpkg does not report as installed.
#
# With ARM64=1 in the environment or the argument --arm64 it also installs
# what the aarch64 cross build and its emulated tests need: the cross
# compiler, qemu user-mode emulation and the arm64 multiarch -dev packages.
#
# With --demo it leaves out what only the fuzzing, the benchmarks and the
# cluster tests need (clang, Google Benchmark, dask), so that the demo is
# quick to set up.
#
# The Python package and dtl-plot use Debian's numpy, pandas and matplotlib
# (and dask for analysis on a cluster), run by Debian's /usr/bin/python3.
#
# Unless --demo is given (or whenever --package is), it installs what
# building and checking the Debian package needs: dpkg-dev (dpkg-shlibdeps,
# dpkg-buildflags), lintian, debootstrap for the install test in a clean
# Debian root, and help2man for the manual pages.
#
# With --bench it also installs what only the end-to-end benchmark needs:
# nfdump, whose nfcapd is the reference collector it is compared with.
set -euo pipefail

arm64=${ARM64:-0}
bench=0
demo=0
package=0
for arg in "$@"; do
  [[ "$arg" == "--demo" ]] && demo=1
  [[ "$arg" == "--arm64" ]] && arm64=1
  [[ "$arg" == "--bench" ]] && bench=1
  [[ "$arg" == "--package" ]] && package=1
done

packages=(
  build-essential g++ cmake ninja-build pkg-config
  libboost-dev libboost-filesystem-dev libboost-system-dev libboost-date-time-dev
  nlohmann-json3-dev liburing-dev libcurl4-openssl-dev libssl-dev openssl
  googletest libgtest-dev libgmock-dev
  python3 curl ca-certificates
  python3-numpy python3-pandas python3-matplotlib
)
if [[ "$demo" == 0 ]]; then
  packages+=(libbenchmark-dev clang libclang-rt-14-dev python3-dask python3-distributed)
fi
if [[ "$arm64" == 1 ]]; then
  # nlohmann-json3-dev is architecture independent: the host's copy serves.
  packages+=(
    g++-aarch64-linux-gnu qemu-user-static
    libboost-dev:arm64 libboost-filesystem-dev:arm64 libboost-system-dev:arm64
    libboost-date-time-dev:arm64 liburing-dev:arm64 libcurl4-openssl-dev:arm64
    libssl-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
  )
fi

if [[ "$demo" == 0 || "$package" == 1 ]]; then
  packages+=(dpkg-dev binutils lintian debootstrap help2man bash-completion)
fi

if [[ "$bench" == 1 ]]; then
  packages+=(nfdump)
fi

# A name without ":arch" means the native architecture (or "all"): once arm64
# is a foreign architecture, dpkg lists one line per installed architecture.
native=$(dpkg --print-architecture)
missing=()
for p in "${packages[@]}"; do
  name=${p%%:*}
  arch=$native
  [[ "$p" == *:* ]] && arch=${p#*:}
  status=$(dpkg-query -W -f='${Architecture} ${Status}\n' "$name" 2>/dev/null || true)
  grep -qE "^($arch|all) install ok installed$" <<<"$status" || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
if [[ "$arm64" == 1 ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $SUDO dpkg --add-architecture arm64
fi
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
