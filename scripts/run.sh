#!/usr/bin/env bash
# Builds the library and runs its demonstration program. Arguments go to the
# program; without any it digests the project's own sources.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-run}
bash "$root/scripts/deps.sh"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZQ_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target zqsum >/dev/null

if [ $# -eq 0 ]; then
  cd "$root"
  set -- -m crc32,crc16,sha256,ripemd160 README.md CMakeLists.txt src/security/crc32.cpp
fi
exec "$build/examples/zqsum" "$@"
