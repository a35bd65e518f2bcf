#!/usr/bin/env bash
# The main job in one command: installs what is missing, builds, starts a
# stand-in switch (quil-mock) on loopback, runs the collector in dtl-host
# for about ten seconds against it, and shows what happened: the switch
# configured over HTTPS and cleaned up again, the IPFIX it streamed, the
# sessions the collector decoded, a summary of the data it stored, and a
# picture of it: the counters' rates over time, microbursts included.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${DEMO_SECONDS:-10}

# Only what the demo runs is built: the plug-in and the programs.
scripts/install-deps.sh --demo
BUILD_TARGETS="ipfix_bin_data_provider dtl-host dtl-read dtl-ls hft-sim dtl-plot" scripts/build.sh

work=$(mktemp -d /tmp/ipfix-demo.XXXXXX)
mock_pid=""
cleanup() {
  if [[ -n "$mock_pid" ]]; then kill "$mock_pid" 2>/dev/null || true; wait "$mock_pid" 2>/dev/null || true; fi
}
trap cleanup EXIT

# A UDP port for the IPFIX stream that nothing else uses.
ipfix_port=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET6, socket.SOCK_DGRAM); s.bind(("::", 0)); print(s.getsockname()[1])')

echo "== starting the stand-in switch (quil-mock)"
python3 tools/quil_mock/quil_mock.py --port 0 --port-file "$work/switch.port" \
  --journal "$work/journal.jsonl" --ipfix-port "$ipfix_port" --switch-name demo-leaf-1 \
  --sim-rate 2000 --hft-sim-arg=--burst --hft-sim-arg=250000:5000 --switch-interfaces Ethernet1_1,Ethernet1_2,Ethernet1_3,Ethernet1_4 >"$work/switch.log" 2>&1 &
mock_pid=$!
for _ in $(seq 100); do [[ -s "$work/switch.port" ]] && break; sleep 0.1; done
[[ -s "$work/switch.port" ]] || { cat "$work/switch.log"; echo "the stand-in switch did not start"; exit 1; }
switch_port=$(cat "$work/switch.port")
echo "   switch REST API on https://127.0.0.1:$switch_port, IPFIX to UDP port $ipfix_port"

echo "== running the collector in dtl-host for $seconds s"
DTL_API_LOG_LEVEL=${DTL_API_LOG_LEVEL:-6} build/bin/dtl-host \
  -o ipfix-receiver-port="$ipfix_port" -o ipfix-receiver-workers=2 \
  -o collector-ip=127.0.0.1 -o ipfix-data-path="$work/data" \
  -o switch-ip=127.0.0.1 -o switch-port="$switch_port" \
  -o switch-interfaces=Ethernet1_1,Ethernet1_2 \
  -o switch-counters=tx-byte,rx-byte,tx-packet,rx-packet \
  -o switch-traffic-classes=0,3 \
  ${DEMO_HOST_OPTIONS:-} \
  --duration "$seconds" 2>&1 | tee "$work/collector.log"

echo
echo "== what happened"
python3 - "$work/journal.jsonl" "$work/collector.log" <<'PY'
import json, re, sys
journal = [json.loads(line) for line in open(sys.argv[1]) if line.strip()]
requests = [e for e in journal if "method" in e]
events = [e["event"] for e in journal if "event" in e]
applies = [e for e in requests if e["method"] == "PATCH" and e["path"].startswith("/quil_v1/revision/")]
print(f"switch: {len(requests)} HTTPS requests, {len(applies)} revisions applied, "
      f"{sum(1 for e in requests if e['status'] >= 400)} refused")
for e in requests:
    print(f"   {e['method']:5} {e['path']}{'?' + e['query'] if e['query'] else ''} -> {e['status']}")
print("switch export: " + (", ".join(events) if events else "never started"))
log = open(sys.argv[2]).read()
for line in re.findall(r"\] Switch .*: storing .*", log):
    print("collector: " + line.split("] ", 1)[1])
for line in re.findall(r"\[IPFIX status\] Final status: (.*)", log):
    print("   " + line)
PY

echo
echo "== stored data under $work/data"
find "$work/data" -type f | sort | sed "s|^$work/data/|   |"
mapfile -t files < <(find "$work/data" -name '*.bin' | sort)
if ((${#files[@]} == 0)); then
  echo "no data files were stored"
  exit 1
fi
build/bin/dtl-ls "$work/data"
echo
build/bin/dtl-read --summary "${files[@]}"

# The switch's traffic has a 5 ms microburst every 250 ms of sample time, in
# which its counters grow 2 to 5 times as fast; the picture shows them.
echo
echo "== the rates of Ethernet1_1's byte counters, drawn by dtl-plot"
build/bin/dtl-plot --counters 'Ethernet1_1:.*-byte' -o "$work/rates.png" "$work/data"
echo "   picture: $work/rates.png"
