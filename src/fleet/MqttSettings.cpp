// The [MQTT] settings section.
#include "zqfleet/MqttSettings.h"

namespace zqfleet {

MqttSettings::MqttSettings() {
  const auto& all = zqcommon::Config_Data_INIT.FULL;
  Register("Host", Host, all, "", "broker host; empty: no broker");
  Register("Port", Port, all, "", "broker port");
  Register("ClientId", ClientId, all, "", "MQTT client id; empty: the station id");
  Register("User", User, all, "", "broker user name");
  Register("PasswordFile", PasswordFile, all, "", "file holding the broker password");
  Register("CAFile", CAFile, all, "", "CA certificate: TLS to the broker");
  Register("CertificateFile", CertificateFile, all, "", "client certificate");
  Register("KeyFile", KeyFile, all, "", "client key");
  Register("KeepAlive", KeepAlive, all, "s", "keep-alive interval");
  Register("QoS", QoS, all, "", "telemetry QoS, 0 or 1");
  Register("TopicPrefix", TopicPrefix, all, "", "empty: zq/<station id>");
  Register("QueueDir", QueueDir, all, "", "on-disk queue folder; empty: memory");
  Register("QueueLimit", QueueLimit, all, "B", "bytes queued while the broker is away", zqcommon::cfg_STORAGE);
  Register("StatusPeriod", StatusPeriod, all, "s", "seconds between status records");
  Register("LogMask", LogMask, all, "", "log types published: 1 panic 2 error 4 warn 8 info 16 debug");
}

bool MqttSettings::Resolve(const std::string& station_id, std::string& error) {
  if (station_id.empty() || station_id.find_first_of("/+#") != std::string::npos) {
    error = "station id '" + station_id + "' cannot be used in an MQTT topic";
    return false;
  }
  struct Range { const char* name; long long value, low, high; };
  const Range ranges[] = {{"MQTT.Port", Port, 1, 65535},
                          {"MQTT.QoS", QoS, 0, 1},
                          {"MQTT.KeepAlive", KeepAlive, 5, 65535},
                          {"MQTT.StatusPeriod", StatusPeriod, 1, 86400},
                          {"MQTT.QueueLimit", QueueLimit, 1024, 1LL << 40}};
  for (const Range& r : ranges) {
    if (r.value < r.low || r.value > r.high) {
      error = std::string(r.name) + " = " + std::to_string(r.value) + " is outside " +
              std::to_string(r.low) + ".." + std::to_string(r.high);
      return false;
    }
  }
  if (ClientId.empty()) ClientId = station_id;
  if (TopicPrefix.empty()) TopicPrefix = "zq/" + station_id;
  while (!TopicPrefix.empty() && TopicPrefix.back() == '/') TopicPrefix.pop_back();
  return true;
}

}  // namespace zqfleet
