#!/usr/bin/env bash
# Builds the library and starts the station on its shipped configuration.
# The station works in build-run/station/ (its configuration, access list,
# logs and trace dumps live there) and listens on 127.0.0.1:7600; type
# "help" at its prompt, or ask it with build-run/apps/stationctl/stationctl
# (README.md). "exit" stops it (Ctrl-C clears the line being typed).
# Arguments go to the station, e.g. Server.ListenPort=0, --passwd NAME LEVEL
# (the users file lands beside the configuration), or Server.RequireTLS=0 for
# a plain-text session with `nc 127.0.0.1 7600` (a trusted host only).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-run}
bash "$root/scripts/deps.sh"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZQ_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target station stationctl >/dev/null

# The shipped files are copied once; later runs keep the operator's changes.
work="$build/station"
mkdir -p "$work"
for f in station.cfg station.acl; do
  [ -e "$work/$f" ] || cp "$root/apps/station/$f" "$work/$f"
done
cd "$work"
echo "station: working in $work" >&2
# The sensor task locks the process's memory (mlockall), which an ordinary
# user's locked-memory limit (8 MB on Debian) does not allow: raise the limit
# of this shell, which the station inherits, through sudo.
if [ "$(id -u)" -ne 0 ] && [ "$(ulimit -l)" != unlimited ]; then
  echo "station: raising the locked-memory limit (sudo prlimit)" >&2
  sudo prlimit --pid $$ --memlock=unlimited:unlimited ||
    echo "station: could not raise it; the sensor task will not start" >&2
fi
exec "$build/apps/station/station" "$@"
