#!/usr/bin/env bash
# Builds the Debian package ipfix-bin-data-provider_<version>_<arch>.deb:
# configures and builds the plug-in and the programs (tests and benchmarks
# off) with Debian's hardening flags into build-pkg/ (build-pkg-arm64/ with
# --arm64, cross-compiled for arm64; BUILD_DIR overrides), installs them
# with the prefix /usr into a staging root, adds the control files and
# builds the .deb with dpkg-deb into that folder. Then runs lintian on it
# and fails on any error (E:) it reports.
#
#   scripts/build-deb.sh [--arm64] [--no-lintian]
#
# Prints the path of the .deb as its last line.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

arm64=0
lint=1
for arg in "$@"; do
  case "$arg" in
    --arm64) arm64=1 ;;
    --no-lintian) lint=0 ;;
    *) echo "usage: scripts/build-deb.sh [--arm64] [--no-lintian]" >&2; exit 2 ;;
  esac
done

# Only what the build and the package tools need (--demo leaves out the
# fuzzing and benchmark tools).
deps=(--demo --package)
toolchain=()
if [[ "$arm64" == 1 ]]; then
  deps+=(--arm64)
  toolchain=(--toolchain cmake/aarch64-linux-gnu.cmake)
  build_dir=${BUILD_DIR:-build-pkg-arm64}
  host_arch=arm64
else
  build_dir=${BUILD_DIR:-build-pkg}
  host_arch=$(dpkg --print-architecture)
fi
scripts/install-deps.sh "${deps[@]}"

# Debian's build flags for the package's architecture, with every
# hardening feature (fortify, stack protector, relro and bind-now), the
# source path mapped away. Given on each configure, so that a build folder
# always has them; CMake has no CPPFLAGS, so those go with the compile flags.
eval "$(DEB_HOST_ARCH=$host_arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh 2>/dev/null)"
cmake -S . -B "$build_dir" -G Ninja "${toolchain[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DDTL_BUILD_TESTS=OFF -DDTL_BUILD_BENCH=OFF \
  "-DCMAKE_C_FLAGS=$CFLAGS $CPPFLAGS" "-DCMAKE_CXX_FLAGS=$CXXFLAGS $CPPFLAGS" \
  "-DCMAKE_EXE_LINKER_FLAGS=$LDFLAGS" "-DCMAKE_SHARED_LINKER_FLAGS=$LDFLAGS" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"

# The staging root is debian/<package> below deb/, where dpkg-shlibdeps
# expects a package's files, beside the debian/control it reads.
deb_dir=$build_dir/deb
root=$deb_dir/debian/ipfix-bin-data-provider
rm -rf "$deb_dir/debian" && mkdir -p "$root"
printf 'Source: ipfix-bin-data-provider\n\nPackage: ipfix-bin-data-provider\nArchitecture: any\n' \
  >"$deb_dir/debian/control"
DESTDIR=$PWD/$root cmake --install "$build_dir" >/dev/null
DESTDIR=$PWD/$root cmake --install "$build_dir" --component deb >/dev/null

# Strip like dh_strip: no symbol tables, debug sections or tool comments in
# the package (the build folder keeps the unstripped files).
strip_tool=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$build_dir/CMakeCache.txt")
mapfile -t elf_files < <(find "$root" -type f -exec sh -c 'od -An -c -N4 "$1" | grep -q "E   L   F"' _ {} \; -print | sort)
for f in "${elf_files[@]}"; do
  if [[ "$f" == *.so* ]]; then
    "$strip_tool" --remove-section=.comment --remove-section=.note --strip-unneeded "$f"
  else
    "$strip_tool" --remove-section=.comment --remove-section=.note "$f"
  fi
done

# dpkg-shlibdeps finds the package root by its DEBIAN folder. The
# architecture in its environment makes it search the arm64
# multiarch libraries (and dpkg's arm64 packages) for a cross build.
mkdir -p "$root/DEBIAN"
rel_elf=()
for f in "${elf_files[@]}"; do rel_elf+=("${f#"$deb_dir"/}"); done
shlibs=$(cd "$deb_dir" && DEB_HOST_ARCH=$host_arch dpkg-shlibdeps -O --warnings=1 "${rel_elf[@]}" |
  sed -n 's/^shlibs:Depends=//p')
[[ -n "$shlibs" ]] || { echo "build-deb: dpkg-shlibdeps found no dependencies" >&2; exit 1; }

size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
control=$(<"$deb_dir/control.in")
control=${control//@INSTALLED_SIZE@/$size}
printf '%s\n' "${control//@SHLIBS_DEPENDS@/$shlibs}" >"$root/DEBIAN/control"
# The plug-in is in a folder of the dynamic loader: its cache is refreshed.
echo "activate-noawait ldconfig" >"$root/DEBIAN/triggers"
# Everything under /etc is the administrator's, kept on upgrades.
if [[ -d "$root/etc" ]]; then
  (cd "$root" && find etc -type f | sort | sed 's|^|/|') >"$root/DEBIAN/conffiles"
fi
# Maintainer scripts, as debhelper would write them: the Python modules are
# byte-compiled at installation and their caches removed before removal
# (else dpkg leaves the module folder behind); a changed unit file takes
# effect at once (the service is neither enabled nor started: it needs
# switches configured first).
postinst="" prerm="" postrm=""
if [[ -d "$root/usr/lib/python3/dist-packages" ]]; then
  postinst+="if command -v py3compile >/dev/null 2>&1; then
	py3compile -p ipfix-bin-data-provider
fi
"
  prerm+="if command -v py3clean >/dev/null 2>&1; then
	py3clean -p ipfix-bin-data-provider
else
	find /usr/lib/python3/dist-packages/dtl_data -name __pycache__ -type d -prune -exec rm -rf {} + 2>/dev/null || true
fi
"
fi
if compgen -G "$root/usr/lib/systemd/system/*.service" >/dev/null ||
   compgen -G "$root/lib/systemd/system/*.service" >/dev/null; then
  reload="if [ -d /run/systemd/system ]; then
	systemctl --system daemon-reload >/dev/null || true
fi
"
  postinst+=$reload
  postrm+=$reload
fi
for script in postinst prerm postrm; do
  [[ -n "${!script}" ]] || continue
  printf '#!/bin/sh\nset -e\n%s' "${!script}" >"$root/DEBIAN/$script"
  chmod 0755 "$root/DEBIAN/$script"
done
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z | xargs -0 md5sum) \
  >"$root/DEBIAN/md5sums"
chmod 0644 "$root/DEBIAN/control" "$root/DEBIAN/md5sums" "$root/DEBIAN/triggers"
[[ -f "$root/DEBIAN/conffiles" ]] && chmod 0644 "$root/DEBIAN/conffiles"
# Modes as Debian wants them whatever the umask was.
find "$root" -type d -exec chmod 0755 {} +

version=$(sed -n 's/^Version: //p' "$root/DEBIAN/control")
arch=$(sed -n 's/^Architecture: //p' "$root/DEBIAN/control")
deb=$build_dir/ipfix-bin-data-provider_${version}_${arch}.deb
rm -f "$deb"
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "build-deb: Depends: $(sed -n 's/^Depends: //p' "$root/DEBIAN/control")"

if [[ "$lint" == 1 ]]; then
  echo "== lintian $deb"
  # Every tag down to the pedantic ones is shown, the overridden ones too;
  # only an error (or lintian failing) fails the build.
  lintian_rc=0
  lintian_out=$(lintian -I --pedantic --show-overrides --tag-display-limit 0 --fail-on error "$deb" 2>&1) ||
    lintian_rc=$?
  [[ -n "$lintian_out" ]] && echo "$lintian_out"
  if ((lintian_rc != 0)) || grep -q '^E: ' <<<"$lintian_out"; then
    echo "build-deb: lintian reports errors (exit status $lintian_rc)" >&2
    exit 1
  fi
fi
echo "$src/$deb"
