#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a consumer
# against it twice: through the CMake package and through pkg-config. First
# the core library's components alone (lib, dev: what libzqcommon1 and
# libzqcommon-dev ship), where the fleet component is missing; then with
# libzqfleet's (fleet, fleet-dev), a second program on zqcommon::zqfleet and
# zqfleet.pc; the same for libzqpoints (points, points-dev), whose journal
# header is not in libzqcommon-dev though the rest of zqpoints/ is.
# Usage: consumer_test.sh BUILD_DIR CONSUMER_SOURCE_DIR [SANITIZERS]
set -euo pipefail
build=$1 source=$2 sanitize=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

flags=()
[ -n "$sanitize" ] && flags=(-fsanitize="$sanitize")

for c in lib dev; do cmake --install "$build" --prefix "$work/prefix" --component $c >/dev/null; done
libdir=$(dirname "$(find "$work/prefix" -name 'libzqcommon.so.1' -print -quit)")
[ -L "$libdir/libzqcommon.so" ] || { echo "missing libzqcommon.so link"; exit 1; }
[ "$(readlink "$libdir/libzqcommon.so.1")" != "" ] || { echo "libzqcommon.so.1 is not a link to the real name"; exit 1; }
# Captured first: with pipefail, grep -q leaving at its first match would make
# objdump die of SIGPIPE and fail the pipeline at random.
headers=$(objdump -p "$libdir/libzqcommon.so.1")
grep -q 'SONAME *libzqcommon.so.1' <<<"$headers" || { echo "wrong SONAME"; exit 1; }

# CMake package.
cmake -S "$source" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_FLAGS="${flags[*]:-}" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"

# pkg-config file.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 "${flags[@]}" -o "$work/consumer-pc" "$source/main.cpp" $(pkg-config --cflags --libs zqcommon)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"
needed=$(objdump -p "$work/cmake-build/consumer")
! grep -q libzqfleet <<<"$needed" || { echo "the core consumer links libzqfleet"; exit 1; }
[ -f "$work/prefix/include/zqpoints/Point.h" ] && [ ! -e "$work/prefix/include/zqpoints/AlarmJournal.h" ] ||
  { echo "libzqcommon-dev's zqpoints headers: Point.h without AlarmJournal.h"; exit 1; }

# The fleet component: absent until its packages are installed.
if cmake -S "$source" -B "$work/fleet-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DZQ_FLEET=ON \
     >"$work/absent.log" 2>&1; then
  echo "COMPONENTS fleet found without libzqfleet installed"; exit 1
fi
grep -q 'component "fleet"' "$work/absent.log" || { cat "$work/absent.log"; exit 1; }
for c in fleet fleet-dev; do cmake --install "$build" --prefix "$work/prefix" --component $c >/dev/null; done
rm -rf "$work/fleet-build"
cmake -S "$source" -B "$work/fleet-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DZQ_FLEET=ON \
  -DCMAKE_CXX_FLAGS="${flags[*]:-}" >/dev/null
cmake --build "$work/fleet-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/fleet-build/consumer-fleet"
# shellcheck disable=SC2046
g++ -std=c++17 "${flags[@]}" -o "$work/fleet-pc" "$source/fleet.cpp" $(pkg-config --cflags --libs zqfleet)
LD_LIBRARY_PATH="$libdir" "$work/fleet-pc"

# The points component likewise.
if cmake -S "$source" -B "$work/points-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DZQ_POINTS=ON \
     >"$work/absent.log" 2>&1; then
  echo "COMPONENTS points found without libzqpoints installed"; exit 1
fi
grep -q 'component "points"' "$work/absent.log" || { cat "$work/absent.log"; exit 1; }
for c in points points-dev; do cmake --install "$build" --prefix "$work/prefix" --component $c >/dev/null; done
rm -rf "$work/points-build"
cmake -S "$source" -B "$work/points-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DZQ_POINTS=ON \
  -DCMAKE_CXX_FLAGS="${flags[*]:-}" >/dev/null
cmake --build "$work/points-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/points-build/consumer-points"
# shellcheck disable=SC2046
g++ -std=c++17 "${flags[@]}" -o "$work/points-pc" "$source/points.cpp" $(pkg-config --cflags --libs zqpoints)
LD_LIBRARY_PATH="$libdir" "$work/points-pc"
