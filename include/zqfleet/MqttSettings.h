// The [MQTT] settings section of a station that joins a broker.
#ifndef ZQFLEET_MQTTSETTINGS_H
#define ZQFLEET_MQTTSETTINGS_H

#include <zqcommon/export.h>
#include <zqcommon/ew.h>

#include <string>

namespace zqfleet {

// What MqttLink needs to reach a broker. An empty Host (the default) means
// no broker: the program publishes nothing. ClientId and TopicPrefix default
// to the station's id and "zq/<station id>" (see Resolve()). Passwords are
// read from PasswordFile (its first line), never kept in the settings file.
// A plain settings structure: not locked, not copyable.
struct ZQ_EXPORT MqttSettings : zqcommon::Config_Data {
  MqttSettings();
  std::string Host;                 // broker host name or address; empty: off
  int Port = 1883;
  std::string ClientId;             // empty: the station's id
  std::string User;                 // empty: no user name
  std::string PasswordFile;         // first line is the password
  std::string CAFile;               // set: TLS, the broker's certificate checked against it
  std::string CertificateFile;      // client certificate for TLS (with KeyFile)
  std::string KeyFile;
  int KeepAlive = 30;               // seconds
  int QoS = 1;                      // 0 or 1 for telemetry
  std::string TopicPrefix;          // empty: zq/<station id>
  std::string QueueDir;             // where QoS 1 records wait for the broker; empty: memory only
  long long QueueLimit = 4 << 20;   // bytes kept waiting; beyond it the oldest are dropped
  int StatusPeriod = 10;            // seconds between status records
  unsigned int LogMask = 7;         // log entry types published (1 panic, 2 error, 4 warning, 8 info, 16 debug)
  // Command requests: "off" (nothing subscribed), "signed" (each request
  // signed with its sender's Ed25519 key, see SignedRequest) or "broker"
  // (the broker's access list vouches for the topic's user; TLS and a login
  // required, every request capped at MaxLevel).
  std::string Commands = "off";
  int SignedWindowS = 30;           // a signed request's time stamp may be off by this much
  std::string MaxLevel = "viewer";  // "broker": the highest level any request gets
  std::string ReplyPrefix = "reply";  // answers only to topics under <ReplyPrefix>/
  long long RequestBytes = 256 << 10;  // requests waiting to be served, all senders together

  // Fills the defaults that depend on the station's id. False, with the
  // reason in `error`, when a value is out of range (QoS, Port, KeepAlive,
  // StatusPeriod, QueueLimit, SignedWindowS, RequestBytes), Commands or
  // MaxLevel is not one of its words, ReplyPrefix is not a plain topic
  // outside TopicPrefix, Commands is "broker" without CAFile and User, or
  // the id is not usable in a topic.
  bool Resolve(const std::string& station_id, std::string& error);
};

}  // namespace zqfleet

#endif
