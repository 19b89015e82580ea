#!/usr/bin/env bash
# Builds the library and runs every test.
#   BUILD_DIR    build folder (default: build)
#   ZQ_SANITIZE  sanitizers for every target, e.g. address,undefined
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
bash "$root/scripts/deps.sh"

# Sanitizer builds: -O1 (what the sanitizers' own guides advise) and line tables
# only, which is all their reports use; it compiles about a third faster.
flags=()
if [[ -n ${ZQ_SANITIZE:-} ]]; then
  flags=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG")
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZQ_SANITIZE="${ZQ_SANITIZE:-}" "${flags[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:halt_on_error=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1}
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300
