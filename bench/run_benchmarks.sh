#!/usr/bin/env bash
# Runs the storage benchmarks from an optimised build and prints the machine,
# how busy it was before each measurement, and every figure.
#
#   bench/run_benchmarks.sh [inprocess|e2e|idle|all]     (default: all)
#
# inprocess: ipfix-decode-store-bench (decode + store in one thread, beside
#            memcpy), REPEAT repetitions with mean, median, min and max.
# e2e:       ipfix-recv-bench over loopback with hft-sim in its own process:
#            REPEAT runs at 300 000 datagrams/s of the bare recvmmsg sink, the
#            receiver decoding only, the receiver storing with the disk writer
#            and nfcapd; then, STEP_REPEAT times, each of floor, store and
#            nfcapd stepped through RATES until it loses datagrams or samples.
# idle:      bench/idle_memory_bench.py: dtl-host's CPU over 10 s without
#            traffic, its resident memory idle and with 1, 16 and 64 sessions
#            of hft-sim, beside the receive benchmark's store/floor ratio.
#
# Environment: BUILD_DIR (build-bench), REPEAT (3), STEP_REPEAT (2),
# RUN_SECONDS (5), RATES (100000,200000,...,1000000), DATA_DIR (/tmp: where
# the store side writes; a real disk, direct I/O on), QUIET_PERCENT (10) and
# QUIET_WAIT (600): before each measurement wait up to QUIET_WAIT seconds for
# the machine to be less than QUIET_PERCENT busy.
set -euo pipefail
cd "$(dirname "$0")/.."

what=${1:-all}
build_dir=${BUILD_DIR:-build-bench}
repeat=${REPEAT:-3}
step_repeat=${STEP_REPEAT:-2}
run_seconds=${RUN_SECONDS:-5}
rates=${RATES:-100000,200000,300000,400000,500000,600000,700000,800000,900000,1000000}
data_dir=${DATA_DIR:-/tmp}
quiet_percent=${QUIET_PERCENT:-10}
quiet_wait=${QUIET_WAIT:-600}

# nfcapd (package nfdump) is needed by the end-to-end comparison only.
bash scripts/install-deps.sh --bench
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DDTL_BUILD_BENCH=ON \
  -DDTL_BUILD_TESTS=OFF >/dev/null
cmake --build "$build_dir" --target ipfix-decode-store-bench ipfix-recv-bench hft-sim >/dev/null

# Busy percentage of the whole machine over one second, from /proc/stat.
busy_percent() {
  local a b c d e f g h t1 i1 t2 i2
  read -r _ a b c d e f g h _ </proc/stat
  t1=$((a + b + c + d + e + f + g + h)); i1=$((d + e))
  sleep 1
  read -r _ a b c d e f g h _ </proc/stat
  t2=$((a + b + c + d + e + f + g + h)); i2=$((d + e))
  echo $((100 * ((t2 - t1) - (i2 - i1)) / (t2 - t1)))
}

# Waits (bounded) for a quiet machine and says how quiet it was.
wait_quiet() {
  local waited=0 busy
  busy=$(busy_percent)
  while ((busy >= quiet_percent && waited < quiet_wait)); do
    sleep 4
    waited=$((waited + 5))
    busy=$(busy_percent)
  done
  echo "== $(date -u +%H:%M:%S) machine ${busy}% busy before this run (waited ${waited} s);$(uptime | sed 's/.*load/ load/')"
}

echo "== machine"
lscpu | grep -E '^(Model name|CPU\(s\)|Thread\(s\) per core|Core\(s\) per socket|Hypervisor vendor)' || true
echo "kernel $(uname -r), $(nproc) cores online, memory $(free -g | awk '/Mem:/ {print $2}') GiB"
echo "data dir $data_dir on $(df -T "$data_dir" | awk 'NR==2 {print $2, $1}')"
echo "net.core.rmem_max $(cat /proc/sys/net/core/rmem_max)"

if [[ "$what" == inprocess || "$what" == all ]]; then
  wait_quiet
  "$build_dir/bin/ipfix-decode-store-bench" --benchmark_repetitions="$repeat" \
    --benchmark_display_aggregates_only=true
fi

if [[ "$what" == e2e || "$what" == all ]]; then
  for ((i = 1; i <= repeat; ++i)); do
    wait_quiet
    "$build_dir/bin/ipfix-recv-bench" --sinks floor,decode,store,nfcapd --rate 300000 \
      --seconds "$run_seconds" --data-dir "$data_dir"
  done
  for ((i = 1; i <= step_repeat; ++i)); do
    for sink in floor store nfcapd; do
      wait_quiet
      "$build_dir/bin/ipfix-recv-bench" --sinks "$sink" --rate "$rates" --seconds "$run_seconds" \
        --data-dir "$data_dir"
    done
  done
fi
if [[ "$what" == idle || "$what" == all ]]; then
  wait_quiet
  python3 bench/idle_memory_bench.py "$build_dir" --recv-bench --data-dir "$data_dir"
fi
echo "== done; $(uptime | sed 's/.*load/load/')"
