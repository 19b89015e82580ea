// A station's link to an MQTT broker: telemetry out, command requests in.
#ifndef ZQFLEET_MQTTLINK_H
#define ZQFLEET_MQTTLINK_H

#include <zqcommon/export.h>

#include <cstdint>
#include <memory>
#include <string>

#include "zqfleet/MqttSettings.h"

namespace zqfleet {

// Every record is one JSON object:
//   {"station":"<id>","seq":N,"time":"2026-01-02T03:04:05.678Z", ...fields}
// with a sequence number per topic counted from 0 (a consumer sees a gap as a
// jump). The link runs on libmosquitto (MQTT 5) in libmosquitto's own thread,
// connects and reconnects by itself (back-off 1 s doubling to 30 s), and
// publishes on connect a retained "online" record on `<prefix>/state` (the
// birth: seq is the connection's number, plus the caller's birth fields); the
// broker's last will sets it to "offline" with the same number. Stop()
// publishes "offline" itself.
//
// Records of QoS 1 wait in a bounded queue (mirrored into QueueDir when set,
// so they survive a restart) until the broker acknowledges them, and are sent
// in order; when the queue is over QueueLimit bytes the oldest unsent records
// are dropped and counted. QoS 0 records are sent only while connected.
//
// With Commands other than "off" the link subscribes to `<prefix>/cmd` and
// `<prefix>/cmd/<identity>` (retained messages never sent, and any that
// arrive ignored) and the requests wait for TakeRequest(). The topic proves
// nothing by itself: the program checks a signature ("signed") or relies
// on the broker's access list ("broker"). The CONNECT asks the broker for
// packets of at most kMaxPacket bytes; a bigger payload that still arrives
// is not copied (the request comes with `refused` set). Requests wait in a
// queue of at most RequestBytes, served in turn per identity; when it is
// full the identity holding the most loses its newest request. A response
// topic outside `<ReplyPrefix>/` (or with a wildcard) refuses the request.
//
// Thread safety: every member may be called from any thread; none waits for
// the network. The link must be stopped (or destroyed) before anything its
// callers own goes away. Failures are results: false with a reason.
class ZQ_EXPORT MqttLink {
 public:
  // A command received through the broker.
  struct Request {
    std::string identity;        // the topic's last level after cmd/, or empty
    std::string payload;
    std::string response_topic;  // empty: the requester wants no answer
    std::string correlation;     // opaque bytes, returned as given
    std::string refused;         // set: refused on arrival (why); not to be run
  };
  static constexpr int kMaxPacket = 65536;
  // The link's state and counts so far.
  struct Counters {
    bool connected = false;
    uint64_t connects = 0;       // successful connections so far
    uint64_t queued = 0;         // records waiting (QoS 1), in flight included
    uint64_t queued_bytes = 0;
    uint64_t dropped = 0;        // records dropped because the queue was full
    uint64_t published = 0;      // records the broker acknowledged or took (QoS 0)
    uint64_t requests_dropped = 0;  // requests dropped from a full request queue
  };

  // `settings` must have been Resolve()d; they are copied.
  MqttLink(const MqttSettings& settings, const std::string& station_id);
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  // Sets up TLS and credentials, opens the queue folder and starts
  // connecting in the background. `birth_fields` (JsonFields text) go into
  // every online record. False with the reason when a file cannot be read or
  // libmosquitto refuses an option; an unreachable broker is not a failure,
  // nor a queue file that cannot be written (the link keeps its records in
  // memory and says so through TakeNotice).
  bool Start(const std::string& birth_fields, std::string& error);
  // Publishes "offline", waits at most `wait_ms` for queued records to go
  // out, disconnects and stops the thread.
  void Stop(int wait_ms = 1000);

  // Queues a record on `<prefix>/<topic>` with the settings' QoS (or `qos` 0/1
  // when given). Returns its sequence number.
  uint64_t Publish(const std::string& topic, const std::string& fields, int qos = -1);
  // Sends an answer to a request: its correlation data and `fields`; false
  // when the request has no (acceptable) response topic.
  bool Respond(const Request& request, const std::string& fields);
  // The next waiting request, in turn per identity.
  bool TakeRequest(Request& request);
  // A warning of the link (connection lost or refused, a bad TLS file, a
  // queue file that cannot be written), each reported once until the
  // condition changes. For the program's log.
  bool TakeNotice(std::string& text);
  Counters Read() const;
  const std::string& Prefix() const;
  // The library's version, e.g. "1.0.0".
  static const char* Version();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zqfleet

#endif
