// A station's link to an MQTT broker on libmosquitto (MQTT 5).
#include "zqfleet/MqttLink.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "diskqueue.h"
#include "requestqueue.h"
#include "zqfleet/FleetCommand.h"
#include "zqfleet/JsonFields.h"

namespace zqfleet {

namespace {

constexpr int kWindow = 64;  // records handed to libmosquitto at once

std::once_flag g_lib_once;

double utc_now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Every registered setting, by its text.
void copy_settings(MqttSettings& to, const MqttSettings& from) {
  // Config_Data iterates only without const; the entries are only read.
  for (auto& e : const_cast<MqttSettings&>(from)) to.GetEntry(e.first) = e.second.Value();
}

}  // namespace

struct MqttLink::Impl {
  MqttSettings settings;  // only the plain values are used after construction
  std::string station, prefix, birth;
  mosquitto* mosq = nullptr;
  bool loop_started = false;

  mutable std::mutex mu;
  bool connected = false;
  uint64_t session = 0;  // the connection number on the state topic
  std::map<std::string, uint64_t> seq;
  std::deque<zqdetail::QueuedRecord> queue;
  size_t inflight = 0;  // the first `inflight` records of the queue
  uint64_t queued_bytes = 0, dropped = 0, published = 0, connects = 0, next_id = 0;
  zqdetail::DiskQueue disk;
  zqdetail::RequestQueue requests{0};  // sized from the settings once copied
  uint64_t requests_dropped = 0;
  std::deque<std::string> notices;
  std::set<std::string> noticed;  // since the last successful connection

  // ------------------------------------------------ called with `mu` held
  void notice(const std::string& text) {
    // Once until the link connects again; a retry repeats the same texts.
    if (notices.size() >= 256 || !noticed.insert(text).second) return;
    notices.push_back(text);
  }

  std::string envelope(const std::string& fields, uint64_t number) {
    JsonFields head;
    head.Add("station", station).Add("seq", static_cast<long long>(number)).AddTime("time", utc_now());
    std::string text = "{" + head.Text();
    if (!fields.empty()) text += "," + fields;
    return text + "}";
  }

  void set_will() {
    const std::string payload = envelope(JsonFields().Add("state", "offline").Text(), session);
    mosquitto_will_set_v5(mosq, (prefix + "/state").c_str(), static_cast<int>(payload.size()),
                          payload.data(), 1, true, nullptr);
  }

  // A queue file that cannot be written is left: the records stay in memory.
  void disk_failed() {
    notice("cannot write queue file " + disk.Path() + "; keeping the queue in memory");
    disk.Close();
  }

  void forget(size_t index) {
    zqdetail::QueuedRecord& r = queue[index];
    queued_bytes -= r.topic.size() + r.payload.size();
    if (disk.IsOpen() && !disk.Done(r.id)) disk_failed();
    queue.erase(queue.begin() + static_cast<long>(index));
  }

  void compact() {
    if (!queue.empty() && disk.IsOpen() && !disk.MaybeCompact(queue, queued_bytes)) disk_failed();
  }

  void pump() {
    while (connected && inflight < queue.size() && inflight < static_cast<size_t>(kWindow)) {
      zqdetail::QueuedRecord& r = queue[inflight];
      const int rc = mosquitto_publish_v5(mosq, &r.mid, r.topic.c_str(), static_cast<int>(r.payload.size()),
                                          r.payload.data(), 1, false, nullptr);
      // Without a connection libmosquitto keeps the record and sends it
      // after the next CONNACK: it is in flight all the same.
      if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) break;
      ++inflight;
    }
  }

  // ---------------------------------------------- libmosquitto's thread
  static Impl& of(void* p) { return *static_cast<Impl*>(p); }

  static void on_connect(mosquitto* m, void* p, int rc, int, const mosquitto_property*) {
    Impl& self = of(p);
    std::lock_guard<std::mutex> lock(self.mu);
    if (rc != 0) {
      self.notice(std::string("broker refused the connection: ") + mosquitto_reason_string(rc));
      return;
    }
    self.connected = true;
    ++self.connects;
    self.noticed.clear();
    std::string fields = JsonFields().Add("state", "online").Text();
    if (!self.birth.empty()) fields += "," + self.birth;
    const std::string payload = self.envelope(fields, self.session);
    mosquitto_publish_v5(m, nullptr, (self.prefix + "/state").c_str(), static_cast<int>(payload.size()),
                         payload.data(), 1, true, nullptr);
    if (self.settings.Commands != "off") {
      // A retained request would run again at every connection.
      for (const char* topic : {"/cmd", "/cmd/+"}) {
        mosquitto_subscribe_v5(m, nullptr, (self.prefix + topic).c_str(), 1, MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
      }
    }
    // What was in flight when the last connection ended libmosquitto sends
    // again itself (same message ids, in order); the rest follows.
    self.pump();
  }

  static void on_disconnect(mosquitto*, void* p, int rc, const mosquitto_property*) {
    Impl& self = of(p);
    std::lock_guard<std::mutex> lock(self.mu);
    const bool was = self.connected;
    self.connected = false;
    if (was) {
      ++self.session;
      self.set_will();  // the next connection's will carries its number
    }
    if (rc == MOSQ_ERR_KEEPALIVE) {
      self.notice(was ? "the broker stopped answering (keep-alive)" : "the broker did not answer CONNECT");
    } else if (rc != 0 && rc != MOSQ_ERR_TLS) {  // TLS failures come through on_log
      self.notice(std::string("connection to the broker lost: ") + mosquitto_strerror(rc));
    }
  }

  static void on_publish(mosquitto*, void* p, int mid, int reason, const mosquitto_property*) {
    Impl& self = of(p);
    std::lock_guard<std::mutex> lock(self.mu);
    for (size_t i = 0; i < self.inflight; ++i) {
      if (self.queue[i].mid != mid) continue;
      if (reason >= 0x80) self.notice(std::string("broker refused a record: ") + mosquitto_reason_string(reason));
      self.forget(i);
      --self.inflight;
      ++self.published;
      break;
    }
    self.compact();
    self.pump();
  }

  // libmosquitto's own errors (TLS verification, a refused socket): the
  // only report of a failure before CONNACK.
  static void on_log(mosquitto*, void* p, int level, const char* text) {
    if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) == 0 || text == nullptr) return;
    Impl& self = of(p);
    std::lock_guard<std::mutex> lock(self.mu);
    self.notice(text);
  }

  // Whether answers may go to `topic`: under the reply prefix, no wildcard.
  bool reply_allowed(const std::string& topic) const {
    const std::string& p = settings.ReplyPrefix;
    return topic.size() > p.size() + 1 && topic.size() <= 1024 && topic.compare(0, p.size(), p) == 0 &&
           topic[p.size()] == '/' && topic.find_first_of("+#") == std::string::npos;
  }

  static void on_message(mosquitto*, void* p, const mosquitto_message* msg, const mosquitto_property* props) {
    Impl& self = of(p);
    const std::string topic = msg->topic != nullptr ? msg->topic : "";
    if (msg->retain) {
      std::lock_guard<std::mutex> lock(self.mu);
      self.notice("retained request on " + topic + " ignored (remove it from the broker)");
      return;
    }
    Request r;
    const std::string base = self.prefix + "/cmd";
    if (topic.size() > base.size()) r.identity = topic.substr(base.size() + 1);
    char* response = nullptr;
    if (mosquitto_property_read_string(props, MQTT_PROP_RESPONSE_TOPIC, &response, false) != nullptr && response != nullptr) {
      r.response_topic = response;
      std::free(response);
    }
    void* data = nullptr;
    uint16_t len = 0;
    if (mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &data, &len, false) != nullptr && data != nullptr) {
      r.correlation.assign(static_cast<const char*>(data), len);
      std::free(data);
    }
    // Too big a payload is refused here, before a copy of it is made.
    const size_t size = msg->payloadlen > 0 ? static_cast<size_t>(msg->payloadlen) : 0;
    if (!r.response_topic.empty() && !self.reply_allowed(r.response_topic)) {
      r.refused = "response topic outside " + self.settings.ReplyPrefix + "/";
      r.response_topic.clear();
    } else if (size > FleetCommand::kMaxPayload) {
      r.refused = "payload of " + std::to_string(size) + " bytes exceeds " + std::to_string(FleetCommand::kMaxPayload);
    } else if (size > 0) {
      r.payload.assign(static_cast<const char*>(msg->payload), size);
    }
    std::lock_guard<std::mutex> lock(self.mu);
    if (!self.requests.Push(std::move(r))) {
      ++self.requests_dropped;
      self.notice("command requests arrive faster than they are served; the biggest sender's newest dropped");
    }
  }
};

MqttLink::MqttLink(const MqttSettings& settings, const std::string& station_id) : impl_(new Impl) {
  Impl& s = *impl_;
  s.station = station_id;
  s.prefix = settings.TopicPrefix.empty() ? "zq/" + station_id : settings.TopicPrefix;
  copy_settings(s.settings, settings);
  s.requests = zqdetail::RequestQueue(static_cast<uint64_t>(s.settings.RequestBytes));
}

MqttLink::~MqttLink() { Stop(0); }

const char* MqttLink::Version() { return ZQ_FLEET_VERSION; }

const std::string& MqttLink::Prefix() const { return impl_->prefix; }

bool MqttLink::Start(const std::string& birth_fields, std::string& error) {
  Impl& s = *impl_;
  const MqttSettings& c = s.settings;
  std::call_once(g_lib_once, [] { mosquitto_lib_init(); });
  s.birth = birth_fields;
  if (!c.QueueDir.empty()) {
    std::vector<zqdetail::QueuedRecord> pending;
    std::string note;
    if (!s.disk.Open(c.QueueDir, c.ClientId.empty() ? s.station : c.ClientId, s.prefix,
                     static_cast<uint64_t>(c.QueueLimit), pending, note)) {
      note += "; keeping the queue in memory";
    }
    if (!note.empty()) {
      std::lock_guard<std::mutex> lock(s.mu);
      s.notice(note);
    }
    for (auto& r : pending) {
      s.queued_bytes += r.topic.size() + r.payload.size();
      s.next_id = std::max(s.next_id, r.id + 1);
      s.queue.push_back(std::move(r));
    }
  }
  s.mosq = mosquitto_new(c.ClientId.empty() ? s.station.c_str() : c.ClientId.c_str(), true, &s);
  if (s.mosq == nullptr) {
    error = "cannot create an MQTT client";
    return false;
  }
  mosquitto_int_option(s.mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  {
    // The broker sends nothing bigger than this (MQTT 5 Maximum Packet
    // Size). libmosquitto 2.0 has no asynchronous connect that takes
    // CONNECT properties; its synchronous one stores them for every later
    // (re)connect before it checks its arguments, so a call with an invalid
    // port stores them and returns at once.
    mosquitto_property* props = nullptr;
    mosquitto_property_add_int32(&props, MQTT_PROP_MAXIMUM_PACKET_SIZE, kMaxPacket);
    mosquitto_connect_bind_v5(s.mosq, c.Host.c_str(), -1, c.KeepAlive, nullptr, props);
    mosquitto_property_free_all(&props);
  }
  mosquitto_reconnect_delay_set(s.mosq, 1, 30, true);
  if (!c.User.empty()) {
    std::string password;
    if (!c.PasswordFile.empty()) {
      std::ifstream in(c.PasswordFile);
      if (!in || !std::getline(in, password)) {
        error = "cannot read MQTT.PasswordFile " + c.PasswordFile;
        return false;
      }
    }
    mosquitto_username_pw_set(s.mosq, c.User.c_str(), c.PasswordFile.empty() ? nullptr : password.c_str());
  }
  if (!c.CAFile.empty()) {
    const int rc = mosquitto_tls_set(s.mosq, c.CAFile.c_str(), nullptr,
                                     c.CertificateFile.empty() ? nullptr : c.CertificateFile.c_str(),
                                     c.KeyFile.empty() ? nullptr : c.KeyFile.c_str(), nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
      error = "MQTT TLS files (CAFile " + c.CAFile + ", CertificateFile " + c.CertificateFile +
              ", KeyFile " + c.KeyFile + "): " + mosquitto_strerror(rc);
      return false;
    }
  }
  mosquitto_connect_v5_callback_set(s.mosq, &Impl::on_connect);
  mosquitto_disconnect_v5_callback_set(s.mosq, &Impl::on_disconnect);
  mosquitto_publish_v5_callback_set(s.mosq, &Impl::on_publish);
  mosquitto_message_v5_callback_set(s.mosq, &Impl::on_message);
  mosquitto_log_callback_set(s.mosq, &Impl::on_log);
  {
    std::lock_guard<std::mutex> lock(s.mu);
    s.set_will();
  }
  const int rc = mosquitto_connect_bind_async(s.mosq, c.Host.c_str(), c.Port, c.KeepAlive, nullptr);
  // (A TLS failure has been reported in detail through on_log already.)
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_TLS) {
    std::lock_guard<std::mutex> lock(s.mu);
    s.notice("cannot reach the broker at " + c.Host + ":" + std::to_string(c.Port) + ": " +
             mosquitto_strerror(rc) + "; retrying");
  }
  if (mosquitto_loop_start(s.mosq) != MOSQ_ERR_SUCCESS) {
    error = "cannot start the MQTT thread";
    return false;
  }
  s.loop_started = true;
  return true;
}

void MqttLink::Stop(int wait_ms) {
  Impl& s = *impl_;
  if (s.mosq == nullptr) return;
  if (s.loop_started) {
    for (int waited = 0; waited < wait_ms; waited += 10) {
      {
        std::lock_guard<std::mutex> lock(s.mu);
        if (!s.connected || s.queue.empty()) break;
      }
      usleep(10000);
    }
    {
      std::lock_guard<std::mutex> lock(s.mu);
      if (s.connected) {
        const std::string payload = s.envelope(JsonFields().Add("state", "offline").Text(), s.session);
        mosquitto_publish_v5(s.mosq, nullptr, (s.prefix + "/state").c_str(), static_cast<int>(payload.size()),
                             payload.data(), 1, true, nullptr);
      }
    }
    mosquitto_disconnect_v5(s.mosq, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    mosquitto_loop_stop(s.mosq, false);
    s.loop_started = false;
  }
  mosquitto_destroy(s.mosq);
  s.mosq = nullptr;
}

uint64_t MqttLink::Publish(const std::string& topic, const std::string& fields, int qos) {
  Impl& s = *impl_;
  if (qos < 0) qos = s.settings.QoS;
  std::lock_guard<std::mutex> lock(s.mu);
  const uint64_t number = s.seq[topic]++;
  zqdetail::QueuedRecord r;
  r.topic = s.prefix + "/" + topic;
  r.payload = s.envelope(fields, number);
  if (qos == 0) {
    if (s.connected && s.mosq != nullptr &&
        mosquitto_publish_v5(s.mosq, nullptr, r.topic.c_str(), static_cast<int>(r.payload.size()),
                             r.payload.data(), 0, false, nullptr) == MOSQ_ERR_SUCCESS) {
      ++s.published;
    }
    return number;
  }
  r.id = s.next_id++;
  const uint64_t size = r.topic.size() + r.payload.size();
  const uint64_t limit = static_cast<uint64_t>(s.settings.QueueLimit);
  // Full: the oldest records not yet handed to the broker make room, and
  // the file sheds them too while no acknowledgement comes.
  bool made_room = false;
  while (s.queued_bytes + size > limit && s.queue.size() > s.inflight) {
    s.forget(s.inflight);
    ++s.dropped;
    made_room = true;
  }
  if (made_room) s.compact();
  if (s.queued_bytes + size > limit) {
    ++s.dropped;
    return number;
  }
  if (s.disk.IsOpen() && !s.disk.Append(r)) s.disk_failed();
  s.queued_bytes += size;
  s.queue.push_back(std::move(r));
  s.pump();
  return number;
}

bool MqttLink::Respond(const Request& request, const std::string& fields) {
  Impl& s = *impl_;
  if (!s.reply_allowed(request.response_topic) || s.mosq == nullptr) return false;
  mosquitto_property* props = nullptr;
  if (!request.correlation.empty()) {
    mosquitto_property_add_binary(&props, MQTT_PROP_CORRELATION_DATA, request.correlation.data(),
                                  static_cast<uint16_t>(request.correlation.size()));
  }
  std::string payload;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    payload = s.envelope(fields, s.seq["reply"]++);
  }
  const int rc = mosquitto_publish_v5(s.mosq, nullptr, request.response_topic.c_str(),
                                      static_cast<int>(payload.size()), payload.data(), 1, false, props);
  mosquitto_property_free_all(&props);
  return rc == MOSQ_ERR_SUCCESS;
}

bool MqttLink::TakeRequest(Request& request) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->requests.Take(request);
}

bool MqttLink::TakeNotice(std::string& text) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (impl_->notices.empty()) return false;
  text = std::move(impl_->notices.front());
  impl_->notices.pop_front();
  return true;
}

MqttLink::Counters MqttLink::Read() const {
  const Impl& s = *impl_;
  std::lock_guard<std::mutex> lock(s.mu);
  Counters c;
  c.connected = s.connected;
  c.connects = s.connects;
  c.queued = s.queue.size();
  c.queued_bytes = s.queued_bytes;
  c.dropped = s.dropped;
  c.published = s.published;
  c.requests_dropped = s.requests_dropped;
  return c;
}

}  // namespace zqfleet
