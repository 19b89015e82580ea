#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a consumer
# against it twice: through the CMake package and through pkg-config.
# Usage: consumer_test.sh BUILD_DIR CONSUMER_SOURCE_DIR [SANITIZERS]
set -euo pipefail
build=$1 source=$2 sanitize=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

flags=()
[ -n "$sanitize" ] && flags=(-fsanitize="$sanitize")

cmake --install "$build" --prefix "$work/prefix" >/dev/null
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
