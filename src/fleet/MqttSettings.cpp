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
  Register("Commands", Commands, all, "", "command requests: off, signed or broker");
  Register("SignedWindowS", SignedWindowS, all, "s", "signed requests: allowed clock difference");
  Register("MaxLevel", MaxLevel, all, "", "broker mode: highest level of a request");
  Register("ReplyPrefix", ReplyPrefix, all, "", "answers only to topics under this prefix");
  Register("RequestBytes", RequestBytes, all, "B", "bytes of requests waiting", zqcommon::cfg_STORAGE);
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
                          {"MQTT.QueueLimit", QueueLimit, 1024, 1LL << 40},
                          {"MQTT.SignedWindowS", SignedWindowS, 1, 3600},
                          {"MQTT.RequestBytes", RequestBytes, 8192, 1LL << 30}};
  for (const Range& r : ranges) {
    if (r.value < r.low || r.value > r.high) {
      error = std::string(r.name) + " = " + std::to_string(r.value) + " is outside " +
              std::to_string(r.low) + ".." + std::to_string(r.high);
      return false;
    }
  }
  if (Commands != "off" && Commands != "signed" && Commands != "broker") {
    error = "MQTT.Commands = '" + Commands + "': expected off, signed or broker";
    return false;
  }
  if (MaxLevel != "viewer" && MaxLevel != "operator" && MaxLevel != "admin") {
    error = "MQTT.MaxLevel = '" + MaxLevel + "': expected viewer, operator or admin";
    return false;
  }
  // The broker's word is all "broker" has: it must be the real broker (TLS,
  // its certificate checked) and know who the station is (a login).
  if (Commands == "broker" && (CAFile.empty() || User.empty())) {
    error = std::string("MQTT.Commands = broker needs TLS to the broker with its CA checked and a login: set ") +
            (CAFile.empty() ? "MQTT.CAFile" : "MQTT.User") + " (or use MQTT.Commands = signed)";
    return false;
  }
  if (ClientId.empty()) ClientId = station_id;
  if (TopicPrefix.empty()) TopicPrefix = "zq/" + station_id;
  while (!TopicPrefix.empty() && TopicPrefix.back() == '/') TopicPrefix.pop_back();
  while (!ReplyPrefix.empty() && ReplyPrefix.back() == '/') ReplyPrefix.pop_back();
  if (ReplyPrefix.empty() || ReplyPrefix.find_first_of("+#") != std::string::npos ||
      (TopicPrefix + "/").compare(0, ReplyPrefix.size() + 1, ReplyPrefix + "/") == 0 ||
      (ReplyPrefix + "/").compare(0, TopicPrefix.size() + 1, TopicPrefix + "/") == 0) {
    error = "MQTT.ReplyPrefix = '" + ReplyPrefix + "': a topic without wildcards, apart from MQTT.TopicPrefix";
    return false;
  }
  return true;
}

}  // namespace zqfleet
