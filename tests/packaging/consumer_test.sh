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

# An optional component (NAME, the consumer's OPTION): absent until its
# packages (NAME, NAME-dev) are installed, then a program on its CMake target
# and one on its .pc file.
component() {
  local name=$1 option=$2
  if cmake -S "$source" -B "$work/$name-build" -DCMAKE_PREFIX_PATH="$work/prefix" -D"$option"=ON \
       >"$work/absent.log" 2>&1; then
    echo "COMPONENTS $name found without libzq$name installed"; exit 1
  fi
  grep -q "component \"$name\"" "$work/absent.log" || { cat "$work/absent.log"; exit 1; }
  for c in "$name" "$name-dev"; do cmake --install "$build" --prefix "$work/prefix" --component "$c" >/dev/null; done
  rm -rf "$work/$name-build"
  cmake -S "$source" -B "$work/$name-build" -DCMAKE_PREFIX_PATH="$work/prefix" -D"$option"=ON \
    -DCMAKE_CXX_FLAGS="${flags[*]:-}" >/dev/null
  cmake --build "$work/$name-build" >/dev/null
  LD_LIBRARY_PATH="$libdir" "$work/$name-build/consumer-$name"
  # shellcheck disable=SC2046
  g++ -std=c++17 "${flags[@]}" -o "$work/$name-pc" "$source/$name.cpp" $(pkg-config --cflags --libs "zq$name")
  LD_LIBRARY_PATH="$libdir" "$work/$name-pc"
}
component fleet ZQ_FLEET
component points ZQ_POINTS
