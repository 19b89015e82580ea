#!/usr/bin/env bash
# Builds the benchmarks in Release mode and runs them. Installs the peer
# libraries they compare with (ISA-L, zlib, Boost, inih, spdlog, rt-tests, GSL);
# a bench whose peer is missing prints its own figures and says so. Ends with
# one summary table: work, strongest peer, peer's figure, ours, ratio (ours
# over the peer: above 1 is better for us), the goal for that ratio and
# whether it is met, physical bound. Library functions and their peers are
# called directly, as a user's program calls them (bench/direct_call.h: through
# the shared library's PLT, each result consumed, the thread's CPU time). A
# bench whose own check fails (different results or output than its peer's)
# makes the script fail. Not part of the tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
bash "$root/scripts/deps.sh" python3-websockets zlib1g-dev libboost-dev libisal-dev libinih-dev libspdlog-dev rt-tests libgsl-dev libmodbus-dev
cmake -S "$root/bench" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null

results=$(mktemp)
trap 'rm -f "$results"' EXIT
failed=()
for run in crc_bench config_bench log_bench echo_bench mailbox_bench fit_bench latency_bench "fleet_bench 200 10" "fleet_bench telemetry 1000 100 10" modbus_bench points_bench; do
  read -r bench args <<<"$run"
  if [ -x "$build/$bench" ]; then
    # shellcheck disable=SC2086
    codes=(0)
    "$build/$bench" $args | tee -a "$results" | grep -v '^SUMMARY|' || codes=("${PIPESTATUS[@]}")
    [ "${codes[0]}" -eq 0 ] || failed+=("$bench")
  else
    echo "$bench: not built (its peer library is missing)"
  fi
  echo
done

# stationctl against a Python ssl client, both as processes (connect, TLS, login, status).
apps="$build/zqcommon/apps"
if [ -x "$apps/stationctl/stationctl" ] && [ -x "$apps/station/station" ]; then
  codes=(0)
  /usr/bin/python3 "$root/bench/stationctl_bench.py" "$apps/stationctl/stationctl" "$apps/station/station" 100 |
    tee -a "$results" | grep -v '^SUMMARY|' || codes=("${PIPESTATUS[@]}")
  [ "${codes[0]}" -eq 0 ] || failed+=(stationctl_bench)
  echo
fi

# The web page: 20 WebSocket clients on ten points at 20 updates/s, CPU, first page load in Chromium.
if [ -x "$apps/station/station" ]; then
  codes=(0)
  /usr/bin/python3 "$root/bench/web_bench.py" "$apps/station/station" |
    tee -a "$results" | grep -v '^SUMMARY|' || codes=("${PIPESTATUS[@]}")
  [ "${codes[0]}" -eq 0 ] || failed+=(web_bench)
  echo
fi

echo "== Summary: direct calls ($(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg) at the end: figures from a loaded machine are noisy)"
{
  echo "work|strongest peer|peer|ours|ours/peer|goal|met|physical bound"
  grep '^SUMMARY|' "$results" | cut -d'|' -f2-
} | if command -v column >/dev/null; then column -t -s '|'; else tr '|' '\t'; fi
if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED (a check inside the bench did not hold; its figures are not to be trusted): ${failed[*]}" >&2
  exit 1
fi
