// The station in a fleet: MQTT telemetry and commands, Prometheus metrics.
#include <sys/stat.h>
#include <unistd.h>
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>
#include <zqfleet/FleetCommand.h>
#include <zqfleet/JsonFields.h>
#include <zqfleet/SignedRequest.h>
#include <zqsecurity/hash.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "access.h"
#include "devices.h"
#include "fleet.h"
#include "remote_command.h"

namespace station {

namespace {

using zqfleet::JsonFields;

// "Section.Key=value" lines of every setting, hashed: the birth record's digest.
std::string settings_digest(Station& st) {
  std::string text;
  for (const auto& section : sections(st)) {
    for (auto& entry : *section.second) text += section.first + "." + entry.first + "=" + entry.second.Value() + "\n";
  }
  ZQSecurity::Hash sha("sha256");
  return sha.mkHashText(text.data(), static_cast<unsigned int>(text.size()));
}

std::string station_id() {
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') return "station";
  return host;
}

}  // namespace

MetricsSettings::MetricsSettings() {
  Register("Listen", Listen, zqcommon::Config_Data_INIT.FULL, "", "host:port for Prometheus; empty: off");
}

FleetSettings& fleet_settings() {
  static FleetSettings settings;
  return settings;
}

Fleet::Fleet(Station& st) : st_(st), cfg_(fleet_settings()) {
  level_of = [](const std::string&) { return static_cast<int>(ZQSecurity::kViewer); };
}

Fleet::~Fleet() {
  st_.on_record = nullptr;
  st_.on_severity = nullptr;
  st_.points->on_alarm = nullptr;
  if (link_) link_->Stop();
}

bool Fleet::Start() {
  std::string error;
  if (!metrics_.Start(cfg_.metrics.Listen, error)) {
    std::fprintf(stderr, "station: %s\n", error.c_str());
    st_.log.Add(elog_PANIC, 3, "%s", error.c_str());
    return false;
  }
  metrics_on_ = !cfg_.metrics.Listen.empty();
  if (metrics_on_) {
    std::printf("metrics port %d\r\n", metrics_.Port());
    std::fflush(stdout);
    st_.log.Add(elog_INFO, 0, "metrics on %s, port %d", cfg_.metrics.Listen.c_str(), metrics_.Port());
  }
  if (cfg_.mqtt.Host.empty()) return true;
  id_ = cfg_.mqtt.ClientId.empty() ? station_id() : cfg_.mqtt.ClientId;
  zqfleet::MqttSettings& m = cfg_.mqtt;
  keys_file_ = users_file + ".keys";
  if (m.Commands == "signed" && (users_file.empty() || users_file == "none")) {
    error = "MQTT.Commands = signed needs Station.UsersFile: the signers' levels come from it";
  }
  if (!error.empty() || !m.Resolve(id_, error)) {
    std::fprintf(stderr, "station: %s\n", error.c_str());
    st_.log.Add(elog_PANIC, 3, "%s", error.c_str());
    return false;
  }
  link_ = std::make_unique<zqfleet::MqttLink>(m, id_);
  JsonFields birth;
  birth.Add("version", zqfleet::MqttLink::Version())
      .AddTime("start", GetUTC())
      .Add("settings", settings_digest(st_));
  if (!link_->Start(birth.Text(), error)) {
    std::fprintf(stderr, "station: %s\n", error.c_str());
    st_.log.Add(elog_PANIC, 3, "%s", error.c_str());
    link_.reset();
    return false;
  }
  st_.log.Add(elog_INFO, 0, "MQTT broker %s:%d, topics %s/...", m.Host.c_str(), m.Port, link_->Prefix().c_str());
  if (m.Commands == "off") {
    st_.log.Add(elog_INFO, 0, "MQTT.Commands = off: no command topic subscribed (signed takes signed requests)");
  } else if (m.Commands == "signed") {
    verifier_ = zqfleet::SignedRequest(m.SignedWindowS);
    reload_keys();
  } else {
    st_.log.Add(elog_WARN, 0, "MQTT.Commands = broker: requests trusted to the broker's access list, at most %s",
                m.MaxLevel.c_str());
  }
  st_.on_record = [this](const Record& r) { on_record(r); };
  st_.on_severity = [this](const Watch& w, double value) { on_severity(w, value); };
  st_.points->on_alarm = [this](const zqpoints::AlarmEvent& e) { publish_alarm(e); };
  log_seen_ = st_.log.empty() ? 0 : st_.log.front().time;
  return true;
}

void Fleet::on_record(const Record& r) {
  if (samples_.empty()) batch_start_ = GetUTC();
  char item[80];
  std::snprintf(item, sizeof item, "%s[%lld,%.4f,%u,%lld]", samples_.empty() ? "" : ",", r.cycle, r.value, r.io,
                r.time_us);
  samples_ += item;
}

void Fleet::on_severity(const Watch& w, double value) {
  const components::Severity sev(w.reported);
  link_->Publish("errors", JsonFields()
                               .Add("record", w.name)
                               .Add("severity", w.reported == components::NONE ? "NONE" : sev.Description())
                               .Add("count", w.error.count)
                               .Add("value", value)
                               .Text());
}

// Alarm transitions on their own topic, the time in integer microseconds.
void Fleet::publish_alarm(const zqpoints::AlarmEvent& e) {
  const zqpoints::Point& p = st_.points->table[e.point];
  link_->Publish("alarms", JsonFields()
                               .Add("point", p.name())
                               .Add("unit", p.config().unit)
                               .Add("action", e.action)
                               .Add("from", zqpoints::to_string(e.from))
                               .Add("to", zqpoints::to_string(e.to))
                               .Add("condition", zqpoints::to_string(e.condition))
                               .Add("severity", zqpoints::to_string(e.severity))
                               .Add("value", e.value)
                               .Add("time_us", static_cast<long long>(e.time_us))
                               .Add("user", e.user)
                               .Add("comment", e.comment)
                               .Text());
}

bool Fleet::reload_keys() {
  struct stat info {};
  const bool present = stat(keys_file_.c_str(), &info) == 0;
  const time_t mtime = present ? info.st_mtime : 0;
  const off_t size = present ? info.st_size : -2;
  if (mtime == keys_mtime_ && size == keys_size_) return true;
  keys_mtime_ = mtime;
  keys_size_ = size;
  std::string error;
  if (!present) {
    verifier_ = zqfleet::SignedRequest(cfg_.mqtt.SignedWindowS);
    st_.log.Add(elog_WARN, 0, "MQTT: no command keys in %s yet (station --add-command-key NAME PUBLIC.pem)",
                keys_file_.c_str());
    return false;
  }
  if (!verifier_.LoadKeys(keys_file_, error)) {
    st_.log.Add(elog_WARN, 0, "MQTT: command keys not reloaded: %s", error.c_str());
    return false;
  }
  st_.log.Add(elog_INFO, 0, "MQTT: command keys read from %s", keys_file_.c_str());
  return true;
}

void Fleet::refuse(const zqfleet::MqttLink::Request& req, const std::string& who, int code, const std::string& why) {
  const double now = GetUTC();
  // Once a minute per sender, and at most kRefusalLines a minute in all
  // (a sender's name is only a topic level: a flood may use many).
  constexpr int kRefusalLines = 20;
  if (now - refusal_minute_ >= 60) {
    if (refusals_unlogged_ > 0) st_.log.Add(elog_WARN, 0, "MQTT: %d more refusals not logged", refusals_unlogged_);
    refusal_minute_ = now;
    refusal_lines_ = refusals_unlogged_ = 0;
    refusal_logged_.clear();
  }
  auto seen = refusal_logged_.insert(who);
  if (seen.second && refusal_lines_ < kRefusalLines) {
    ++refusal_lines_;
    st_.log.Add(elog_WARN, 0, "MQTT request from %s refused (%d): %s (further refusals of it unlogged for a minute)",
                escape_controls(who).c_str(), code, escape_controls(why).c_str());
  } else if (seen.second) {
    ++refusals_unlogged_;
  }
  link_->Respond(req, JsonFields().Add("result", code).Add("error", why).Text());
}

int Fleet::level_for(const zqfleet::MqttLink::Request& req, const zqfleet::FleetCommand& cmd, std::string& who) {
  if (cfg_.mqtt.Commands == "signed") {
    std::string error;
    reload_keys();
    if (!verifier_.Verify(cmd, id_, GetUTC(), error)) {
      refuse(req, who, 401, "signature refused: " + error);
      return -1;
    }
    who = cmd.user;
    const int level = level_of ? level_of(cmd.user) : ZQSecurity::kNoAccess;
    if (level == ZQSecurity::kNoAccess) refuse(req, who, 403, "'" + who + "' has no level in the users file");
    return level == ZQSecurity::kNoAccess ? -1 : level;
  }
  // "broker": the access list lets each user publish on its own topic only.
  int level = level_of ? level_of(req.identity) : ZQSecurity::kNoAccess;
  if (level == ZQSecurity::kNoAccess) level = ZQSecurity::kViewer;
  return std::min(level, static_cast<int>(ZQSecurity::UserFile::ParseLevel(cfg_.mqtt.MaxLevel)));
}

void Fleet::serve(const zqfleet::MqttLink::Request& req) {
  zqfleet::FleetCommand cmd;
  std::string error;
  std::string who = req.identity.empty() ? "anonymous" : req.identity;
  if (!req.refused.empty()) return refuse(req, who, 400, req.refused);
  if (!zqfleet::FleetCommand::Parse(req.payload, id_, cmd, error)) return refuse(req, who, 400, error);
  const int level = level_for(req, cmd, who);
  if (level < 0) return;
  RemoteCaller caller;
  caller.user = who;
  caller.peer = "mqtt:" + escape_controls(who);
  caller.level = level;
  caller.log_refusals = false;  // refuse() logs them at a bounded rate
  const RemoteAnswer done = run_remote_command(st_, caller, cmd.line);
  const int result = done.result;
  const std::string& answer = done.output;
  if (result == 403) {
    return refuse(req, who, 403, "not allowed at level " +
                                     std::string(ZQSecurity::UserFile::LevelName(static_cast<ZQSecurity::AccessLevel>(level))) +
                                     ": " + cmd.line);
  }
  link_->Respond(req, JsonFields().Add("result", result).Add("output", answer).Text());
}

void Fleet::publish_status() {
  const SensorTask& t = st_.task;
  const CycleStats::Snapshot c = t.cycle_stats.Read();
  const zqfleet::MqttLink::Counters q = link_->Read();
  Log& log = st_.log;
  JsonFields logs;
  logs.Add("panic", log.PanicCount()).Add("error", log.ErrCount()).Add("warning", log.WarnCount())
      .Add("info", log.InfoCount()).Add("debug", log.DebugCount());
  JsonFields status;
  status.Add("cycles", t.CycleCount())
      .Add("period_us", t.CyclePeriod() / 1000)
      .Add("cycle_min_us", t.MinCycleLength() / 1000.0)
      .Add("cycle_avg_us", t.AvgCycleLength() / 1000.0)
      .Add("cycle_max_us", t.MaxCycleLength() / 1000.0)
      .Add("overruns", static_cast<long long>(c.overruns))
      .Add("last_overrun_cycle", c.last_overrun_cycle)
      .Add("lateness_max_us", c.lateness_max_ns / 1000.0)
      .Add("clients", st_.clients)
      .AddRaw("log", "{" + logs.Text() + "}")
      .Add("queued", static_cast<long long>(q.queued))
      .Add("dropped", static_cast<long long>(q.dropped - dropped_reported_))
      .Add("dropped_total", static_cast<long long>(q.dropped));
  // The overrun policy only where one is set, so other stations publish what they did.
  const OverrunGuard& g = t.overrun;
  if (g.policy() != OverrunGuard::Policy::Off) {
    JsonFields overrun;
    overrun.Add("policy", OverrunGuard::ToString(g.policy()))
        .Add("trips", static_cast<long long>(g.trips()))
        .AddRaw("tripped", g.tripped() ? "true" : "false")
        .AddRaw("outputs_held", g.holding() ? "true" : "false");
    status.AddRaw("overrun", "{" + overrun.Text() + "}");
  }
  link_->Publish("status", status.Text());
  dropped_reported_ = q.dropped;
}

// New log entries whose type is in the mask. The Log keeps its newest
// entries in memory, newest first; those stamped after the last one
// published are new.
void Fleet::publish_log() {
  auto it = st_.log.begin();
  while (it != st_.log.end() && it->time > log_seen_) ++it;
  if (it == st_.log.begin()) return;
  log_seen_ = st_.log.front().time;
  while (it != st_.log.begin()) {
    --it;
    if ((static_cast<unsigned int>(it->type) & cfg_.mqtt.LogMask) == 0) continue;
    link_->Publish("log", JsonFields()
                              .Add("type", std::string(1, Log_Entry::eLogTypeS[it->type]))
                              .Add("number", it->nerr)
                              .AddRaw("logged", Format("%.6f", it->time))  // exact to the microsecond
                              .Add("text", it->text)
                              .Text());
  }
}

void Fleet::update_metrics() {
  zqfleet::FleetMetrics::Figures f;
  f.cycles = st_.task.cycle_stats.Read();
  for (const Watch& w : st_.watches) f.severities.emplace_back(w.name, static_cast<int>(w.reported));
  const zqpoints::PointTable& points = st_.points->table;
  for (size_t i = 0; i < points.size(); ++i) {
    const zqpoints::Point& p = points[i];
    f.points.push_back({p.name(), p.config().unit, p.value(), static_cast<int>(p.state()),
                        static_cast<int>(p.alarm_severity())});
  }
  f.sessions = {{"tcp", st_.clients}, {"mqtt", link_ && link_->Read().connected ? 1 : 0}};
  Log& log = st_.log;
  f.log = {static_cast<unsigned int>(log.PanicCount()), static_cast<unsigned int>(log.ErrCount()),
           static_cast<unsigned int>(log.WarnCount()), static_cast<unsigned int>(log.InfoCount()),
           static_cast<unsigned int>(log.DebugCount())};
  if (link_) f.mqtt = link_->Read();
  metrics_.Update(f);
}

void Fleet::Poll() {
  const double now = GetUTC();
  if (metrics_on_ && now - last_metrics_ >= 1.0) {
    last_metrics_ = now;
    update_metrics();
  }
  if (!link_) return;
  std::string notice;
  while (link_->TakeNotice(notice)) st_.log.Add(elog_WARN, 0, "MQTT: %s", notice.c_str());
  zqfleet::MqttLink::Request req;
  for (int i = 0; i < 16 && link_->TakeRequest(req); ++i) serve(req);
  if (!samples_.empty() && now - batch_start_ >= 0.1) {
    // Each sample: [cycle, sensor reading, io byte, acquisition time in UTC microseconds].
    const zqpoints::Point& sensor = st_.points->table[st_.points->sensor];
    JsonFields batch;
    batch.AddRaw("samples", "[" + samples_ + "]")
        .AddRaw("columns", "[\"cycle\"," + JsonFields::Quote(sensor.name()) + ",\"io\",\"time_us\"]")
        .AddRaw("units", "[\"\"," + JsonFields::Quote(sensor.config().unit) + ",\"\",\"us\"]");
    // With field devices: their values acquired since the previous batch.
    const std::string points = field_devices() ? field_devices()->TakeSamples() : std::string();
    if (!points.empty()) batch.AddRaw("points", points);
    link_->Publish("samples", batch.Text());
    samples_.clear();
  }
  if (now - last_status_ >= cfg_.mqtt.StatusPeriod) {
    last_status_ = now;
    publish_status();
  }
  publish_log();
}

bool CommandKeyOption::Take(int& argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) != "--add-command-key") continue;
    given = true;
    if (i + 2 < argc) {
      name = argv[i + 1];
      pem = argv[i + 2];
    }
    const int words = std::min(3, argc - i);
    for (int j = i; j + words < argc; ++j) argv[j] = argv[j + words];
    argc -= words;
    return true;
  }
  return false;
}

int CommandKeyOption::Handle(const std::string& users_file) {
  if (pem.empty()) {
    std::fprintf(stderr, "station: --add-command-key needs NAME PUBLIC.pem\n");
    return 2;
  }
  const std::string users = users_file.empty() || users_file == "none" ? "station.users" : users_file;
  std::string error;
  if (!zqfleet::SignedRequest::RegisterKey(users + ".keys", name, pem, error)) {
    std::fprintf(stderr, "station: %s\n", error.c_str());
    return 1;
  }
  std::printf("command key of %s added to %s.keys\n", name.c_str(), users.c_str());
  if (ZQSecurity::UserLevel(users, name) == ZQSecurity::kNoAccess) {
    std::printf("note: %s has no level in %s yet (station --passwd %s LEVEL)\n", name.c_str(), users.c_str(),
                name.c_str());
  }
  return 0;
}

}  // namespace station
