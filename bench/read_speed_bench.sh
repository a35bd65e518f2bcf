#!/usr/bin/env bash
# How fast dtl-read turns a ~100 MB data file into text, beside another
# dtl-read (an older build, say), and how fast a time window and rates are.
#
#   bench/read_speed_bench.sh BUILD_DIR [BASELINE_DTL_READ]
#
# BUILD_DIR holds an optimised build with bin/hft-sim, bin/dtl-host (and its
# plug-in) and bin/dtl-read. hft-sim streams whole samples (384 counters, one
# sample per millisecond of sample time) over loopback into dtl-host, which
# writes one data file of about 100 MB into a temporary directory (removed
# at the end). With a warm page cache, each measurement is the best of 3:
# CSV and JSON lines to /dev/null and to a file in /tmp, for both programs,
# whose files must be identical (cmp); then a 1 s window in the middle of
# the file (--from/--to) and --rate over the whole file.
#
# Environment: SAMPLES (33000), INTERFACES (64, 6 counters each), REPEAT (3).
set -euo pipefail

if [[ $# -lt 1 || $# -gt 2 ]]; then
  sed -n '2,16p' "$0" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
baseline=${2:-}
samples=${SAMPLES:-33000}
interfaces=${INTERFACES:-64}
repeat=${REPEAT:-3}
start_sec=1700000000
interval_us=1000

for program in hft-sim dtl-host dtl-read; do
  [[ -x "$build_dir/bin/$program" ]] || { echo "no $build_dir/bin/$program; build it first" >&2; exit 1; }
done
[[ -z "$baseline" || -x "$baseline" ]] || { echo "no program $baseline" >&2; exit 1; }

work=$(mktemp -d /tmp/read_speed_XXXXXX)
host_pid=
cleanup() {
  [[ -n "$host_pid" ]] && kill "$host_pid" 2>/dev/null && wait "$host_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# A free UDP port: bound by the kernel, then released for dtl-host.
port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# Bytes waiting in the receive queues of the UDP sockets on $port.
rx_queued() {
  local sum=0 hex_port _ address queues
  hex_port=$(printf '%04X' "$port")
  while read -r _ address _ _ queues _; do
    [[ ${address#*:} == "$hex_port" ]] && sum=$((sum + 16#${queues#*:}))
  done < <(tail -n +2 /proc/net/udp)
  echo "$sum"
}

echo "== making the data file: $samples samples of $((interfaces * 6)) counters"
"$build_dir/bin/dtl-host" -o "ipfix-receiver-port=$port" -o ipfix-receiver-workers=1 \
  -o "ipfix-data-path=$work/data" --duration 600 >"$work/host.log" 2>&1 &
host_pid=$!
for ((i = 0; i < 300; ++i)); do
  grep -q "dtl-host: running" "$work/host.log" && break
  kill -0 "$host_pid" 2>/dev/null || { cat "$work/host.log" >&2; exit 1; }
  sleep 0.1
done
grep -q "dtl-host: running" "$work/host.log" || { echo "dtl-host did not start" >&2; exit 1; }
"$build_dir/bin/hft-sim" --target "127.0.0.1:$port" --datagram sample --interfaces "$interfaces" \
  --samples "$samples" --rate 20000 --start-time "$start_sec" --interval-us "$interval_us" \
  --announce-period 0 >"$work/sim.log" 2>&1
# The host has read every datagram once its socket queue is empty.
for ((i = 0; i < 300; ++i)); do
  [[ $(rx_queued) -eq 0 ]] && break
  sleep 0.1
done
kill -TERM "$host_pid"
wait "$host_pid" || { cat "$work/host.log" >&2; exit 1; }
host_pid=
mapfile -t files < <(find "$work/data" -name '*.bin' | sort)
[[ ${#files[@]} -eq 1 ]] || { echo "expected one data file, found ${#files[@]}" >&2; exit 1; }
file=${files[0]}
bytes=$(stat -c %s "$file")
mb=$(awk -v b="$bytes" 'BEGIN { printf "%.1f", b / 1e6 }')
echo "file: $mb MB ($(tail -n 1 "$work/sim.log"))"

cat "$file" >/dev/null  # warm page cache

# Best of $repeat wall-clock seconds of: program args... > out
best_of() {
  local out=$1 best="" t0 t1 s
  shift
  for ((r = 0; r < repeat; ++r)); do
    t0=$(date +%s.%N)
    "$@" >"$out"
    t1=$(date +%s.%N)
    s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.4f", b - a }')
    if [[ -z "$best" ]] || awk -v s="$s" -v b="$best" 'BEGIN { exit !(s < b) }'; then best=$s; fi
  done
  echo "$best"
}
line() {  # label seconds [baseline seconds]
  local rate speedup=""
  rate=$(awk -v b="$bytes" -v s="$2" 'BEGIN { printf "%8.1f", b / 1e6 / s }')
  [[ -n "${3:-}" ]] && speedup=$(awk -v n="$2" -v o="$3" 'BEGIN { printf "  speedup %.2fx", o / n }')
  printf '%-34s %8.3f s  %s MB/s%s\n' "$1" "$2" "$rate" "$speedup"
}

echo "== whole file, best of $repeat (MB/s of data file)"
for format in csv json; do
  args=("$file")
  [[ $format == json ]] && args=(--json "$file")
  for sink in null file; do
    out=/dev/null new_out=/dev/null
    if [[ $sink == file ]]; then new_out=$work/new.$format out=$work/old.$format; fi
    new=$(best_of "$new_out" "$build_dir/bin/dtl-read" "${args[@]}")
    old=""
    if [[ -n "$baseline" ]]; then
      old=$(best_of "$out" "$baseline" "${args[@]}")
      line "baseline $format -> $sink" "$old"
    fi
    line "dtl-read $format -> $sink" "$new" "$old"
  done
  if [[ -n "$baseline" ]]; then
    if cmp -s "$work/new.$format" "$work/old.$format"; then
      echo "$format output identical ($(stat -c %s "$work/new.$format") bytes)"
    else
      echo "$format OUTPUT DIFFERS:"; cmp "$work/new.$format" "$work/old.$format" || true
      exit 1
    fi
  fi
  rm -f "$work/new.$format" "$work/old.$format"
done

echo "== window and rates"
from=$(((start_sec + samples * interval_us / 2000000) * 1000000))
to=$((from + 1000000))
window=$(best_of "$work/window.csv" "$build_dir/bin/dtl-read" --from "$from" --to "$to" "$file")
rows=$(($(wc -l <"$work/window.csv") - 1))
printf '%-34s %8.4f s  (%d rows of %d)\n' "1 s window --from/--to -> file" "$window" "$rows" "$samples"
rate=$(best_of /dev/null "$build_dir/bin/dtl-read" --rate "$file")
line "--rate csv -> null" "$rate"
rate_json=$(best_of /dev/null "$build_dir/bin/dtl-read" --rate --json "$file")
line "--rate json -> null" "$rate_json"
