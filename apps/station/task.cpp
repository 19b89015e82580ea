// The periodic task, the value traces and the station's record handling.
#include <pthread.h>
#include <unistd.h>
#include <zqcommon/functions.h>
#include <zqrtm/AcquisitionClock.h>

#include <cmath>
#include <cstring>

#include "fleet.h"
#include "station.h"

namespace station {

StationSettings::StationSettings() {
  Register("PeriodUs", PeriodUs, zqcommon::Config_Data_INIT.FULL, "us", "task period");
  Register("LowLimit", LowLimit, zqcommon::Config_Data_INIT.FULL, "C", "readings below warn");
  Register("HighLimit", HighLimit, zqcommon::Config_Data_INIT.FULL, "C", "readings above warn");
  Register("Setpoint", Setpoint, zqcommon::Config_Data_INIT.FULL, "C", "heater on below");
  Register("Promotion", Promotion, zqcommon::Config_Data_INIT.FULL, "", "warnings that promote");
  Register("DumpPath", DumpPath, zqcommon::Config_Data_INIT.FULL, "", "trace dump folder");
  Register("TraceDepth", TraceDepth, zqcommon::Config_Data_INIT.FULL, "", "samples per trace");
  Register("FitPoints", FitPoints, zqcommon::Config_Data_INIT.FULL, "", "points of the fitted curve");
  Register("UsersFile", UsersFile, zqcommon::Config_Data_INIT.FULL, "", "network users and levels");
  Register("DataDir", DataDir, zqcommon::Config_Data_INIT.FULL, "", "files network clients may read");
  Register("MaxFileBytes", MaxFileBytes, zqcommon::Config_Data_INIT.FULL, "", "largest file read",
           zqcommon::cfg_STORAGE);
  Register("LogLossReportS", LogLossReportS, zqcommon::Config_Data_INIT.FULL, "s",
           "one report of lost log lines per period");
  Register("RealTime", RealTime, zqcommon::Config_Data_INIT.FULL, "", "required or preferred");
  Register("LocalConfig", LocalConfig, zqcommon::Config_Data_INIT.FULL, "", "local settings file");
  Register("OverrunPolicy", OverrunPolicy, zqcommon::Config_Data_INIT.FULL, "",
           "off, count, warn or safe when OverrunLimit overruns fall within OverrunWindowMs");
  Register("OverrunLimit", OverrunLimit, zqcommon::Config_Data_INIT.FULL, "", "overruns that trip the policy");
  Register("OverrunWindowMs", OverrunWindowMs, zqcommon::Config_Data_INIT.FULL, "ms",
           "the window of the overrun policy");
}

ServerSettings::ServerSettings() {
  Register("ListenPort", ListenPort, zqcommon::Config_Data_INIT.FULL, "", "TCP port, 0 any");
  Register("MaxConnections", MaxConnections, zqcommon::Config_Data_INIT.FULL, "", "clients at once");
  Register("Interface", Interface, zqcommon::Config_Data_INIT.FULL, "", "address to listen on");
  Register("ACL", ACL, zqcommon::Config_Data_INIT.FULL, "", "access-list file");
  Register("RequireTLS", RequireTLS, zqcommon::Config_Data_INIT.FULL, "", "TLS before any command");
  // Failed logins count per (address, user): guesses at one name from a
  // local process do not lock out the real admin there; 30 failures within
  // the window lock the whole address.
  access_cfg.login.AddressMaxFailures = 30;
}

// ------------------------------------------------------------------ task

SensorTask::SensorTask(long long period_ns, RecordMailbox& records, rtmailbox& commands)
    : rtthread("SENSOR", period_ns, false, 0, true),
      records_(records),
      commands_(commands),
      io_(sizeof i_, pi_, i_, iand_, ior_, o_, oand_, oor_) {
  std::memset(iand_, 0xFF, sizeof iand_);
  std::memset(oand_, 0xFF, sizeof oand_);
  std::memset(safe_and_, 0xFF, sizeof safe_and_);
  SetSafeBit(kHeater, false);
  SetSafeBit(kAlarm, true);
  io_.AddHandler(board_);
  command_.reserve(commands.msgsize);
}

SensorTask::~SensorTask() { Stop(); }

void SensorTask::SetSafeBit(unsigned int bit, bool on) {
  if (bit >= 8 * sizeof safe_and_) return;
  const unsigned char mask = static_cast<unsigned char>(1u << (bit % 8));
  safe_and_[bit / 8] = static_cast<unsigned char>(on ? safe_and_[bit / 8] | mask : safe_and_[bit / 8] & ~mask);
  safe_or_[bit / 8] = static_cast<unsigned char>(on ? safe_or_[bit / 8] | mask : safe_or_[bit / 8] & ~mask);
}

void SensorTask::Stop() {
  SetCancel();
  WaitFinished(5000);
}

// Runs in the task's thread: its name lets tools (ps -L, top -H, tests) find it.
void SensorTask::start(void*) { pthread_setname_np(pthread_self(), "sensor"); }

// The simulated sensor: a heating curve that restarts every four seconds,
// y = -30 exp(-2 x) + 0.5 x + 50, with a little noise; the inject output
// adds 100 so that the range checks have something to see.
double SensorTask::reading(long long cycle, double& x) {
  x = std::fmod(static_cast<double>(cycle) * static_cast<double>(period) * 1e-9, 4.0);
  noise_ = noise_ * 1103515245u + 12345u;
  const double jitter = (static_cast<double>((noise_ >> 16) & 0x7FFF) / 32767.0 - 0.5) * 0.1;
  double y = -30.0 * std::exp(-2.0 * x) + 0.5 * x + 50.0 + jitter;
  if (o_[0] & (1u << kInject)) y += 100.0;
  return y;
}

void SensorTask::apply(const char* command) {
  char op = 0;
  unsigned int bit = 0;
  if (std::sscanf(command, "%c %u", &op, &bit) != 2) return;
  if (op == 's') io_.SetBit(board_.Id(), bit);
  if (op == 'c') io_.ClearBit(board_.Id(), bit);
  if (op == 'i') io_.InvertBit(board_.Id(), bit);
}

void* SensorTask::rtrun(void*) {
  const uint64_t overruns = cycle_stats.overruns();
  cycle_stats.Observe(*this);
  const bool hold = overrun.Cycle(CycleStart(), cycle_stats.overruns() != overruns);
  io_.ReadAll();  // inputs, mirrored into the outputs
  while (commands_.GetMessage(command_)) apply(command_.c_str());
  double x = 0;
  const long long cycle = CycleCount();
  const long long stamp = AcquisitionClock::Monotonic();  // when the sensor is read
  const double y = reading(cycle, x);
  io_.CopyBit(board_.Id(), kHeater, y < setpoint.load());
  io_.CopyBit(board_.Id(), kAlarm, y < low.load() || y > high.load());
  if (cycle_hook) cycle_hook(i_, o_);
  if (hold) {
    for (size_t i = 0; i < sizeof o_; ++i) o_[i] = static_cast<unsigned char>((o_[i] & safe_and_[i]) | safe_or_[i]);
  }
  io_.WriteAll();
  Record r;
  r.cycle = cycle;
  r.x = x;
  r.value = y;
  r.io = static_cast<unsigned int>(board_.data[0]);
  r.length_ns = CycleLength();
  r.stamp_ns = stamp;
  r.release_ns = CycleRelease();
  r.start_ns = CycleStart();
  r.prev_end_ns = CycleEnd();
  r.overrun = static_cast<unsigned char>((overrun.tripped() ? Record::kTripped : 0) | (hold ? Record::kHolding : 0));
  records_.Put(r);  // a full mailbox drops the record
  return nullptr;
}

// ---------------------------------------------------------------- traces

void ValueTrace::Sample(unsigned int cycle, const components::TIME& t) {
  if (samples_.size() >= depth_ && !samples_.empty()) samples_.pop_front();
  TraceBinarySample s;
  s.cycle = cycle;
  s.systime = t;
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", current_);
  s.data = text;
  samples_.push_back(s);
}

std::string ValueTrace::GetPrintable() {
  return Format("%u samples", static_cast<unsigned int>(samples_.size()));
}

void ValueTrace::GetBinary(std::vector<TraceBinarySample>& out) {
  out.assign(samples_.begin(), samples_.end());
}

// --------------------------------------------------------------- station

Station::Station(Config_File& c, StationSettings& s, ServerSettings& srv, Log_Config_Data& lc,
                 Log& l)
    : cfg(c),
      settings(s),
      server(srv),
      logcfg(lc),
      log(l),
      task(static_cast<long long>(s.PeriodUs) * 1000, records, commands),
      value_trace(static_cast<unsigned int>(s.TraceDepth)),
      io_trace(static_cast<unsigned int>(s.TraceDepth)),
      dump_path(s.DumpPath),
      traces(2, slots, dump_path) {
  OverrunGuard::Policy policy = OverrunGuard::Policy::Off;
  OverrunGuard::ParsePolicy(s.OverrunPolicy, policy);  // checked when the settings were read
  task.overrun.Configure(policy, static_cast<unsigned int>(s.OverrunLimit), s.OverrunWindowMs * 1000000LL);
  points = std::make_unique<StationPoints>(*this);  // restores saved set-points
  for (Watch& w : watches) w.error = settings.Promotion;
  traces.AddTrace(value_trace, "sensor");
  traces.AddTrace(io_trace, "io");
  slots[0].SetFile("sensor-trace.csv");
  slots[1].SetFile("sensor-trace.csv");  // a second column in the same file
  task.low = settings.LowLimit;
  task.high = settings.HighLimit;
  task.setpoint = settings.Setpoint;
}

Station::~Station() {
  task.Stop();
  points->Flush();
}

bool Station::Command(const std::string& text) { return commands.PutMessage(text); }

// Reports a condition to its error record and tells the log when the
// effective severity changes (a warning, its promotion, the all-clear).
void Station::check(Watch& w, bool bad, components::TIME t, double value) {
  using components::Severity;
  if (bad) {
    w.error.Signal(components::WARNING, t);
  } else if (w.error.count != 0) {
    w.error.Set(components::NONE, t);
  }
  const components::eSeverity now =
      bad ? static_cast<components::eSeverity>(static_cast<Severity>(w.error)) : components::NONE;
  if (now == w.reported) return;
  if (now == components::NONE) {
    log.Add(elog_INFO, 0, "%s cleared (last value %.4f)", w.name, value);
  } else {
    log.Add(now == components::PANIC ? elog_PANIC : now >= components::ERROR ? elog_ERROR : elog_WARN,
            static_cast<int>(now),
            "%s: %s after %u reports (value %.4f)", w.name, Severity(now).Description(),
            w.error.count, value);
  }
  w.reported = now;
  if (on_severity) on_severity(w, value);
  if (announce) {
    announce(now == components::NONE ? Format("%s cleared", w.name)
                                     : Format("%s: %s", w.name, Severity(now).Description()));
  }
}

void Station::Drain() {
  task.low = settings.LowLimit;
  task.high = settings.HighLimit;
  task.setpoint = settings.Setpoint;
  Record r;
  const size_t keep = settings.FitPoints > 0 ? static_cast<size_t>(settings.FitPoints) : 1;
  while (records.Get(r)) {
    r.time_us = points->clock.ToUtcUs(r.stamp_ns);
    ++records_seen;
    last = r;
    if (on_record) on_record(r);
    points->OnRecord(r);
    const components::TIME now = static_cast<components::TIME>(r.time_us);  // acquisition time
    check(watches[0], r.value > settings.HighLimit, now, r.value);
    check(watches[1], r.value < settings.LowLimit, now, r.value);
    check(watches[2], r.length_ns > task.CyclePeriod(), now, static_cast<double>(r.length_ns));
    value_trace.Set(r.value);
    io_trace.Set(r.io);
    traces.Sample(static_cast<unsigned int>(r.cycle), now);
    // Every tenth undisturbed reading goes into the curve for the fitter.
    if (r.cycle % 10 == 0 && !(r.io & (1u << SensorTask::kInject))) {
      curve.emplace_back(r.x, r.value);
      while (curve.size() > keep) curve.pop_front();
    }
  }
  points->Poll();
}

void Station::Settle(long long cycles) {
  const long long target = task.CycleCount() + cycles;
  for (int i = 0; i < 500 && task.CycleCount() < target; ++i) usleep(1000);
  usleep(2000);
  Drain();
}

SettingsList sections(StationSettings& settings, ServerSettings& server, Log_Config_Data& logcfg) {
  return {{"Station", &settings}, {"Server", &server}, {"Log", &logcfg},
          {"MQTT", &fleet_settings().mqtt}, {"Metrics", &fleet_settings().metrics},
          {"TLS", &server.access_cfg.tls}, {"Login", &server.access_cfg.login},
          {"Access", &server.access_cfg.access}};
}

zqcommon::Config_Data_Entry* find_setting(const SettingsList& all, const std::string& path) {
  const auto dot = path.find('.');
  if (dot == std::string::npos) return nullptr;
  const std::string section = path.substr(0, dot), key = path.substr(dot + 1);
  for (const auto& s : all) {
    if (!(s.first ^= section)) continue;
    for (auto& entry : *s.second) {
      if (entry.first ^= key) return &entry.second;
    }
  }
  return nullptr;
}

}  // namespace station
