#!/usr/bin/env bash
# Installs the .deb into a clean Debian 12 root and runs what it installed:
# apt-get resolves the package's dependencies from the Debian mirror, then
# the installed dtl-host collects a burst from the installed hft-sim, and
# dtl-ls, dtl-read, dtl-plot and the dtl_data module work on the result.
# The service unit is checked with systemd-analyze verify, and a C program
# is built with the package's headers and pkg-config file.
#
#   scripts/package-test.sh [PACKAGE.deb]     (needs root: chroot, mount)
#
# Default package: the one scripts/build-deb.sh made in build-pkg/. The
# fresh root (debootstrap --variant=minbase bookworm) is kept as a tarball
# in build-pkg/ so that later runs only unpack it. Exits non-zero on failure.
set -euo pipefail
cd "$(dirname "$0")/.."
work_base=${BUILD_DIR:-build-pkg}
deb=${1:-}
if [[ -z "$deb" ]]; then
  deb=$(ls -t "$work_base"/ipfix-bin-data-provider_*_"$(dpkg --print-architecture)".deb 2>/dev/null | head -1 || true)
fi
[[ -f "$deb" ]] || { echo "package-test: no package (run scripts/build-deb.sh first)" >&2; exit 1; }
[[ $(id -u) == 0 ]] || { echo "package-test: needs root (chroot and mount)" >&2; exit 1; }
deb=$(realpath "$deb")
work_base=$(realpath "$work_base")
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
tarball=$work_base/bookworm-minbase.tar
root=$work_base/pkgtest-root

passed=0
failed=0
pass() { echo "PASS: $*"; passed=$((passed + 1)); }
fail() { echo "FAIL: $*"; failed=$((failed + 1)); }

mounts=()
host_pid=""
cleanup() {
  [[ -n "$host_pid" ]] && kill -KILL "$host_pid" 2>/dev/null || true
  local i
  for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
    umount "${mounts[i]}" 2>/dev/null || umount -l "${mounts[i]}" 2>/dev/null || true
  done
}
trap cleanup EXIT

in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@"; }

# Waits up to $2 seconds for a line matching the regex $3 in the file $1.
wait_for_line() {
  local file=$1 seconds=$2 regex=$3 i
  for ((i = 0; i < seconds * 10; i++)); do
    grep -qE "$regex" "$file" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

# A clean root, made once by debootstrap and then unpacked from its tarball.
# A run that was killed may have left its mounts behind.
step_start=$SECONDS
{ findmnt -rno TARGET | grep "^$root/" || true; } | sort -r | while read -r m; do umount -l "$m"; done
rm -rf "$root"
if [[ ! -f "$tarball" ]]; then
  echo "== debootstrap --variant=minbase bookworm (once; kept as $tarball)"
  debootstrap --variant=minbase bookworm "$root" "$mirror" >"$work_base/debootstrap.log" 2>&1 ||
    { tail -20 "$work_base/debootstrap.log"; echo "package-test: debootstrap failed" >&2; exit 1; }
  # Updates as on any maintained Debian 12 machine; the lists stay out of
  # the tarball so every run fetches current ones.
  cat >"$root/etc/apt/sources.list" <<EOF
deb $mirror bookworm main
deb $mirror bookworm-updates main
deb ${mirror%/debian}/debian-security bookworm-security main
EOF
  rm -rf "$root"/var/lib/apt/lists/* "$root"/var/cache/apt/archives/*.deb
  tar -C "$root" -cf "$tarball.part" . && mv "$tarball.part" "$tarball"
  echo "   debootstrap took $((SECONDS - step_start)) s"
else
  mkdir -p "$root"
  tar -C "$root" -xpf "$tarball"
  echo "== clean root unpacked from $(basename "$tarball") in $((SECONDS - step_start)) s"
fi

mount -t proc proc "$root/proc"; mounts+=("$root/proc")
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"; mounts+=("$root/tmp")
# Only the device nodes the programs and apt use.
mount -t tmpfs -o mode=0755 tmpfs "$root/dev"; mounts+=("$root/dev")
for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
  IFS=: read -r name major minor <<<"$node"
  mknod -m 0666 "$root/dev/$name" c "$major" "$minor"
done
mkdir -p "$root/dev/shm" "$root/dev/pts"
cp /etc/resolv.conf "$root/etc/resolv.conf"
# Nothing installed here may start a service.
printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d" && chmod 0755 "$root/usr/sbin/policy-rc.d"

echo "== apt-get install ./$(basename "$deb") (dependencies from $mirror)"
step_start=$SECONDS
cp "$deb" "$root/tmp/"
if in_root apt-get update -qq >"$work_base/pkgtest-apt.log" 2>&1 &&
   in_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
     "/tmp/$(basename "$deb")" >>"$work_base/pkgtest-apt.log" 2>&1; then
  pass "installed with its dependencies in $((SECONDS - step_start)) s"
else
  tail -30 "$work_base/pkgtest-apt.log"
  fail "apt-get install of the package"
  echo "package-test: $passed passed, $failed failed"
  exit 1
fi
pkg=$(dpkg-deb -f "$deb" Package)
if in_root dpkg-query -W -f='${Status}\n' "$pkg" | grep -q "install ok installed"; then
  pass "dpkg reports $pkg installed"
else
  fail "dpkg does not report $pkg installed"
fi

if in_root dtl-host --help | grep -q '^Usage: dtl-host'; then pass "dtl-host --help"; else fail "dtl-host --help"; fi

# The installed collector, on a UDP port nobody uses, storing into the
# root's own disk (the data files are written with direct I/O, which tmpfs
# may refuse).
port=$(in_root python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
data=/var/lib/dtl-pkgtest
log=$work_base/pkgtest-dtl-host.log
rm -rf "${root:?}$data"
chroot "$root" /usr/bin/env -i PATH=/usr/bin:/bin HOME=/root /usr/bin/dtl-host \
  -o ipfix-receiver-port="$port" -o ipfix-receiver-workers=2 -o ipfix-data-path="$data" \
  -o ipfix-status-interval-sec=1 >"$log" 2>&1 &
host_pid=$!
samples=2000
if wait_for_line "$log" 20 'IPFIX receiver started' &&
   grep -qE '^dtl-host: loaded /usr/lib/[^/]+/libipfix_bin_data_provider\.so$' "$log"; then
  pass "installed dtl-host loaded the installed plug-in and listens on UDP $port"
  if in_root hft-sim -t "127.0.0.1:$port" -n pkg-test --samples "$samples" --rate 20000 >"$work_base/pkgtest-sim.log" 2>&1; then
    pass "hft-sim sent $samples samples"
  else
    cat "$work_base/pkgtest-sim.log"; fail "hft-sim"
  fi
  # Every sample has reached the data file's writer before the stop.
  wait_for_line "$log" 20 "Status: pkg-test .*: $samples samples stored" ||
    fail "dtl-host did not report $samples samples stored within 20 s"
else
  tail -20 "$log"; fail "dtl-host did not load the installed plug-in and start its receiver within 20 s"
fi
kill -TERM "$host_pid" 2>/dev/null || true
host_rc=""
for ((i = 0; i < 300; i++)); do
  kill -0 "$host_pid" 2>/dev/null || { wait "$host_pid" && host_rc=0 || host_rc=$?; break; }
  sleep 0.1
done
host_pid=""
if [[ "$host_rc" == 0 ]] && grep -q "done: .* $samples samples stored; nothing discarded" "$log"; then
  pass "dtl-host stopped on SIGTERM with exit status 0 and $samples samples stored"
else
  tail -20 "$log"; fail "dtl-host stop (exit status ${host_rc:-still running after 30 s})"
fi

if in_root dtl-ls "$data" >"$work_base/pkgtest-ls.txt" 2>&1 &&
   grep -qE "^pkg-test: 1 files?, .*, $samples samples" "$work_base/pkgtest-ls.txt"; then
  pass "dtl-ls lists 1 file with $samples samples"
else
  cat "$work_base/pkgtest-ls.txt"; fail "dtl-ls"
fi
mapfile -t files < <(cd "$root" && find "${data#/}" -name '*.bin' | sed 's|^|/|')
rows=$(in_root dtl-read "${files[@]}" | tail -n +2 | wc -l) && status=0 || status=$?
if [[ "$status" == 0 && "$rows" == "$samples" ]]; then
  pass "dtl-read prints $samples rows"
else
  fail "dtl-read: exit status $status, $rows rows instead of $samples"
fi
if in_root dtl-read --summary "${files[@]}" >/dev/null; then pass "dtl-read --summary"; else fail "dtl-read --summary"; fi

module=$(in_root python3 -c 'import dtl_data; print(dtl_data.__file__)' 2>&1) || true
if [[ "$module" == /usr/lib/python3/dist-packages/dtl_data/__init__.py ]]; then
  pass "python3 imports dtl_data from the package"
else
  echo "$module"; fail "python3 -c 'import dtl_data'"
fi
if in_root dtl-plot "$data" --counters in-octets -o /tmp/pkgtest.png >"$work_base/pkgtest-plot.log" 2>&1 &&
   [[ "$(head -c 8 "$root/tmp/pkgtest.png" | od -An -tx1 | tr -d ' ')" == 89504e470d0a1a0a ]]; then
  pass "dtl-plot draws a PNG"
else
  cat "$work_base/pkgtest-plot.log"; fail "dtl-plot"
fi

# The unit as installed, verified by the root's own systemd (added only now:
# the package does not need it); its manual page is checked separately, as
# the root has no man.
unit=$(cd "$root" && ls {usr/,}lib/systemd/system/dtl-host.service 2>/dev/null | head -1 || true)
if [[ -z "$unit" ]]; then
  echo "SKIP: systemd-analyze verify: the package installs no dtl-host.service"
elif ! in_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends systemd \
       >>"$work_base/pkgtest-apt.log" 2>&1; then
  tail -20 "$work_base/pkgtest-apt.log"; fail "apt-get install systemd for the unit check"
elif in_root systemd-analyze verify --man=no "/$unit" >"$work_base/pkgtest-unit.log" 2>&1 &&
     ! grep -q . "$work_base/pkgtest-unit.log"; then
  pass "systemd-analyze verify /$unit"
else
  cat "$work_base/pkgtest-unit.log"; fail "systemd-analyze verify /$unit"
fi

# Removal runs the maintainer scripts; a purge takes the configuration too.
if in_root dpkg --purge "$pkg" >"$work_base/pkgtest-purge.log" 2>&1 &&
   [[ ! -e "$root/usr/bin/dtl-host" && ! -e "$root/etc/default/dtl-host" ]] &&
   [[ ! -e "$root/usr/lib/python3/dist-packages/dtl_data" ]] &&
   ! ls "$root"/usr/lib/*/libipfix_bin_data_provider.so >/dev/null 2>&1; then
  pass "dpkg --purge removes the package and its configuration"
else
  cat "$work_base/pkgtest-purge.log"; fail "dpkg --purge $pkg"
fi

# The headers and the pkg-config file as a C program of a user takes them:
# built on this machine against the package's files (pkg-config's sysroot
# puts its /usr paths below them) and run with the packaged plug-in.
pc_dir=$work_base/pkgtest-pc
rm -rf "$pc_dir" && mkdir -p "$pc_dir" && dpkg-deb -x "$deb" "$pc_dir/root"
cat >"$pc_dir/user.c" <<'EOF'
#include <dtl_event_provider.h>
#include <stdio.h>
int main(void) {
  dtl_custom_options* options = dtl_dict_create();
  if (options == NULL) return 1;
  dtl_dict_delete(options);
  puts("dictionary made");
  return 0;
}
EOF
libdir=$pc_dir/root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null)
if pc_flags=$(PKG_CONFIG_PATH="" PKG_CONFIG_LIBDIR="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$pc_dir/root" \
             pkg-config --cflags --libs ipfix_bin_data_provider) &&
   read -ra flags <<<"$pc_flags" &&
   cc -std=c11 -Wall -Werror -o "$pc_dir/user" "$pc_dir/user.c" "${flags[@]}" &&
   [[ "$(LD_LIBRARY_PATH=$libdir "$pc_dir/user")" == "dictionary made" ]]; then
  pass "a C program builds with pkg-config's flags and runs with the plug-in"
else
  fail "building a C program with pkg-config ipfix_bin_data_provider"
fi
rm -rf "$pc_dir"

echo "package-test: $passed passed, $failed failed"
# The root with everything installed is big: kept only to look into a failure.
cleanup
trap - EXIT
if [[ "$failed" != 0 ]]; then
  echo "package-test: the root is kept in $root"
  exit 1
fi
rm -rf "$root"
