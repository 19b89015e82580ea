// The station's points and alarms, their journal, the saved set-points, and
// the operator's commands on them.
#include "points.h"

#include <sys/utsname.h>
#include <time.h>
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <nlohmann/json.hpp>

#include "station.h"

namespace station {

using namespace zqpoints;

PointsSettings::PointsSettings() {
  Register("StateFile", StateFile, zqcommon::Config_Data_INIT.FULL, "", "saved set-points and shelving");
  Register("JournalFile", JournalFile, zqcommon::Config_Data_INIT.FULL, "", "SQLite alarm journal");
  Register("JournalRows", JournalRows, zqcommon::Config_Data_INIT.FULL, "", "journal rows kept");
}

namespace {

// The set-points an operator may change and the state file keeps.
const char* const kSaved[] = {"Station.Setpoint", "Station.LowLimit", "Station.HighLimit"};
const char kShelved[] = "Shelved.";

// ISO 8601 UTC to the microsecond: 2026-11-25T19:40:01.123456Z.
std::string iso_time(int64_t us) {
  const time_t s = static_cast<time_t>(us / 1000000);
  tm t;
  gmtime_r(&s, &t);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                static_cast<int>(us % 1000000));
  return text;
}

// The time as cyclictest writes it: "Wed, 25 Nov 2026 20:18:20 +0000".
std::string rfc2822_now() {
  const time_t now = time(nullptr);
  tm t;
  gmtime_r(&now, &t);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &t);
  return text;
}

nlohmann::ordered_json histogram_json(const TaskHistogram& h) {
  nlohmann::ordered_json bins = nlohmann::ordered_json::object();
  for (size_t i = 0; i < h.bins.size(); ++i)
    if (h.bins[i] != 0) bins[std::to_string(i)] = h.bins[i];
  nlohmann::ordered_json t;
  t["histogram"] = bins;
  t["cycles"] = h.cycles;
  t["min"] = h.min_us;
  t["max"] = h.max_us;
  t["avg"] = h.cycles ? std::round(h.sum_us / static_cast<double>(h.cycles) * 100) / 100 : 0.0;
  t["cpu"] = 0;
  t["node"] = 0;
  return t;
}

std::string rest(int argc, const char** argv, int from) {
  std::string text;
  for (int i = from; i < argc; ++i) text += (text.empty() ? "" : " ") + std::string(argv[i]);
  return text;
}

}  // namespace

StationPoints::StationPoints(Station& station) : st(station) {
  settings.Load(st.cfg, "Points");
  std::string error;
  if (table.Load(st.cfg, error) < 0) st.log.Add(elog_ERROR, 0, "points: %s", error.c_str());
  declare_defaults();
  if (!settings.JournalFile.empty() &&
      !journal.Open(settings.JournalFile, settings.JournalRows, error)) {
    st.log.Add(elog_ERROR, 0, "%s", error.c_str());
  }
  if (!settings.StateFile.empty()) {
    autosave = std::make_unique<Autosave>(settings.StateFile, 200);
    restore();
  }
  started_ = rfc2822_now();
  samples_.resize(st.settings.TraceDepth > 0 ? static_cast<size_t>(st.settings.TraceDepth) : 1);
  low_ = st.settings.LowLimit;
  high_ = st.settings.HighLimit;
  setpoint_ = st.settings.Setpoint;
  for (const char* name : {"Setpoint", "LowLimit", "HighLimit"}) {
    PointConfig c;
    c.unit = table[sensor].config().unit;
    c.display_low = table[sensor].config().display_low;
    c.display_high = table[sensor].config().display_high;
    if (set_points.Add(st.settings, "Station", name, c, &error) < 0)
      st.log.Add(elog_ERROR, 0, "points: %s", error.c_str());
  }
  set_points.Sync(clock.NowUtcUs());
  table.SetLimits(sensor, table[sensor].config().lolo, low_, high_, table[sensor].config().hihi,
                  table[sensor].config().deadband);
}

// The sensor and the cycle overrun, unless [Point.sensor] or
// [Point.cycle_overrun] declared them. The sensor's LO and HI limits are
// Station.LowLimit and Station.HighLimit whichever way it was declared.
void StationPoints::declare_defaults() {
  sensor = table.Find("sensor");
  if (sensor < 0) {
    PointConfig c;
    c.name = "sensor";
    c.unit = "\u00b0C";
    c.description = "simulated sensor reading";
    c.guidance = "check the heater and the inject output (io)";
    c.display_low = 0;
    c.display_high = 160;
    c.lo = st.settings.LowLimit;
    c.hi = st.settings.HighLimit;
    c.hihi = 130;
    c.deadband = 0.5;
    c.on_delay_samples = 3;
    c.off_delay_samples = 10;
    sensor = table.Add(c);
  }
  overrun = table.Find("cycle_overrun");
  if (overrun < 0) {
    PointConfig c;
    c.name = "cycle_overrun";
    c.unit = "us";
    c.description = "length of the sensor task's cycle";
    c.guidance = "the machine is loaded or the task needs real-time rights";
    c.display_low = 0;
    c.display_high = 2.0 * st.settings.PeriodUs;
    c.hi = st.settings.PeriodUs;
    c.hi_severity = Severity::Low;
    c.on_delay_samples = 3;      // one late cycle is no alarm
    c.off_delay_us = 1000000;    // on time for a second before it clears
    overrun = table.Add(c);
  }
  const OverrunGuard& guard = st.task.overrun;
  if (guard.policy() < OverrunGuard::Policy::Warn) return;
  overrun_trip = table.Find("overrun_trip");
  if (overrun_trip < 0) {
    const bool safe = guard.policy() == OverrunGuard::Policy::Safe;
    PointConfig c;
    c.name = "overrun_trip";
    c.description = Format("1 while %u overruns within %lld ms trip the overrun policy%s", guard.limit(),
                           guard.window_ns() / 1000000, safe ? " or the outputs are held safe" : "");
    c.guidance = safe ? "outputs are in their safe states; find the load, then: outputs resume"
                      : "the machine is loaded or the task needs real-time rights";
    c.display_low = 0;
    c.display_high = 1;
    c.hi = 0.5;
    c.hi_severity = safe ? Severity::High : Severity::Medium;
    c.latching = true;  // seen even when the overruns stopped by themselves
    overrun_trip = table.Add(c);
  }
}

void StationPoints::restore() {
  std::string note;
  const Autosave::Source from = autosave->Load(note);
  const bool existed = from != Autosave::Source::None || note.find(" missing,") == std::string::npos;
  st.log.Add(from == Autosave::Source::File || !existed ? elog_INFO : elog_WARN, 0, "%s",
             note.c_str());
  if (from == Autosave::Source::Backup || (from == Autosave::Source::None && existed))
    std::fprintf(stderr, "station: %s\n", note.c_str());
  const SettingsList all = sections(st);
  const int64_t now = clock.NowUtcUs();
  for (const auto& v : autosave->values()) {
    if (v.first.compare(0, sizeof kShelved - 1, kShelved) == 0) {
      const int i = table.Find(v.first.substr(sizeof kShelved - 1));
      const int64_t until = std::atoll(v.second.c_str());
      if (i >= 0 && until > now) table.Shelve(i, until, "autosave", "restored at start", now);
      continue;
    }
    zqcommon::Config_Data_Entry* e = find_setting(all, v.first);
    std::string why;
    if (std::find(std::begin(kSaved), std::end(kSaved), v.first) == std::end(kSaved) || !e ||
        !setting_rules().Assign(*e, v.first, v.second, &why)) {
      st.log.Add(elog_WARN, 0, "state file %s: %s = %s not restored %s", settings.StateFile.c_str(),
                 v.first.c_str(), v.second.c_str(), why.c_str());
    }
  }
}

void TaskHistogram::Add(long long ns) {
  const long long us = ns > 0 ? ns / 1000 : 0;
  ++bins[std::min(static_cast<size_t>(us), kBins)];
  min_us = cycles == 0 ? us : std::min(min_us, us);
  max_us = std::max(max_us, us);
  sum_us += static_cast<double>(us);
  ++cycles;
}

void StationPoints::OnRecord(const Record& r) {
  lateness.Add(r.start_ns - r.release_ns);
  if (previous_cycle_ + 1 == r.cycle && r.prev_end_ns > previous_start_ns_)
    execution.Add(r.prev_end_ns - previous_start_ns_);
  previous_cycle_ = r.cycle;
  previous_start_ns_ = r.start_ns;
  if (!samples_.empty()) {
    samples_[next_sample_ % samples_.size()] = r;
    ++next_sample_;
  }
  table.Update(static_cast<size_t>(sensor), r.value, r.time_us);
  table.Update(static_cast<size_t>(overrun), static_cast<double>(r.length_ns) / 1000.0, r.time_us);
  if (overrun_trip >= 0) table.Update(static_cast<size_t>(overrun_trip), r.overrun ? 1 : 0, r.time_us);
}

// Set-points changed by "config set" (or anything else) reach the sensor's
// limits and the state file.
void StationPoints::follow_settings() {
  const StationSettings& s = st.settings;
  if (s.LowLimit != low_ || s.HighLimit != high_) {
    const PointConfig& c = table[sensor].config();
    if (!table.SetLimits(sensor, c.lolo, s.LowLimit, s.HighLimit, c.hihi, c.deadband))
      table.SetLimits(sensor, NAN, s.LowLimit, s.HighLimit, NAN, c.deadband);
    low_ = s.LowLimit;
    high_ = s.HighLimit;
  }
  setpoint_ = s.Setpoint;
  set_points.Sync(clock.NowUtcUs());
  if (!autosave) return;
  const SettingsList all = sections(st);
  for (const char* name : kSaved) {
    if (zqcommon::Config_Data_Entry* e = find_setting(all, name)) autosave->Set(name, e->Value());
  }
}

void StationPoints::Poll() {
  AlarmEvent e;
  while (table.TakeEvent(e)) {
    const Point& p = table[e.point];
    if (journal.is_open() && !journal.Append(e, p.name().c_str()))
      st.log.Add(elog_ERROR, 0, "alarm journal: %s", journal.last_error().c_str());
    st.log.Add(e.to == AlarmState::ActiveUnacked ? elog_WARN : elog_INFO, 0,
               "alarm %s %s: %s -> %s, %s %s, value %.4g %s%s%s%s%s", p.name().c_str(), e.action,
               to_string(e.from), to_string(e.to), to_string(e.condition), to_string(e.severity),
               e.value, p.config().unit.c_str(), e.user[0] ? " by " : "", escape_controls(e.user).c_str(),
               e.comment[0] ? ": " : "", escape_controls(e.comment).c_str());
    if (on_alarm) on_alarm(e);
    if (st.announce && e.user[0] == 0 && (e.to == AlarmState::ActiveUnacked || e.to == AlarmState::Normal)) {
      st.announce(Format("alarm %s %s (%s)", p.name().c_str(),
                         e.to == AlarmState::Normal ? "cleared" : to_string(e.condition),
                         to_string(e.severity)));
    }
  }
  const OverrunGuard& guard = st.task.overrun;
  if (guard.trips() != trips_told_ && guard.policy() >= OverrunGuard::Policy::Warn) {
    st.log.Add(elog_WARN, 0, "cycle overrun policy %s: %u overruns within %lld ms, trip %llu%s",
               OverrunGuard::ToString(guard.policy()), guard.limit(), guard.window_ns() / 1000000,
               static_cast<unsigned long long>(guard.trips()),
               guard.policy() == OverrunGuard::Policy::Safe ? "; outputs held in their safe states" : "");
  }
  trips_told_ = guard.trips();
  const double now = GetUTC();
  if (now - tick_checked_ < 0.25) return;
  tick_checked_ = now;
  follow_settings();
  table.Tick(clock.NowUtcUs());
  clock.MaybeRemeasure();
  if (autosave) {
    for (size_t i = 0; i < table.size(); ++i) {
      const std::string key = kShelved + table[i].name();
      if (table[i].shelved()) autosave->Set(key, std::to_string(table[i].shelved_until_us()));
      else autosave->Erase(key);
    }
    // A failing save is retried every poll and logged once until one succeeds.
    const bool saved = autosave->Poll();
    if (!saved && !save_failed_)
      st.log.Add(elog_ERROR, 0, "cannot save %s: %s", settings.StateFile.c_str(), std::strerror(errno));
    if (saved && save_failed_) st.log.Add(elog_INFO, 0, "%s saved again", settings.StateFile.c_str());
    save_failed_ = !saved;
  }
}

void StationPoints::Flush() {
  tick_checked_ = 0;
  Poll();
  if (autosave) autosave->Flush();
}

bool StationPoints::WriteTimingJson(const std::string& path) const {
  utsname u{};
  uname(&u);
  nlohmann::ordered_json j;
  j["file_version"] = 1;
  j["cmdline:"] = "station";  // cyclictest writes these two keys with the colon
  j["rt_test_version:"] = "station";
  j["start_time"] = started_;
  j["end_time"] = rfc2822_now();
  j["return_code"] = 0;
  j["sysinfo"] = {{"sysname", u.sysname}, {"nodename", u.nodename}, {"release", u.release},
                  {"version", u.version}, {"machine", u.machine}, {"realtime", 0}};
  j["num_threads"] = 1;
  j["resolution_in_ns"] = 0;
  j["thread"] = {{"0", histogram_json(lateness)}};
  j["execution"] = {{"0", histogram_json(execution)}};
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  const std::string text = j.dump(2) + "\n";
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

long StationPoints::WriteCsv(const std::string& path) const {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return -1;
  std::fprintf(f, "time (UTC),cycle,%s (%s),io,%s (%s)\n", table[sensor].name().c_str(),
               table[sensor].config().unit.c_str(), table[overrun].name().c_str(),
               table[overrun].config().unit.c_str());
  const size_t n = std::min(next_sample_, samples_.size());
  for (size_t k = next_sample_ - n; k < next_sample_; ++k) {
    const Record& r = samples_[k % samples_.size()];
    std::fprintf(f, "%s,%lld,%.4f,0x%02x,%.3f\n", iso_time(r.time_us).c_str(), r.cycle, r.value, r.io,
                 static_cast<double>(r.length_ns) / 1000.0);
  }
  return std::fclose(f) == 0 ? static_cast<long>(n) : -1;
}

std::string StationPoints::user_of(const Session& s) {
  if (!s.access.user.empty()) return s.access.user;
  return s.peer.empty() ? "terminal" : s.peer;
}

// ------------------------------------------------------------- commands

namespace {

StationPoints& points_of(void* arg) { return *static_cast<Session*>(arg)->station->points; }
Session& session_of(void* arg) { return *static_cast<Session*>(arg); }

std::string describe(const Point& p, int64_t now_us) {
  std::string text = Format("%s = %.4g %s, %s", p.name().c_str(), p.value(), p.config().unit.c_str(),
                            to_string(p.quality()));
  text += p.time_us() ? Format(", age %.3f s", (now_us - p.time_us()) / 1e6) : std::string(", no value yet");
  text += Format(", %s", to_string(p.state()));
  if (p.condition() != Condition::Normal)
    text += Format(" (%s %s)", to_string(p.condition()), to_string(p.severity()));
  if (p.shelved()) text += ", shelved until " + iso_time(p.shelved_until_us());
  if (p.disabled()) text += ", disabled";
  return text;
}

int cmd_points(void* arg, int, const char**) {
  Session& s = session_of(arg);
  s.station->Drain();
  StationPoints& sp = points_of(arg);
  const int64_t now = sp.clock.NowUtcUs();
  for (size_t i = 0; i < sp.table.size(); ++i) {
    const Point& p = sp.table[i];
    const PointConfig& c = p.config();
    say(s, "%s", describe(p, now).c_str());
    say(s, "  %s; range %g..%g %s; limits LOLO %g LO %g HI %g HIHI %g, deadband %g",
        c.description.c_str(), c.display_low, c.display_high, c.unit.c_str(), c.lolo, c.lo, c.hi,
        c.hihi, c.deadband);
  }
  return 0;
}

// Unacknowledged first (active before returned), then by severity.
int urgency(const Point& p) {
  const int state = p.state() == AlarmState::ActiveUnacked ? 0
                    : p.state() == AlarmState::ReturnedUnacked ? 1 : 2;
  return state * 10 + (4 - static_cast<int>(p.alarm_severity()));
}

int cmd_alarms(void* arg, int, const char**) {
  Session& s = session_of(arg);
  s.station->Drain();
  StationPoints& sp = points_of(arg);
  std::vector<const Point*> list;
  for (size_t i = 0; i < sp.table.size(); ++i) {
    const Point& p = sp.table[i];
    if (p.state() != AlarmState::Normal || p.shelved() || p.disabled()) list.push_back(&p);
  }
  std::stable_sort(list.begin(), list.end(),
                   [](const Point* a, const Point* b) { return urgency(*a) < urgency(*b); });
  const int64_t now = sp.clock.NowUtcUs();
  for (const Point* p : list) {
    say(s, "%s", describe(*p, now).c_str());
    if (p->state() != AlarmState::Normal && !p->config().guidance.empty())
      say(s, "  guidance: %s", p->config().guidance.c_str());
  }
  say(s, "%zu alarms: %d critical, %d high, %d medium, %d low", list.size(),
      sp.table.CountAlarms(Severity::Critical), sp.table.CountAlarms(Severity::High),
      sp.table.CountAlarms(Severity::Medium), sp.table.CountAlarms(Severity::Low));
  return 0;
}

int cmd_ack(void* arg, int argc, const char** argv) {
  Session& s = session_of(arg);
  if (argc < 2) {
    say(s, "usage: ack NAME|all [comment]");
    return 1;
  }
  s.station->Drain();
  StationPoints& sp = points_of(arg);
  const std::string user = StationPoints::user_of(s), comment = rest(argc, argv, 2);
  const int64_t now = sp.clock.NowUtcUs();
  int n = 0;
  if (std::string(argv[1]) == "all") {
    n = sp.table.AcknowledgeAll(user, comment, now);
  } else {
    const int i = sp.table.Find(argv[1]);
    if (i < 0) {
      say(s, "ack: no point %s", argv[1]);
      return 1;
    }
    n = sp.table.Acknowledge(i, user, comment, now);
  }
  sp.Poll();
  say(s, "%d alarm%s acknowledged", n, n == 1 ? "" : "s");
  return 0;
}

int cmd_shelve(void* arg, int argc, const char** argv) {
  Session& s = session_of(arg);
  char* end = nullptr;
  const double minutes = argc >= 3 ? std::strtod(argv[2], &end) : -1;
  if (argc < 3 || *end != 0 || !(minutes >= 0 && minutes <= 1440)) {
    say(s, "usage: shelve NAME MINUTES [comment] (MINUTES 0..1440, 0 ends the shelving)");
    return 1;
  }
  StationPoints& sp = points_of(arg);
  const int i = sp.table.Find(argv[1]);
  if (i < 0) {
    say(s, "shelve: no point %s", argv[1]);
    return 1;
  }
  const int64_t now = sp.clock.NowUtcUs();
  const int64_t until = minutes > 0 ? now + static_cast<int64_t>(minutes * 60e6) : 0;
  sp.table.Shelve(i, until, StationPoints::user_of(s), rest(argc, argv, 3), now);
  sp.Flush();
  if (until) say(s, "%s shelved until %s", sp.table[i].name().c_str(), iso_time(until).c_str());
  else say(s, "%s no longer shelved", sp.table[i].name().c_str());
  return 0;
}

int cmd_disable(void* arg, int argc, const char** argv) {
  Session& s = session_of(arg);
  const bool off = std::string(argv[0]) == "disable";
  if (argc < 2) {
    say(s, "usage: %s NAME [comment]", argv[0]);
    return 1;
  }
  StationPoints& sp = points_of(arg);
  const int i = sp.table.Find(argv[1]);
  if (i < 0) {
    say(s, "%s: no point %s", argv[0], argv[1]);
    return 1;
  }
  sp.table.Disable(i, off, StationPoints::user_of(s), rest(argc, argv, 2), sp.clock.NowUtcUs());
  sp.Poll();
  say(s, "%s alarm %s", sp.table[i].name().c_str(), off ? "disabled" : "enabled");
  return 0;
}

// SINCE: seconds since the epoch, an age like 30s, 10m, 2h, 1d, or an
// ISO 8601 UTC time (2026-11-25T19:00:00Z, seconds optional).
bool parse_since(const std::string& text, int64_t now_us, int64_t& out) {
  char* end = nullptr;
  const double n = std::strtod(text.c_str(), &end);
  constexpr double kLatest = 4e11;  // seconds: beyond the year 9999, refused
  if (end != text.c_str() && n >= 0) {
    const std::string unit = end;
    const double scale = unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86400 : 0;
    if (scale != 0 && n * scale < kLatest) return out = now_us - static_cast<int64_t>(n * scale * 1e6), true;
    if (unit.empty() && n < kLatest) return out = static_cast<int64_t>(n * 1e6), true;
  }
  tm t{};
  int sec = 0;
  const int fields = std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                                 &t.tm_hour, &t.tm_min, &sec);
  if (fields < 5 || t.tm_year < 1970 || t.tm_year > 9999) return false;
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  t.tm_sec = fields == 6 ? sec : 0;
  out = static_cast<int64_t>(timegm(&t)) * 1000000;
  return true;
}

int cmd_history(void* arg, int argc, const char** argv) {
  Session& s = session_of(arg);
  StationPoints& sp = points_of(arg);
  sp.Poll();
  if (!sp.journal.is_open()) {
    say(s, "alarm-history: no journal (Points.JournalFile is not set)");
    return 1;
  }
  const int64_t now = sp.clock.NowUtcUs();
  int64_t since = now - 86400LL * 1000000;
  if (argc > 2 || (argc == 2 && !parse_since(argv[1], now, since))) {
    say(s, "usage: alarm-history [SINCE] (SINCE: 30s, 10m, 2h, 1d, epoch seconds or 2026-11-25T19:00:00Z)");
    return 1;
  }
  const auto rows = sp.journal.Query(since, INT64_MAX, 200);
  for (const auto& r : rows) {
    say(s, "%s %s %s %s -> %s, %s %s, value %.4g%s%s%s%s", iso_time(r.time_us).c_str(), r.point.c_str(),
        r.action.c_str(), r.from.c_str(), r.to.c_str(), r.condition.c_str(), r.severity.c_str(), r.value,
        r.user.empty() ? "" : " by ", r.user.c_str(), r.comment.empty() ? "" : ": ", r.comment.c_str());
  }
  say(s, "%zu entries since %s", rows.size(), iso_time(since).c_str());
  return 0;
}

// Writes DumpPath/NAME through `write` (the number of items, -1 on failure)
// and says how many `items` went there, or why none did.
int dump(void* arg, const char* command, const char* name, const char* items,
         const std::function<long(const std::string&)>& write) {
  Session& s = session_of(arg);
  s.station->Drain();
  const std::string path = s.station->settings.DumpPath + "/" + name;
  const long n = write(path);
  if (n < 0) {
    say(s, "%s: cannot write %s: %s", command, path.c_str(), std::strerror(errno));
    return 1;
  }
  say(s, "%ld %s written to %s", n, items, path.c_str());
  return 0;
}

int cmd_csv(void* arg, int, const char**) {
  return dump(arg, "trace-csv", "sensor-samples.csv", "samples",
              [arg](const std::string& path) { return points_of(arg).WriteCsv(path); });
}

int cmd_timing(void* arg, int, const char**) {
  StationPoints& sp = points_of(arg);
  return dump(arg, "timing-json", "task-timing.json", "cycles", [&sp](const std::string& path) {
    return sp.WriteTimingJson(path) ? static_cast<long>(sp.lateness.cycles) : -1L;
  });
}

}  // namespace

std::string overrun_state(const OverrunGuard& g) {
  return Format("overrun policy %s: %u overruns within %lld ms trip it; %llu trips; %s; outputs %s",
                OverrunGuard::ToString(g.policy()), g.limit(), g.window_ns() / 1000000,
                static_cast<unsigned long long>(g.trips()), g.tripped() ? "tripped" : "not tripped",
                g.holding() ? "held in their safe states (outputs resume releases them)" : "driven by the task");
}

namespace {

// outputs: the overrun policy's state; outputs resume: release outputs held safe.
int cmd_outputs(void* arg, int argc, const char** argv) {
  Session& s = session_of(arg);
  OverrunGuard& g = s.station->task.overrun;
  const bool resume = argc == 2 && std::string(argv[1]) == "resume";
  if (argc != 1 && !resume) {
    say(s, "usage: outputs [resume]");
    return 1;
  }
  if (resume && g.holding()) {
    g.Resume();
    s.station->Settle(3);
    if (g.holding()) {
      say(s, "outputs: still held: the task overran within the last %lld ms", g.window_ns() / 1000000);
      return 1;
    }
    s.station->log.Add(elog_WARN, 0, "outputs resumed by %s", escape_controls(StationPoints::user_of(s)).c_str());
  }
  say(s, "%s", overrun_state(g).c_str());
  return 0;
}

}  // namespace

void register_point_commands(CLI& cli, Session& s) {
  cli.Register(cmd_outputs, &s, "outputs", nullptr,
               "outputs [resume]: the overrun policy; resume releases outputs held in their safe states");
  cli.Register(cmd_points, &s, "points", nullptr, "points: value, unit, quality, age and alarm state of each point");
  cli.Register(cmd_alarms, &s, "alarms", nullptr, "alarms: present alarms, unacknowledged first");
  cli.Register(cmd_ack, &s, "ack", nullptr, "ack NAME|all [comment]: acknowledge alarms");
  cli.Register(cmd_shelve, &s, "shelve", nullptr, "shelve NAME MINUTES [comment]: hide an alarm for a time");
  cli.Register(cmd_disable, &s, "disable", nullptr, "disable NAME [comment]: switch an alarm off");
  cli.Register(cmd_disable, &s, "enable", nullptr, "enable NAME [comment]: switch an alarm on again");
  cli.Register(cmd_csv, &s, "trace-csv", nullptr, "trace-csv: the newest samples with acquisition times as CSV");
  cli.Register(cmd_timing, &s, "timing-json", nullptr,
               "timing-json: start lateness and run time histograms of the task, as cyclictest --json writes");
  cli.Register(cmd_history, &s, "alarm-history", nullptr, "alarm-history [SINCE]: the alarm journal");
}

}  // namespace station
