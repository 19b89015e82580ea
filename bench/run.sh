#!/usr/bin/env bash
# Builds the benchmarks in Release mode and runs them. Installs the peer
# libraries they compare with (zlib, Boost, inih, Poco, spdlog, rt-tests, GSL). Not part of the tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
bash "$root/scripts/deps.sh" zlib1g-dev libboost-dev libinih-dev libpoco-dev libspdlog-dev rt-tests libgsl-dev
cmake -S "$root/bench" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
"$build/crc_bench"
echo
"$build/config_bench"
echo
"$build/log_bench"
echo
"$build/echo_bench"
echo
"$build/mailbox_bench"
echo
"$build/fit_bench"
echo
"$build/latency_bench"
echo
"$build/fleet_bench" 200 10
