#!/usr/bin/env bash
# Builds libFuzzer targets together and runs them side by side, one per core.
#   scripts/fuzz-all.sh SECONDS TARGET...     each target for SECONDS (see fuzz.sh)
#   scripts/fuzz-all.sh --build-only TARGET...
# Each run's last lines are printed in the order given; any crash, leak or
# time-out fails the whole run (crash-* inputs stay in the build folder).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:?usage: fuzz-all.sh SECONDS|--build-only TARGET...}
shift
(($# > 0)) || { echo "fuzz-all.sh: no targets" >&2; exit 2; }
build=${BUILD_DIR:-$root/build-fuzz}
bash "$root/scripts/deps.sh" clang libclang-rt-14-dev

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DZQ_SANITIZE=fuzzer-no-link,address,undefined -DZQ_BUILD_FUZZERS=ON \
  -DZQ_BUILD_TESTS=OFF -DZQ_BUILD_EXAMPLES=OFF >/dev/null
targets=()
for t in "$@"; do targets+=("${t}_fuzz"); done
if ! cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >"$build/fuzz-build.log" 2>&1; then
  grep -B2 -A8 -E 'error|FAILED' "$build/fuzz-build.log" | head -n 60
  echo "fuzz-all.sh: the fuzz targets did not build (whole output: $build/fuzz-build.log)"
  exit 1
fi
[[ $seconds == --build-only ]] && exit 0

logs="$build/fuzz-logs"
rm -rf "$logs"
mkdir -p "$logs"
export BUILD_DIR="$build" ZQ_FUZZ_BUILT=1
# xargs runs nproc fuzzers at a time; each leaves its output and, on failure, a mark.
printf '%s\n' "$@" | xargs -P "$(nproc)" -I{} \
  bash -c 'bash "$1/scripts/fuzz.sh" "$2" "$3" >"$4/$2.log" 2>&1 || touch "$4/$2.failed"' _ "$root" {} "$seconds" "$logs"
failed=0
for t in "$@"; do
  echo "-- $t"
  cat "$logs/$t.log"
  if [[ -e $logs/$t.failed ]]; then echo "FAILED: $t"; failed=1; fi
done
exit "$failed"
