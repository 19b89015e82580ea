// A station's metrics for Prometheus.
#include "zqfleet/FleetMetrics.h"

#include <dirent.h>
#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <map>

namespace zqfleet {

namespace {

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

int open_fds() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int n = 0;
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
  closedir(dir);
  return n - 1;  // the listing's own descriptor
}

double resident_bytes() {
  long pages = 0, resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  const int n = std::fscanf(f, "%ld %ld", &pages, &resident);
  std::fclose(f);
  return n == 2 ? static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) : 0;
}

// A counter that follows a running total kept elsewhere.
void advance(prometheus::Counter& c, double total) {
  if (total > c.Value()) c.Increment(total - c.Value());
}

}  // namespace

struct FleetMetrics::Impl {
  std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();
  std::unique_ptr<prometheus::Exposer> exposer;
  int port = 0;
  CycleStats::Snapshot last;

  prometheus::Family<prometheus::Histogram>& lateness =
      prometheus::BuildHistogram().Name("zq_cycle_lateness_seconds").Help("how late each task cycle started").Register(*registry);
  prometheus::Histogram& hist = lateness.Add({}, [] {
    prometheus::Histogram::BucketBoundaries b;
    for (long long ns : CycleStats::kBoundNs) b.push_back(static_cast<double>(ns) * 1e-9);
    return b;
  }());
  prometheus::Counter& overruns = prometheus::BuildCounter().Name("zq_cycle_overruns_total").Help("task cycles that overran").Register(*registry).Add({});
  prometheus::Family<prometheus::Gauge>& severity = prometheus::BuildGauge().Name("zq_error_severity").Help("error record severity (0 none)").Register(*registry);
  prometheus::Family<prometheus::Gauge>& sessions = prometheus::BuildGauge().Name("zq_sessions").Help("open operator sessions").Register(*registry);
  prometheus::Family<prometheus::Counter>& log = prometheus::BuildCounter().Name("zq_log_entries_total").Help("log entries by type").Register(*registry);
  prometheus::Gauge& connected = prometheus::BuildGauge().Name("zq_mqtt_connected").Help("1 while connected to the broker").Register(*registry).Add({});
  prometheus::Gauge& queue_records = prometheus::BuildGauge().Name("zq_mqtt_queue_records").Help("records waiting for the broker").Register(*registry).Add({});
  prometheus::Gauge& queue_bytes = prometheus::BuildGauge().Name("zq_mqtt_queue_bytes").Help("bytes waiting for the broker").Register(*registry).Add({});
  prometheus::Counter& dropped = prometheus::BuildCounter().Name("zq_mqtt_dropped_total").Help("records dropped from a full queue").Register(*registry).Add({});
  prometheus::Counter& cpu = prometheus::BuildCounter().Name("process_cpu_seconds_total").Help("user and system CPU time").Register(*registry).Add({});
  prometheus::Gauge& rss = prometheus::BuildGauge().Name("process_resident_memory_bytes").Help("resident memory").Register(*registry).Add({});
  prometheus::Gauge& fds = prometheus::BuildGauge().Name("process_open_fds").Help("open descriptors").Register(*registry).Add({});
  prometheus::Family<prometheus::Gauge>& point_value = prometheus::BuildGauge().Name("zq_point_value").Help("process point value, in the unit its unit label names").Register(*registry);
  prometheus::Family<prometheus::Gauge>& point_state = prometheus::BuildGauge().Name("zq_point_alarm_state").Help("alarm state: 0 normal, 1 active unacknowledged, 2 active acknowledged, 3 returned unacknowledged").Register(*registry);
  prometheus::Family<prometheus::Gauge>& point_severity = prometheus::BuildGauge().Name("zq_point_alarm_severity").Help("alarm severity: 0 none, 1 low, 2 medium, 3 high, 4 critical").Register(*registry);
  prometheus::Gauge& build_info = prometheus::BuildGauge().Name("zq_build_info").Help("the library's version, always 1").Register(*registry).Add({{"version", ZQ_FLEET_VERSION}});
  prometheus::Gauge& start = prometheus::BuildGauge().Name("process_start_time_seconds").Help("start of the metrics, seconds since 1970").Register(*registry).Add({});
};

FleetMetrics::FleetMetrics() : impl_(new Impl) {
  impl_->start.SetToCurrentTime();
  impl_->build_info.Set(1);
}

FleetMetrics::~FleetMetrics() = default;

bool FleetMetrics::Start(const std::string& listen, std::string& error) {
  if (listen.empty()) return true;
  try {
    // Several workers, each request given a short time to arrive, and few
    // connections waiting for a worker: one slow or idle client cannot stop
    // the scrapes (civetweb's options, passed through).
    impl_->exposer = std::make_unique<prometheus::Exposer>(std::vector<std::string>{
        "listening_ports", listen, "num_threads", "4", "request_timeout_ms", "5000",
        "connection_queue", "16", "listen_backlog", "16", "enable_keep_alive", "no"});
    impl_->exposer->RegisterCollectable(impl_->registry);
    const auto ports = impl_->exposer->GetListeningPorts();
    impl_->port = ports.empty() ? 0 : ports.front();
  } catch (const std::exception& e) {
    error = "cannot serve metrics on " + listen + ": " + e.what();
    impl_->exposer.reset();
    return false;
  }
  return true;
}

int FleetMetrics::Port() const { return impl_->port; }

void FleetMetrics::Update(const Figures& f) {
  Impl& m = *impl_;
  std::vector<double> increments;
  double sum = 0;
  for (size_t i = 0; i < f.cycles.buckets.size(); ++i) {
    const uint64_t now = f.cycles.buckets[i], before = m.last.buckets[i];
    increments.push_back(now >= before ? static_cast<double>(now - before) : static_cast<double>(now));
  }
  if (f.cycles.lateness_sum_ns >= m.last.lateness_sum_ns) sum = static_cast<double>(f.cycles.lateness_sum_ns - m.last.lateness_sum_ns) * 1e-9;
  m.hist.ObserveMultiple(increments, sum);
  m.last = f.cycles;
  advance(m.overruns, static_cast<double>(f.cycles.overruns));
  for (const auto& s : f.severities) m.severity.Add({{"record", s.first}}).Set(s.second);
  for (const auto& s : f.sessions) m.sessions.Add({{"kind", s.first}}).Set(s.second);
  for (const auto& p : f.points) {
    m.point_value.Add({{"point", p.name}, {"unit", p.unit}}).Set(p.value);
    m.point_state.Add({{"point", p.name}}).Set(p.alarm_state);
    m.point_severity.Add({{"point", p.name}}).Set(p.severity);
  }
  static const char* const kTypes[] = {"panic", "error", "warning", "info", "debug"};
  for (size_t i = 0; i < f.log.size(); ++i) advance(m.log.Add({{"type", kTypes[i]}}), f.log[i]);
  m.connected.Set(f.mqtt.connected ? 1 : 0);
  m.queue_records.Set(static_cast<double>(f.mqtt.queued));
  m.queue_bytes.Set(static_cast<double>(f.mqtt.queued_bytes));
  advance(m.dropped, static_cast<double>(f.mqtt.dropped));
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  advance(m.cpu, seconds(ru.ru_utime) + seconds(ru.ru_stime));
  m.rss.Set(resident_bytes());
  m.fds.Set(open_fds());
}

}  // namespace zqfleet
