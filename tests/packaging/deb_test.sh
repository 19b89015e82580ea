#!/usr/bin/env bash
# The Debian packages of a build folder: CPack makes them, lintian finds no
# error, each library package holds its own library and depends only on what
# that links (libzqcommon1 neither on libmosquitto nor on prometheus-cpp),
# and the station runs from their unpacked files. With
# ZQ_DEB_INSTALL=1 (CI: root on a throwaway machine) they are also installed
# with dpkg: the consumer builds on libzqcommon-dev alone and then with
# libzqfleet-dev's and libzqpoints-dev's components, station --version from /usr/bin, the unit file passes
# systemd-analyze verify, the system user exists, dpkg -r removes the
# programs and keeps /etc/station, and a purge cleans up.
#
#   deb_test.sh BUILD_DIR
set -euo pipefail
consumer=$(cd "$(dirname "$0")" && pwd)/consumer
cd "$1"
rm -f ./*.deb
if ! timeout 600 cmake --build . --target package >cpack.log 2>&1; then
  cat cpack.log
  exit 1
fi
debs=(libzqcommon1_*.deb libzqcommon-dev_*.deb libzqfleet1_*.deb libzqfleet-dev_*.deb libzqdevices1_*.deb
      libzqdevices-dev_*.deb libzqpoints1_*.deb libzqpoints-dev_*.deb zqcommon-station_*.deb)
if ! out=$(timeout 300 lintian --fail-on error "${debs[@]}" 2>&1); then
  echo "$out"
  exit 1
fi
echo "lintian: no errors (${debs[*]})"

# Contents and dependencies of the library packages.
only_files() {  # PACKAGE_DEB PATTERN: every file outside /usr/share/doc matches
  local extra
  extra=$(dpkg-deb -c "$1" | awk '$1 !~ /^d/ {print $6}' | grep -v '^\./usr/share/doc/' | grep -Ev "$2" || true)
  [[ -z $extra ]] || { echo "$1 holds more than it should:"; echo "$extra"; exit 1; }
}
only_files libzqcommon1_*.deb '/libzqcommon\.so\.1(\.|$)'
only_files libzqfleet1_*.deb '/libzqfleet\.so\.1(\.|$)'
only_files libzqdevices1_*.deb '/libzqdevices\.so\.1(\.|$)'
only_files libzqpoints1_*.deb '/libzqpoints\.so\.1(\.|$)'
# (Listings captured first: grep -q leaving early would fail the pipeline.)
fleet_dev=$(dpkg-deb -c libzqfleet-dev_*.deb)
for f in include/zqfleet/MqttLink.h zqcommonFleetTargets.cmake pkgconfig/zqfleet.pc; do
  grep -q "/$f\$" <<<"$fleet_dev" || { echo "libzqfleet-dev: no $f"; exit 1; }
done
devices_dev=$(dpkg-deb -c libzqdevices-dev_*.deb)
for f in include/zqdevices/ModbusDevice.h zqcommonDevicesTargets.cmake pkgconfig/zqdevices.pc; do
  grep -q "/$f\$" <<<"$devices_dev" || { echo "libzqdevices-dev: no $f"; exit 1; }
done
points_dev=$(dpkg-deb -c libzqpoints-dev_*.deb)
for f in include/zqpoints/AlarmJournal.h zqcommonPointsTargets.cmake pkgconfig/zqpoints.pc; do
  grep -q "/$f\$" <<<"$points_dev" || { echo "libzqpoints-dev: no $f"; exit 1; }
done
if grep -Eq 'include/zq(fleet|devices)|AlarmJournal' <<<"$(dpkg-deb -c libzqcommon-dev_*.deb)"; then
  echo "libzqcommon-dev holds libzqfleet's, libzqdevices' or libzqpoints' headers"; exit 1
fi
depends=$(dpkg-deb -f libzqcommon1_*.deb Depends)
if grep -Eq 'mosquitto|prometheus|zqfleet|modbus|zqdevices|sqlite' <<<"$depends"; then
  echo "libzqcommon1 depends on the fleet's, the devices' or the journal's libraries: $depends"; exit 1
fi
depends=$(dpkg-deb -f libzqfleet1_*.deb Depends)
for d in libzqcommon1 libmosquitto1 libprometheus-cpp; do
  [[ $depends == *"$d"* ]] || { echo "libzqfleet1 does not depend on $d: $depends"; exit 1; }
done
for p in "${debs[@]}"; do
  m=$(dpkg-deb -f "$p" Maintainer)
  [[ $m == *@* && $m != *example.* ]] || { echo "$p: maintainer '$m'"; exit 1; }
done
echo "package contents and dependencies: right"

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
         usr/share/man/man1/station.1.gz usr/share/man/man1/stationctl.1.gz \
         usr/share/zqcommon-station/web/index.html usr/share/zqcommon-station/web/trend.js \
         usr/share/doc/zqcommon-station/web.md; do
  [[ -f $tmp/$f ]] || { echo "missing $f"; exit 1; }
done
dpkg-deb -e zqcommon-station_*.deb "$tmp/control"
grep -qx /etc/station/station.cfg "$tmp/control/conffiles"

if [[ ${ZQ_DEB_INSTALL:-} != 1 ]]; then
  echo "packages checked; installation left to CI (ZQ_DEB_INSTALL=1)"
  exit 0
fi
packages=(zqcommon-station libzqdevices-dev libzqdevices1 libzqfleet-dev libzqfleet1 libzqpoints-dev libzqpoints1
          libzqcommon-dev libzqcommon1)
trap 'dpkg -P "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$tmp"' EXIT
# The core packages alone serve a consumer; the fleet component is not there.
dpkg -i --force-confdef --force-confold libzqcommon1_*.deb libzqcommon-dev_*.deb
cmake -S "$consumer" -B "$tmp/consumer" >/dev/null && cmake --build "$tmp/consumer" >/dev/null
"$tmp/consumer/consumer"
if cmake -S "$consumer" -B "$tmp/consumer-fleet" -DZQ_FLEET=ON >/dev/null 2>&1; then
  echo "COMPONENTS fleet found without libzqfleet-dev"; exit 1
fi
dpkg -i --force-confdef --force-confold "${debs[@]}"
rm -rf "$tmp/consumer-fleet"
cmake -S "$consumer" -B "$tmp/consumer-fleet" -DZQ_FLEET=ON >/dev/null && cmake --build "$tmp/consumer-fleet" >/dev/null
"$tmp/consumer-fleet/consumer-fleet"
cmake -S "$consumer" -B "$tmp/consumer-points" -DZQ_POINTS=ON >/dev/null && cmake --build "$tmp/consumer-points" >/dev/null
"$tmp/consumer-points/consumer-points"
version=$(/usr/bin/station --version)
echo "installed: $version"
getent passwd station >/dev/null
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify /lib/systemd/system/station.service
fi
dpkg -r "${packages[@]}"
[[ ! -e /usr/bin/station && -z $(find /usr/lib -name "libzq*.so*" -print -quit) ]] || { echo "removal left programs"; exit 1; }
[[ -f /etc/station/station.cfg ]] || { echo "removal took the configuration"; exit 1; }
dpkg -P "${packages[@]}"
[[ ! -e /etc/station/station.cfg ]] || { echo "purge left the configuration"; exit 1; }
echo "dpkg -i, --version, verify, -r keeps /etc/station, -P: passed"
