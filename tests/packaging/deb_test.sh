#!/usr/bin/env bash
# The Debian packages of a build folder: CPack makes them, lintian finds no
# error, and the station runs from their unpacked files. With
# ZQ_DEB_INSTALL=1 (CI: root on a throwaway machine) they are also installed
# with dpkg: station --version from /usr/bin, the unit file passes
# systemd-analyze verify, the system user exists, dpkg -r removes the
# programs and keeps /etc/station, and a purge cleans up.
#
#   deb_test.sh BUILD_DIR
set -euo pipefail
cd "$1"
rm -f ./*.deb
if ! timeout 600 cmake --build . --target package >cpack.log 2>&1; then
  cat cpack.log
  exit 1
fi
debs=(libzqcommon1_*.deb libzqcommon-dev_*.deb zqcommon-station_*.deb)
if ! out=$(timeout 300 lintian --fail-on error "${debs[@]}" 2>&1); then
  echo "$out"
  exit 1
fi
echo "lintian: no errors (${debs[*]})"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$tmp"; done
programs=$(ls "$tmp/usr/bin" | tr '\n' ' ')
[[ $programs == "station stationctl " ]] || { echo "programs in /usr/bin: $programs"; exit 1; }
version=$(LD_LIBRARY_PATH="$tmp/usr/lib" "$tmp/usr/bin/station" --version)
[[ $version == *"zqcommon 1."* ]] || { echo "--version: $version"; exit 1; }
version=$(LD_LIBRARY_PATH="$tmp/usr/lib" "$tmp/usr/bin/stationctl" --version)
[[ $version == "stationctl 1."* ]] || { echo "stationctl --version: $version"; exit 1; }
for f in etc/station/station.cfg etc/logrotate.d/station lib/systemd/system/station.service \
         usr/share/man/man1/station.1.gz usr/share/man/man1/stationctl.1.gz; do
  [[ -f $tmp/$f ]] || { echo "missing $f"; exit 1; }
done
dpkg-deb -e zqcommon-station_*.deb "$tmp/control"
grep -qx /etc/station/station.cfg "$tmp/control/conffiles"

if [[ ${ZQ_DEB_INSTALL:-} != 1 ]]; then
  echo "packages checked; installation left to CI (ZQ_DEB_INSTALL=1)"
  exit 0
fi
packages=(zqcommon-station libzqcommon-dev libzqcommon1)
dpkg -i "${debs[@]}"
trap 'dpkg -P "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$tmp"' EXIT
version=$(/usr/bin/station --version)
echo "installed: $version"
getent passwd station >/dev/null
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify /lib/systemd/system/station.service
fi
dpkg -r "${packages[@]}"
[[ ! -e /usr/bin/station && ! -e /usr/lib/libzqcommon.so.1 ]] || { echo "removal left programs"; exit 1; }
[[ -f /etc/station/station.cfg ]] || { echo "removal took the configuration"; exit 1; }
dpkg -P "${packages[@]}"
[[ ! -e /etc/station/station.cfg ]] || { echo "purge left the configuration"; exit 1; }
echo "dpkg -i, --version, verify, -r keeps /etc/station, -P: passed"
