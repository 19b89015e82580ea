// The station's commands, the same on the terminal and for TCP clients.
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>
#include <zqmath/amoeba.h>
#include <zqsecurity/crc16.h>
#include <zqsecurity/crc32.h>
#include <zqsecurity/hash.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>

#include "devices.h"
#include "settings.h"
#include "station.h"
#include "workers.h"

namespace station {

// Every answer line ends with CR LF, as the interpreter's own texts do.
void say(Session& s, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(s.out, format, args);
  va_end(args);
  std::fputs("\r\n", s.out);
}

namespace {

Session& session(void* arg) { return *static_cast<Session*>(arg); }

int usage(Session& s, const char* text) {
  say(s, "usage: %s", text);
  return 1;
}

double us(long long ns) { return static_cast<double>(ns) / 1000.0; }

int cmd_status(void* arg, int, const char**) {
  Session& s = session(arg);
  Station& st = *s.station;
  st.Drain();
  SensorTask& t = st.task;
  say(s, "cycles %lld, period %lld us, cycle length min/avg/max %.1f/%.1f/%.1f us",
      t.CycleCount(), t.CyclePeriod() / 1000, us(t.MinCycleLength()), us(t.AvgCycleLength()),
      us(t.MaxCycleLength()));
  const CycleStats::Snapshot late = t.cycle_stats.Read();
  say(s, "start lateness max %.1f us, %llu overruns (last at cycle %lld)", us(late.lateness_max_ns),
      static_cast<unsigned long long>(late.overruns), late.last_overrun_cycle);
  if (t.overrun.policy() != OverrunGuard::Policy::Off) say(s, "%s", overrun_state(t.overrun).c_str());
  const double run_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - st.started).count();
  const long long behind = t.CycleCount() - st.last.cycle;
  say(s, "running %.1f s; reading %.4f (%.3f s into the sensor's 4 s sweep), %.1f ms old, io 0x%02x, %lld records",
      run_s, st.last.value, st.last.x, static_cast<double>(behind > 0 ? behind : 0) * static_cast<double>(t.CyclePeriod()) / 1e6,
      st.last.io, st.records_seen);
  for (Watch& w : st.watches) {
    const components::Severity sev = w.error;
    say(s, "%s: %s, %u reports now, %u in all", w.name,
        w.error.count != 0 ? sev.Description() : "NONE", w.error.count, w.error.total_count);
  }
  Log& log = st.log;
  say(s, "log: %u panic, %u errors, %u warnings, %u infos, %u debug; file %s, %u bytes, %llu lines lost",
      log.PanicCount(), log.ErrCount(), log.WarnCount(), log.InfoCount(), log.DebugCount(),
      log.Name().c_str(), log.LogSize(), log.WriteFailures());
  const zqpoints::PointTable& pt = st.points->table;
  say(s, "alarms: %d critical, %d high, %d medium, %d low", pt.CountAlarms(zqpoints::Severity::Critical),
      pt.CountAlarms(zqpoints::Severity::High), pt.CountAlarms(zqpoints::Severity::Medium),
      pt.CountAlarms(zqpoints::Severity::Low));
  say(s, "clients %u", st.clients);
  if (!st.access_read.empty()) say(s, "access: %s", st.access_read.c_str());
  const SettingsState& state = settings_state();
  if (!state.realtime_warning.empty()) say(s, "warning: %s", state.realtime_warning.c_str());
  if (!state.restart.empty()) {
    std::string names;
    for (const std::string& n : state.restart) names += (names.empty() ? "" : ", ") + n;
    say(s, "settings waiting for a restart: %s", names.c_str());
  }
  return 0;
}

void show_bit(Session& s, unsigned int bit) {
  say(s, "bit %u = %u", bit, (s.station->last.io >> bit) & 1u);
}

const char kIoUsage[] = "io [get|set|clear|toggle BIT], BIT 0..7 or heater, alarm, inject";

// A bit by number or name; false for anything else.
bool parse_bit(const char* text, unsigned int& bit) {
  for (const auto& named : bit_names()) {
    if (std::strcmp(text, named.first) == 0) {
      bit = named.second;
      return true;
    }
  }
  char* end = nullptr;
  const unsigned long b = std::strtoul(text, &end, 10);
  bit = static_cast<unsigned int>(b);
  return *text != 0 && *end == 0 && b <= 7;
}

int cmd_io(void* arg, int argc, const char** argv) {
  Session& s = session(arg);
  Station& st = *s.station;
  st.Drain();
  if (argc == 1) {
    const unsigned int io = st.last.io;
    say(s, "io 0x%02x: heater %u, alarm %u, inject %u (the task drives heater and alarm every cycle)",
        io, io & 1u, (io >> 1) & 1u, (io >> SensorTask::kInject) & 1u);
    return 0;
  }
  unsigned int b = 0;
  if (argc != 3 || !parse_bit(argv[2], b)) return usage(s, kIoUsage);
  const std::string op = argv[1];
  if (op == "get") {
    show_bit(s, b);
    return 0;
  }
  const char code = op == "set" ? 's' : op == "clear" ? 'c' : op == "toggle" ? 'i' : 0;
  if (code == 0) return usage(s, kIoUsage);
  if (b == SensorTask::kHeater || b == SensorTask::kAlarm) {
    say(s, "io: bit %u (%s) is driven by the sensor task every cycle, so it cannot be changed by hand", b,
        b == SensorTask::kHeater ? "heater, on below Station.Setpoint" : "alarm, on outside the limits");
    return 1;
  }
  if (!st.Command(Format("%c %u", code, b))) {
    say(s, "io: the task is busy, try again");
    return 1;
  }
  st.Settle(5);
  st.log.Add(elog_INFO, 0, "io %s %u by %s", op.c_str(), b, s.peer.c_str());
  show_bit(s, b);
  return 0;
}

int cmd_trace(void* arg, int argc, const char** argv) {
  Session& s = session(arg);
  Station& st = *s.station;
  const std::string op = argc > 1 ? argv[1] : "";
  st.Drain();
  if (op == "start" || op == "stop") {
    for (auto& slot : st.slots) slot.SetActive(op == "start");
    say(s, "trace %s, %u samples", op == "start" ? "started" : "stopped", st.value_trace.Size());
    return 0;
  }
  if (op == "dump") {
    const unsigned int n = st.value_trace.Size();
    for (auto& slot : st.slots) slot.SetFileCount(1);
    // A new dump file is made here without group or world write, whatever
    // the umask (the dump appends to it and keeps its mode).
    const std::string file = st.settings.DumpPath + "/" + st.slots[0].GetFile().c_str();
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
    st.traces.Dump();
    st.value_trace.Clear();
    st.io_trace.Clear();
    say(s, "%u samples dumped to %s/%s", n, st.settings.DumpPath.c_str(), st.slots[0].GetFile().c_str());
    st.log.Add(elog_INFO, 0, "trace dump of %u samples", n);
    return 0;
  }
  return usage(s, "trace start|stop|dump");
}

double curve_model(void*, const CVector<double>& m, const CVector<double>& p) {
  const double x = m(0);
  const double r = p(0) * std::exp(-p(1) * x) + p(2) * x + p(3) - m(1);
  return r * r;
}

int cmd_fit(void* arg, int, const char**) {
  Session& s = session(arg);
  Station& st = *s.station;
  st.Drain();
  if (st.curve.size() < 20) {
    say(s, "fit: only %zu points recorded so far", st.curve.size());
    return 1;
  }
  CMatrix<double> data(static_cast<int>(st.curve.size()), 2);
  int row = 0;
  for (const auto& point : st.curve) {
    data(row, 0) = point.first;
    data(row, 1) = point.second;
    ++row;
  }
  std::srand(1);
  CVector<double> p(4);
  p.clear();
  int evaluations = 0;
  double chi = 0;
  fit(nullptr, data, curve_model, p, &evaluations, &chi);
  say(s, "y = a exp(-b x) + c x + d: a %.4f, b %.4f, c %.4f, d %.4f", p[0], p[1], p[2], p[3]);
  say(s, "%zu points, %d evaluations, mean squared residual %.3g", st.curve.size(), evaluations, chi);
  return 0;
}

// Runs `work` (which answers the command's text) off the main loop for a
// network session at the command prompt: the session's answers wait for it
// while the other sessions go on. Elsewhere, or without workers, it runs here.
int digest(Session& s, std::function<std::string(int&)> work) {
  Station& st = *s.station;
  if (!s.network || s.want_editing || st.workers == nullptr) {
    int rc = 0;
    std::fputs(work(rc).c_str(), s.out);
    return rc;
  }
  auto answer = std::make_shared<PendingAnswer>();
  s.pending = answer;
  s.access.hold_until_ms = std::numeric_limits<long long>::max();  // Gate::Tick ends the wait
  st.workers->Run([answer, work] {
    int rc = 0;
    answer->text = work(rc);
    answer->done.store(true, std::memory_order_release);
  });
  return 0;
}

std::string line(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string line(const char* format, ...) {
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  std::string text(static_cast<size_t>(std::max(0, std::vsnprintf(nullptr, 0, format, args))), '\0');
  va_end(args);
  std::vsnprintf(&text[0], text.size() + 1, format, again);
  va_end(again);
  return text + "\r\n";
}

int cmd_hash(void* arg, int argc, const char** argv) {
  Session& s = session(arg);
  if (argc != 3) return usage(s, "hash METHOD FILE (sha256, md5, ripemd160, crc32, ...)");
  if (ZQSecurity::Hash(argv[1]).GetMethod().empty()) {
    say(s, "hash: unknown method %s", argv[1]);
    return 1;
  }
  const Session copy = s;
  const std::string method = argv[1], name = argv[2];
  return digest(s, [copy, method, name](int& rc) {
    std::string data, why;
    if (!read_file(copy, name, data, why)) {
      rc = 1;
      return line("hash: cannot read %s: %s", name.c_str(), why.c_str());
    }
    ZQSecurity::Hash h(method);
    return line("%s (%s) = %s", method.c_str(), name.c_str(),
                h.mkHashText(data.data(), static_cast<unsigned int>(data.size())).c_str());
  });
}

int cmd_crc(void* arg, int argc, const char** argv) {
  Session& s = session(arg);
  if (argc != 2) return usage(s, "crc FILE");
  const Session copy = s;
  const std::string name = argv[1];
  return digest(s, [copy, name](int& rc) {
    std::string data, why;
    if (!read_file(copy, name, data, why)) {
      rc = 1;
      return line("crc: cannot read %s: %s", name.c_str(), why.c_str());
    }
    const auto n = static_cast<unsigned int>(data.size());
    return line("crc32 (%s) = %08x", name.c_str(), mk_crc32(data.data(), n)) +
           line("crc16 (%s) = %04x", name.c_str(), mk_crc16(data.data(), n) & 0xFFFFu);
  });
}

// Keeps a value set at run time for the next config save; one that takes
// effect only at the next start is listed by status until then.
bool note_setting(const std::string& path, const std::string& value) {
  SettingsState& state = settings_state();
  if (!live_setting(path)) state.restart.insert(path);
  const auto dot = path.find('.');
  return state.save_to == nullptr || state.save_to->Set(path.substr(0, dot), path.substr(dot + 1), value);
}

// Writes the values set with config set, and only those, into the file the
// settings were read from (the local file when there is one).
int save_settings(Session& s) {
  Station& st = *s.station;
  zqcommon::Config_Edit* to = settings_state().save_to.get();
  if (to == nullptr) {
    say(s, "config: no configuration file to save to");
    return 1;
  }
  if (!to->Pending()) {
    say(s, "config: nothing to save, no setting was changed with config set");
    return 0;
  }
  std::string why;
  const zqcommon::Config_Edit::Result r = to->Save(&why);
  if (r == zqcommon::Config_Edit::kConflict || r == zqcommon::Config_Edit::kFailed) {
    st.log.Add(elog_WARN, 0, "config save by %s: %s", s.peer.c_str(), why.c_str());
    say(s, "config: %s", why.c_str());
    return 1;
  }
  st.log.Add(elog_INFO, 0, "configuration saved to %s by %s%s%s", to->Path().c_str(), s.peer.c_str(),
             why.empty() ? "" : ": ", why.c_str());
  if (why.empty()) {
    say(s, "saved %s", to->Path().c_str());
  } else {
    say(s, "saved %s (%s)", to->Path().c_str(), why.c_str());
  }
  return 0;
}

int cmd_config(void* arg, int argc, const char** argv) {
  Session& s = session(arg);
  Station& st = *s.station;
  const std::string op = argc > 1 ? argv[1] : "show";
  if (op == "show" && argc <= 2) {
    for (auto& section : sections(st)) {
      for (auto& entry : *section.second) {
        say(s, "%s.%s = %s", section.first.c_str(), entry.first.c_str(), entry.second.Value().c_str());
      }
    }
    return 0;
  }
  if (op == "describe" && argc <= 3) {  // unit, allowed range and description of each setting
    for (auto& section : sections(st)) {
      for (auto& entry : *section.second) {
        const std::string path = section.first + "." + entry.first;
        if (argc == 3 && !(path ^= argv[2])) continue;
        const std::string allowed = setting_rules().Allowed(path);
        say(s, "%s = %s%s%s; %s%s%s", path.c_str(), entry.second.Value().c_str(),
            entry.second.Unit().empty() ? "" : " ", entry.second.Unit().c_str(),
            allowed.empty() ? "any value" : allowed.c_str(), entry.second.Description().empty() ? "" : "; ",
            entry.second.Description().c_str());
      }
    }
    return 0;
  }
  if (op == "set" && argc >= 4) {
    zqcommon::Config_Data_Entry* e = find_setting(sections(st), argv[2]);
    // Values may contain blanks: the rest of the line is the value.
    std::string value = argv[3];
    for (int i = 4; i < argc; ++i) value += std::string(" ") + argv[i];
    if (e == nullptr) {
      say(s, "config: cannot set %s", argv[2]);
      return 1;
    }
    if (s.network && operator_only(argv[2])) {
      say(s, "config: %s changes only in the file or at the station's terminal", argv[2]);
      return 1;
    }
    const std::string why = settings_checker(sections(st)).Set(argv[2], value);
    if (!why.empty()) {
      say(s, "config: cannot set %s = '%s': %s", argv[2], escape_controls(value).c_str(), why.c_str());
      return 1;
    }
    st.log.Add(elog_INFO, 0, "config %s = %s by %s", argv[2], e->Value().c_str(), s.peer.c_str());
    if (!note_setting(argv[2], e->Value())) {
      say(s, "%s = %s (config save cannot keep this value)", argv[2], e->Value().c_str());
    } else if (!live_setting(argv[2])) {
      say(s, "%s = %s (takes effect at the next start)", argv[2], e->Value().c_str());
    } else {
      say(s, "%s = %s", argv[2], e->Value().c_str());
    }
    return 0;
  }
  if (op == "save" && argc == 2) return save_settings(s);
  return usage(s, "config [show | describe [Section.Key] | set Section.Key VALUE | save]");
}

int cmd_starttls(void* arg, int, const char**) {
  Session& s = session(arg);
  if (!s.network) {
    say(s, "starttls: only for network clients");
    return 1;
  }
  if (s.encrypted || s.want_editing) {  // a second handshake would break the session
    say(s, s.encrypted ? "starttls: TLS is already on" : "starttls: not in editing mode (connect again and use it first)");
    return 1;
  }
  s.want_tls = true;  // the handshake follows this answer
  say(s, "OK starting TLS");
  return 0;
}

}  // namespace

void register_commands(CLI& cli, Session& s) {
  cli.SetAppName("station");
  cli.Register(cmd_status, &s, "status", nullptr, "status: run time, cycle statistics, error records, log counts");
  cli.Register(cmd_io, &s, "io", nullptr, "io [get|set|clear|toggle BIT]: the digital I/O (BIT 0..7 or a name)");
  cli.Register(cmd_trace, &s, "trace", nullptr, "trace start|stop|dump: the sensor trace");
  cli.Register(cmd_fit, &s, "fit", nullptr, "fit: fit the recorded sensor curve");
  cli.Register(cmd_hash, &s, "hash", nullptr, "hash METHOD FILE: a digest of a file");
  cli.Register(cmd_crc, &s, "crc", nullptr, "crc FILE: CRC-32 and CRC-16 of a file");
  cli.Register(cmd_config, &s, "config", nullptr, "config [show|set Section.Key VALUE|save]: the settings");
  cli.Register(cmd_starttls, &s, "starttls", nullptr, "starttls: switch this connection to TLS");
  register_device_commands(cli, s);
  register_point_commands(cli, s);
}

}  // namespace station
