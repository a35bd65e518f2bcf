#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the tools and the
# demo need. Quick when everything is already present: apt is only called for
# packages that dpkg does not report as installed.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config
  libboost-dev libboost-filesystem-dev libboost-system-dev libboost-date-time-dev
  nlohmann-json3-dev liburing-dev libcurl4-openssl-dev libssl-dev openssl
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  python3 curl ca-certificates
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
