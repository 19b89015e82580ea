// A station's metrics for Prometheus, served by a pull exposer.
#ifndef ZQFLEET_FLEETMETRICS_H
#define ZQFLEET_FLEETMETRICS_H

#include <zqcommon/export.h>
#include <zqrtm/cyclestats.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zqfleet/MqttLink.h"

namespace zqfleet {

// Serves on `http://<listen>/metrics` (prometheus-cpp's exposer: four worker
// threads, 5 s for a request to arrive, at most 16 connections waiting): zq_cycle_lateness_seconds (histogram), zq_cycle_overruns_total,
// zq_error_severity{record}, zq_sessions{kind}, zq_log_entries_total{type},
// zq_mqtt_connected, zq_mqtt_queue_records, zq_mqtt_queue_bytes,
// zq_mqtt_dropped_total, zq_point_value{point,unit} (the point's value in
// its unit), zq_point_alarm_state{point} (0 normal, 1 active unacknowledged,
// 2 active acknowledged, 3 returned unacknowledged), zq_point_alarm_severity{point}
// (0 none .. 4 critical), zq_build_info{version} (always 1), and process_cpu_seconds_total,
// process_resident_memory_bytes, process_open_fds, process_start_time_seconds.
//
// The program calls Update() with its current figures (from its own thread,
// e.g. once a second); counters advance by the difference to the previous
// call. Update() is safe against concurrent scrapes; not to be called from
// two threads at once. Owned by the program.
class ZQ_EXPORT FleetMetrics {
 public:
  // The figures one update publishes.
  struct Figures {
    CycleStats::Snapshot cycles;
    std::vector<std::pair<std::string, int>> severities;    // error record -> severity
    std::vector<std::pair<std::string, double>> sessions;   // kind -> open sessions
    std::array<unsigned int, 5> log{};                      // panic, error, warn, info, debug
    MqttLink::Counters mqtt;
    // Process points: name, unit, value, alarm state and severity (zqpoints' codes).
    struct Point {
      std::string name, unit;
      double value;
      int alarm_state, severity;
    };
    std::vector<Point> points;
  };

  FleetMetrics();
  ~FleetMetrics();
  FleetMetrics(const FleetMetrics&) = delete;
  FleetMetrics& operator=(const FleetMetrics&) = delete;

  // Listens on "host:port" (port 0: any free port, see Port()). An empty
  // address serves nothing and succeeds. False with the reason when the
  // address cannot be bound.
  bool Start(const std::string& listen, std::string& error);
  // The bound port, or 0 when not serving.
  int Port() const;
  void Update(const Figures& figures);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zqfleet

#endif
