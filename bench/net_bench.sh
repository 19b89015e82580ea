#!/usr/bin/env bash
# The example line server against a minimal poll() echo server: lines/s and
# p99 round trip at 1/10/100/500 clients, and connect bursts of 500 and
# 5,000 clients; then the Connection line echo against a raw echo. Medians of
# RUNS runs (default 5). Uses the library of BUILD_DIR (default build/).
#   bench/net_bench.sh [SECONDS_PER_RUN]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
runs=${RUNS:-5}
secs=${1:-3}
out=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$out"' EXIT
cmake --build "$build" --target lineserver zqcommon >/dev/null
flags=(-O2 -std=c++17 -I"$root/include" -L"$build" -Wl,-rpath,"$build" -lpthread)
g++ "$root/bench/poll_echo_server.cpp" -o "$out/poll_echo_server" -O2
g++ "$root/bench/line_load.cpp" -o "$out/line_load" -O2
g++ "$root/bench/echo_bench.cpp" -o "$out/echo_bench" "${flags[@]}" -lzqcommon
ulimit -n "$(ulimit -Hn)"

start() {  # start SERVER...; sets port
  "$@" > "$out/port" & pid=$!
  for _ in $(seq 100); do grep -q listening "$out/port" 2>/dev/null && break; sleep 0.05; done
  port=$(awk '{print $3}' "$out/port")
}
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
measure() {  # measure CLIENTS -> "lines/s p99" medians over runs
  local ls=() p99=()
  for _ in $(seq "$runs"); do
    read -r _ l _ p < <("$out/line_load" "$port" "$1" "$secs")
    ls+=("$l"); p99+=("$p")
  done
  echo "$(printf '%s\n' "${ls[@]}" | median) $(printf '%s\n' "${p99[@]}" | median)"
}

printf '%-8s %12s %9s %12s %9s %7s %7s\n' clients lineserver p99_ms poll_server p99_ms ratio p99x
for n in 1 10 100 500; do
  start "$build/examples/lineserver" 0 10000; read -r a ap < <(measure "$n"); kill $pid; wait $pid 2>/dev/null || true
  start "$out/poll_echo_server"; read -r b bp < <(measure "$n"); kill $pid; wait $pid 2>/dev/null || true
  printf '%-8s %12.0f %9.2f %12.0f %9.2f %7.2f %7.2f\n' "$n" "$a" "$ap" "$b" "$bp" \
    "$(echo "$a / $b" | bc -l)" "$(echo "$ap / $bp" | bc -l)"
done
for n in 500 5000; do
  start "$build/examples/lineserver" 0 10000
  echo "connect burst $n at once, lineserver: $("$out/line_load" "$port" "$n" burst)"
  kill $pid; wait $pid 2>/dev/null || true
done
"$out/echo_bench" "$runs"
