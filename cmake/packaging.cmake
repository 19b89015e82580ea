# Debian packages (cmake --build build --target package):
#   libzqcommon1      the shared library libzqcommon.so.1    (component lib)
#   libzqcommon-dev   headers, CMake package, pkg-config     (component dev)
#   libzqfleet1       MQTT and metrics, libzqfleet.so.1      (component fleet)
#   libzqfleet-dev    its headers, CMake component, .pc file (component fleet-dev)
#   libzqdevices1     serial lines and Modbus, libzqdevices.so.1 (component devices)
#   libzqdevices-dev  its headers, CMake component, .pc file (component devices-dev)
#   libzqpoints1      the SQLite alarm journal, libzqpoints.so.1 (component points)
#   libzqpoints-dev   its header, CMake component, .pc file  (component points-dev)
#   zqcommon-station  the station as a systemd service,      (component station)
#                     and its client stationctl
# A program on the core library alone pulls in neither libmosquitto nor
# prometheus-cpp (only libzqfleet links them), nor libmodbus (only libzqdevices),
# nor libsqlite3 (only libzqpoints).
# Example programs other than the station are not packaged.
set(ZQ_DEBIAN ${PROJECT_SOURCE_DIR}/cmake/debian)

# Each package carries its copyright and a compressed changelog (the name
# a native package uses).
configure_file(${ZQ_DEBIAN}/changelog ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.gz
  COMMAND gzip -9nf -k ${PROJECT_BINARY_DIR}/debian/changelog
  DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog)
add_custom_target(zq_debian_docs ALL DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.gz)
foreach(pair lib:libzqcommon1 dev:libzqcommon-dev fleet:libzqfleet1 fleet-dev:libzqfleet-dev
             devices:libzqdevices1 devices-dev:libzqdevices-dev points:libzqpoints1
             points-dev:libzqpoints-dev station:zqcommon-station)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${ZQ_DEBIAN}/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()
# Every setting of the station, with units (the manual page points here).
install(FILES ${PROJECT_SOURCE_DIR}/docs/station_settings.md ${PROJECT_SOURCE_DIR}/docs/web.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/zqcommon-station COMPONENT station)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zqcommon)
set(CPACK_PACKAGE_VENDOR "libzqcommon maintainers")
set(CPACK_PACKAGE_CONTACT "libzqcommon maintainers <maintainers@zqcommon.org>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPACK_PACKAGE_CONTACT})
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://zqcommon.org/)
# No common summary: the first line of each component's description is its
# package's synopsis (CPack would put a common one before it); CPack indents
# the lines after it.
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev fleet fleet-dev devices devices-dev points points-dev station)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/src/fleet
  ${PROJECT_BINARY_DIR}/src/devices
  ${PROJECT_BINARY_DIR}/src/points/journal)
set(CPACK_DEBIAN_PACKAGE_SOURCE zqcommon)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libzqcommon1)
set(CPACK_COMPONENT_LIB_DESCRIPTION "libzqcommon: common services for measurement and control programs
Configuration files and command lines, logs, traces and error records, TCP
line servers with access lists and start-TLS, a command interpreter,
threads and real-time tasks, serial and digital I/O, CRCs, hashes, ciphers,
 process points and alarms.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)  # only the library packages have one
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${ZQ_DEBIAN}/lib/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzqcommon-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION "libzqcommon: development files
Headers, the CMake package and the pkg-config file of libzqcommon.")
set(CPACK_COMPONENT_DEV_DEPENDS lib)

set(CPACK_DEBIAN_FLEET_PACKAGE_NAME libzqfleet1)
set(CPACK_COMPONENT_FLEET_DESCRIPTION "libzqfleet: MQTT telemetry and commands, Prometheus metrics
The fleet library of libzqcommon: publishes a program's state and error
records to an MQTT broker, takes commands from it with replies, queues
messages on disk while the broker is away, and serves Prometheus metrics.
It links libmosquitto and prometheus-cpp; libzqcommon1 does not.")
set(CPACK_COMPONENT_FLEET_DEPENDS lib)
set(CPACK_DEBIAN_FLEET_PACKAGE_CONTROL_EXTRA ${ZQ_DEBIAN}/lib/triggers)

set(CPACK_DEBIAN_POINTS_PACKAGE_NAME libzqpoints1)
set(CPACK_COMPONENT_POINTS_DESCRIPTION "libzqpoints: the alarm journal of libzqcommon's process points
Every alarm transition and operator action (acknowledgement, shelving) in
an SQLite database in WAL mode that a killed process leaves readable,
bounded in rows and queried by time range. It links libsqlite3;
libzqcommon1 does not.")
set(CPACK_COMPONENT_POINTS_DEPENDS lib)
set(CPACK_DEBIAN_POINTS_PACKAGE_CONTROL_EXTRA ${ZQ_DEBIAN}/lib/triggers)

set(CPACK_DEBIAN_POINTS-DEV_PACKAGE_NAME libzqpoints-dev)
set(CPACK_DEBIAN_POINTS-DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_POINTS-DEV_DESCRIPTION "libzqpoints: development files
The header zqpoints/AlarmJournal.h, the CMake component
(find_package(zqcommon COMPONENTS points), target zqcommon::zqpoints) and
the pkg-config file zqpoints.pc of libzqpoints, the alarm journal of
libzqcommon's process points.")
set(CPACK_COMPONENT_POINTS-DEV_DEPENDS points dev)

set(CPACK_DEBIAN_FLEET-DEV_PACKAGE_NAME libzqfleet-dev)
set(CPACK_DEBIAN_FLEET-DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_FLEET-DEV_DESCRIPTION "libzqfleet: development files
Headers, the CMake component (find_package(zqcommon COMPONENTS fleet),
target zqcommon::zqfleet) and the pkg-config file zqfleet.pc of libzqfleet,
the MQTT and metrics library of libzqcommon.")
set(CPACK_COMPONENT_FLEET-DEV_DEPENDS fleet dev)

set(CPACK_DEBIAN_DEVICES_PACKAGE_NAME libzqdevices1)
set(CPACK_COMPONENT_DEVICES_DESCRIPTION "libzqdevices: serial lines by path and Modbus devices
The field-device library of libzqcommon: serial lines by any path with
RS-485 and modem lines, Modbus TCP and RTU devices polled on their own
threads with safe states on faults, and a Modbus TCP server for an I/O image.
It links libmodbus; libzqcommon1 does not.")
set(CPACK_COMPONENT_DEVICES_DEPENDS lib)
set(CPACK_DEBIAN_DEVICES_PACKAGE_CONTROL_EXTRA ${ZQ_DEBIAN}/lib/triggers)

set(CPACK_DEBIAN_DEVICES-DEV_PACKAGE_NAME libzqdevices-dev)
set(CPACK_DEBIAN_DEVICES-DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVICES-DEV_DESCRIPTION "libzqdevices: development files
Headers, the CMake component (find_package(zqcommon COMPONENTS devices),
target zqcommon::zqdevices) and the pkg-config file zqdevices.pc of
libzqdevices, the serial-line and Modbus library of libzqcommon.")
set(CPACK_COMPONENT_DEVICES-DEV_DEPENDS devices dev)

set(CPACK_DEBIAN_STATION_PACKAGE_NAME zqcommon-station)
set(CPACK_DEBIAN_STATION_PACKAGE_SECTION misc)
set(CPACK_COMPONENT_STATION_DESCRIPTION "measurement-and-control station built on libzqcommon
A real-time sensor task, digital I/O, error records, a rotated log and a
command set for TCP clients, run as a systemd service with readiness and
watchdog notifications, reload on SIGHUP and a logrotate snippet; and
 stationctl, its command-line client for shells and scripts.")
set(CPACK_COMPONENT_STATION_DEPENDS lib fleet devices points)
# The web page serves Debian's dygraphs; Debian's civetweb loads OpenSSL at
# run time by the unversioned name libssl.so, which libssl-dev provides.
set(CPACK_DEBIAN_STATION_PACKAGE_DEPENDS "adduser, logrotate, libjs-dygraphs, libssl-dev")
set(CPACK_DEBIAN_STATION_PACKAGE_CONTROL_EXTRA
  "${ZQ_DEBIAN}/station/conffiles;${ZQ_DEBIAN}/station/postinst;${ZQ_DEBIAN}/station/postrm;${ZQ_DEBIAN}/station/prerm")
set(CPACK_DEBIAN_STATION_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

include(CPack)
