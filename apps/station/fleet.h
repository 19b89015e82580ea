// The station in a fleet: telemetry and commands through an MQTT broker,
// metrics for Prometheus. Opt-in: without MQTT.Host and Metrics.Listen the
// station publishes and serves nothing more.
#ifndef STATION_FLEET_H
#define STATION_FLEET_H

#include <zqfleet/FleetMetrics.h>
#include <zqfleet/MqttLink.h>
#include <zqfleet/MqttSettings.h>
#include <zqfleet/SignedRequest.h>

#include <sys/types.h>

#include <functional>
#include <set>
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
  // Maps a user name to its ZQSecurity::AccessLevel (kNoAccess when the
  // users file does not name it). Requests need the same level as a network
  // session's line.
  std::function<int(const std::string& identity)> level_of;
  // The users file: with MQTT.Commands = signed the public keys are read
  // from the file beside it, <users_file>.keys.
  std::string users_file;

 private:
  void on_record(const Record& r);
  void on_severity(const Watch& w, double value);
  void publish_alarm(const zqpoints::AlarmEvent& e);
  void serve(const zqfleet::MqttLink::Request& req);
  // The level a request gets, or -1 (after refuse()) when it gets none.
  int level_for(const zqfleet::MqttLink::Request& req, const zqfleet::FleetCommand& cmd, std::string& who);
  // Answers `code` and `why`, and logs it (once a minute per sender).
  void refuse(const zqfleet::MqttLink::Request& req, const std::string& who, int code, const std::string& why);
  bool reload_keys();
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
  zqfleet::SignedRequest verifier_;
  std::string keys_file_;
  time_t keys_mtime_ = -1;
  off_t keys_size_ = -1;
  std::set<std::string> refusal_logged_;  // senders whose refusal was logged this minute
  double refusal_minute_ = 0;                      // when this minute began
  int refusal_lines_ = 0, refusals_unlogged_ = 0;
};

// "--add-command-key NAME PUBLIC.pem" is taken out of the arguments before
// the configuration reads them; Handle() registers the key once the
// settings are loaded. -1 when not given, else the exit code.
struct CommandKeyOption {
  std::string name, pem;
  bool given = false;
  bool Take(int& argc, char** argv);
  int Handle(const std::string& users_file);
};

}  // namespace station

#endif
