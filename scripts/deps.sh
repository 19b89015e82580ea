#!/usr/bin/env bash
# Installs the Debian packages the build needs, plus any named as arguments,
# when they are missing. Does nothing (and needs no network) when all are there.
set -euo pipefail

packages=(cmake ninja-build g++ make pkg-config binutils libssl-dev openssl libgtest-dev
          libgmock-dev python3
          # services, fleet and console
          libsystemd-dev systemd logrotate libmosquitto-dev mosquitto mosquitto-clients
          prometheus-cpp-dev libedit-dev zlib1g-dev python3-paho-mqtt python3-prometheus-client
          # field devices (libzqdevices) and their test peers
          libmodbus-dev mbpoll socat python3-pymodbus python3-serial python3-serial-asyncio
          # points: the alarm journal, JSON the station writes, cyclictest to compare with
          libsqlite3-dev sqlite3 nlohmann-json3-dev rt-tests
          # the web page: its server, the plot, WebSocket clients; a real browser for its tests
          libcivetweb-dev libjs-dygraphs python3-websockets chromium chromium-driver python3-selenium
          # packaging, documentation, interface checks
          dpkg-dev fakeroot file lintian doxygen abi-compliance-checker abi-dumper ccache
          "$@")
missing=()
for p in "${packages[@]}"; do
  [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" = "install ok installed" ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
