// The station in a fleet: MQTT telemetry and commands, Prometheus metrics.
#include <unistd.h>
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>
#include <zqfleet/FleetCommand.h>
#include <zqfleet/JsonFields.h>
#include <zqsecurity/hash.h>

#include <cstdio>
#include <set>

#include "access.h"
#include "fleet.h"

namespace station {

namespace {

using zqfleet::JsonFields;

// Words of a command line, without empty ones.
std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words;
  for (size_t p = 0; p < line.size();) {
    const size_t q = line.find(' ', p);
    const size_t end = q == std::string::npos ? line.size() : q;
    if (end > p) words.push_back(line.substr(p, end - p));
    p = end + 1;
  }
  return words;
}

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
  if (!m.Resolve(id_, error)) {
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

void Fleet::serve(const zqfleet::MqttLink::Request& req) {
  zqfleet::FleetCommand cmd;
  std::string error;
  const std::string who = req.identity.empty() ? "anonymous" : req.identity;
  if (!zqfleet::FleetCommand::Parse(req.payload, id_, cmd, error)) {
    st_.log.Add(elog_WARN, 0, "MQTT request from %s refused: %s", who.c_str(), error.c_str());
    link_->Respond(req, JsonFields().Add("result", 400).Add("error", error).Text());
    return;
  }
  const int level = level_of ? level_of(req.identity) : ZQSecurity::kViewer;
  const std::vector<std::string> words = words_of(cmd.line);
  static const std::set<std::string> never = {"starttls", "login", "exit", "quit"};
  char* text = nullptr;
  size_t size = 0;
  FILE* in = std::fopen("/dev/null", "r");
  FILE* out = open_memstream(&text, &size);
  int result = 500;
  if (in != nullptr && out != nullptr) {
    Session session;
    session.station = &st_;
    session.out = out;
    session.network = true;
    session.peer = "mqtt:" + who;
    CLI cli(in, out, out);
    register_commands(cli, session);
    apply_command_levels(cli);
    cli.SetSessionLevel(level);
    if (words.empty() || never.count(words[0]) != 0 || cli.RequiredLevel(words) > level) {
      st_.log.Add(elog_WARN, 0, "MQTT request from %s refused at level %d: %s", who.c_str(), level,
                  cmd.line.c_str());
      result = 403;
    } else if (cli.find_command(words[0]) == nullptr) {
      st_.log.Add(elog_INFO, 0, "MQTT %s: %s", who.c_str(), cmd.line.c_str());
      std::fprintf(out, "%s: command not found\r\n", words[0].c_str());
      result = 127;
    } else {
      st_.log.Add(elog_INFO, 0, "MQTT %s: %s", who.c_str(), cmd.line.c_str());
      std::string line = cmd.line;
      cli.parse(line);
      result = cli.retcode;
    }
  }
  if (in != nullptr) std::fclose(in);
  if (out != nullptr) std::fclose(out);
  const std::string answer = text != nullptr ? std::string(text, size) : "";
  std::free(text);
  if (result == 403) {
    link_->Respond(req, JsonFields().Add("result", 403).Add("error", "not allowed").Text());
    return;
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
  link_->Publish("status", JsonFields()
                               .Add("cycles", t.CycleCount())
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
                               .Add("dropped_total", static_cast<long long>(q.dropped))
                               .Text());
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
    link_->Publish("samples", JsonFields()
                                  .AddRaw("samples", "[" + samples_ + "]")
                                  .AddRaw("columns", "[\"cycle\"," + JsonFields::Quote(sensor.name()) + ",\"io\",\"time_us\"]")
                                  .AddRaw("units", "[\"\"," + JsonFields::Quote(sensor.config().unit) + ",\"\",\"us\"]")
                                  .Text());
    samples_.clear();
  }
  if (now - last_status_ >= cfg_.mqtt.StatusPeriod) {
    last_status_ = now;
    publish_status();
  }
  publish_log();
}

}  // namespace station
