// The station in a fleet: telemetry and commands through an MQTT broker,
// metrics for Prometheus. Opt-in: without MQTT.Host and Metrics.Listen the
// station publishes and serves nothing more.
#ifndef STATION_FLEET_H
#define STATION_FLEET_H

#include <zqfleet/FleetMetrics.h>
#include <zqfleet/MqttLink.h>
#include <zqfleet/MqttSettings.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "station.h"

namespace station {

// [Metrics]: where Prometheus scrapes the station.
struct MetricsSettings : zqcommon::Config_Data {
  MetricsSettings();
  std::string Listen;  // host:port; empty: no metrics
};

// The station's [MQTT] and [Metrics] sections: one pair per process, loaded
// by main() before anything starts and read-only afterwards.
struct FleetSettings {
  zqfleet::MqttSettings mqtt;
  MetricsSettings metrics;
};
FleetSettings& fleet_settings();

// Runs on the main thread beside the station: publishes its records, status,
// error changes and log entries, answers command requests and updates the
// metrics. Poll() is called from the main loop; it never waits for the
// network.
class Fleet {
 public:
  explicit Fleet(Station& st);
  ~Fleet();
  // Starts the link and the metrics as configured; false (after a log entry
  // and a message on standard error) when a setting is unusable.
  bool Start();
  void Poll();
  // Maps the broker's client identity to a ZQSecurity::AccessLevel; viewer
  // unless set. Requests need the same level as a network session's line.
  std::function<int(const std::string& identity)> level_of;

 private:
  void on_record(const Record& r);
  void on_severity(const Watch& w, double value);
  void publish_alarm(const zqpoints::AlarmEvent& e);
  void serve(const zqfleet::MqttLink::Request& req);
  void publish_status();
  void publish_log();
  void update_metrics();

  Station& st_;
  FleetSettings& cfg_;
  std::string id_;
  std::unique_ptr<zqfleet::MqttLink> link_;
  zqfleet::FleetMetrics metrics_;
  bool metrics_on_ = false;
  std::string samples_;  // [cycle,value,io] items of the batch being built
  double batch_start_ = 0, last_status_ = 0, last_metrics_ = 0;
  double log_seen_ = 0;  // the time of the newest log entry published
  uint64_t dropped_reported_ = 0;
};

}  // namespace station

#endif
