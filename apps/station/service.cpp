// The station as a system service: command line, service-manager
// notifications, reload on SIGHUP, log retention.
#include "service.h"

#include "fleet.h"
#include "settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <sys/socket.h>
#include <zqcommon/connserv.h>
#include <zqcommon/functions.h>
#include <zqcommon/library_info.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef ZQ_STATION_VERSION
#define ZQ_STATION_VERSION "unknown"
#endif

namespace station {

namespace {

const char kArgline[] = "@@Argline";

double seconds_now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Why `path` cannot serve as a configuration file, or "" when it can.
std::string unreadable(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  struct stat st {};
  const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  close(fd);
  return regular ? "" : "not a regular file";
}

}  // namespace

int service_command_line(Config_File& cfg, const std::string& default_file) {
  const std::string version = cfg.get_entry(kArgline, "show_version", "");
  if (!version.empty() && version != "0") {
    // The library's lines come from the library loaded now, not the headers.
    std::printf("station %s\n", ZQ_STATION_VERSION);
    for (const char* const* line = zqcommon_LIBRARYINFO; *line != nullptr; ++line) std::printf("%s\n", *line);
    return 0;
  }
  std::string name = cfg.get_entry(kArgline, "config_file", "");
  if (name.empty()) name = default_file;
  const std::string why = unreadable(name);
  if (!why.empty()) {
    if (name == default_file && errno == ENOENT) {
      std::fprintf(stderr, "station: warning: no %s here, running on the built-in defaults\n", name.c_str());
      return -1;
    }
    std::fprintf(stderr, "station: cannot read the configuration file %s: %s\n", name.c_str(), why.c_str());
    return 2;
  }
  cfg.open_argfile(default_file);
  return -1;
}

bool adopt_activated_socket(Connection_Server& srv) {
  if (sd_listen_fds(1) != 1 || sd_is_socket(SD_LISTEN_FDS_START, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
    return false;
  }
  srv.Stop();
  srv.sock = SD_LISTEN_FDS_START;
  srv.issetup = srv.isactive = true;
  return true;
}

// ------------------------------------------------------------- notifier

ServiceNotifier::ServiceNotifier() {
  uint64_t usec = 0;
  if (sd_watchdog_enabled(0, &usec) > 0 && usec > 0) half_period_ = static_cast<double>(usec) / 2e6;
}

void ServiceNotifier::Send(const std::string& state) { sd_notify(0, state.c_str()); }

int ServiceNotifier::Tick(long long cycles, const std::string& status) {
  const double now = seconds_now();
  if (now >= next_status_) {
    next_status_ = now + 2.0;
    Send("STATUS=" + status);
  }
  if (half_period_ <= 0 || now < next_ping_) return 0;
  next_ping_ = now + half_period_;
  const bool advanced = cycles != last_cycles_;
  last_cycles_ = cycles;
  if (advanced) {
    Send("WATCHDOG=1");
    const int was = stalled_ ? -1 : 0;
    stalled_ = false;
    return was;
  }
  const int now_stalled = stalled_ ? 0 : 1;
  stalled_ = true;
  return now_stalled;
}

// --------------------------------------------------------------- service

Service::Service(Config_File& cfg, SettingsList running, LogRetention_Config_Data& retention, Log& log)
    : cfg_(cfg), running_(std::move(running)), log_(log), retention_(log, retention) {
  const int removed = retention_.Apply();
  if (removed > 0) log_.Add(elog_INFO, 0, "log retention: %d old log file(s) removed", removed);
}

std::string Service::status(Station& st) const {
  const Watch* worst = nullptr;
  components::eSeverity level = components::NONE;
  for (const Watch& w : st.watches) {
    const components::eSeverity s = static_cast<components::Severity>(w.error);
    if (w.error.count != 0 && s > level) {
      level = s;
      worst = &w;
    }
  }
  std::string text = Format("cycles %lld, clients %u, ", st.task.CycleCount(), st.clients);
  if (worst == nullptr) return text + "no error records";
  const components::Severity sev = worst->error;
  return text + Format("worst %s %s (%u)", worst->name, sev.Description(), worst->error.count);
}

void Service::Ready(Station& st) {
  notifier_.Send("READY=1");
  notifier_.Send("STATUS=" + status(st));
  if (notifier_.Watchdog()) log_.Add(elog_INFO, 0, "watchdog pings while the sensor task runs");
}

void Service::Tick(Station& st) {
  const int stall = notifier_.Tick(st.task.CycleCount(), status(st));
  if (stall > 0) {
    log_.Add(elog_ERROR, 3, "the sensor task is stalled at cycle %lld: no watchdog pings",
             st.task.CycleCount());
  } else if (stall < 0) {
    log_.Add(elog_INFO, 0, "the sensor task runs again: watchdog pings resume");
  }
  retention_.Poll();
}

void Service::Stopping() { notifier_.Send("STOPPING=1"); }

bool Service::Reload(Station& st) {
  notifier_.Send("RELOADING=1");
  log_.Next();  // after logrotate renamed the file: a new one under the name
  if (log_.FileOpen()) {
    log_.Add(elog_INFO, 0, "SIGHUP: log file %s reopened", log_.Name().c_str());
  } else {
    log_.Add(elog_ERROR, 5, "SIGHUP: log file %s cannot be opened: %s", log_.Name().c_str(), std::strerror(errno));
  }
  retention_.Poll();
  std::string report;
  const bool ok = reload_settings(st, report);
  log_.Add(ok ? elog_INFO : elog_ERROR, ok ? 0 : 4, "reload: %s", report.c_str());
  notifier_.Send("READY=1");
  notifier_.Send("STATUS=" + status(st));
  return ok;
}

bool Service::reload_settings(Station& st, std::string& report) {
  const std::string name = cfg_.getfilename().empty() ? "station.cfg" : cfg_.getfilename();
  const std::string why = unreadable(name);
  if (!why.empty()) {
    report = "cannot read " + name + ": " + why + "; running settings kept";
    return false;
  }
  Config_File file(name);
  StationSettings station_settings;
  ServerSettings server;
  Log_Config_Data logcfg;
  LogRetention_Config_Data retention;
  // Only the structures made here: sections() also lists the fleet's shared
  // ones, which a reload must not write into; fresh copies stand in for
  // them, so that their changes are reported as needing a restart.
  FleetSettings fleet;
  SettingsList fresh = sections(station_settings, server, logcfg);
  for (auto& section : fresh) {
    if (section.second == &fleet_settings().mqtt) section.second = &fleet.mqtt;
    if (section.second == &fleet_settings().metrics) section.second = &fleet.metrics;
  }
  fresh.emplace_back("LogRetention", &retention);
  // The file's values, the local file's over them, the command line's over both.
  zqcommon::Checked_Settings checked = settings_checker(fresh);
  const std::vector<std::string> problems = load_checked(checked, file);
  if (!problems.empty()) {
    for (const std::string& p : problems) report += (report.empty() ? "" : "; ") + p;
    report += "; running settings kept";
    return false;
  }
  std::string changed, restart;
  for (const auto& section : running_) {
    for (auto& entry : *section.second) {
      const std::string path = section.first + "." + entry.first;
      const zqcommon::Config_Data_Entry* now = find_setting(fresh, path);
      if (now == nullptr || now->Value() == entry.second.Value()) continue;
      if (!live_setting(path)) {
        restart += (restart.empty() ? "" : ", ") + path;
        settings_state().restart.insert(path);  // status lists it
        continue;
      }
      changed += Format("%s%s %s -> %s", changed.empty() ? "" : ", ", path.c_str(),
                        entry.second.Value().c_str(), now->Value().c_str());
      entry.second = now->Value();
    }
  }
  for (Watch& w : st.watches) {
    for (unsigned int& p : w.error.promotion) p = components::OneError::kDisabled;
    w.error = st.settings.Promotion;
  }
  // Later saves compare with the file as read now.
  std::string unread;
  if (settings_state().save_to != nullptr && !settings_state().save_to->Read(&unread)) report += unread + "; ";
  report += name + " read; " + (changed.empty() ? "nothing changed" : "changed " + changed);
  if (!restart.empty()) report += "; needing a restart (not applied): " + restart;
  return true;
}

}  // namespace station
