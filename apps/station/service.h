// The station as a system service: --version and the configuration file on
// the command line, notifications to the service manager (readiness, status,
// watchdog), reload on SIGHUP, and the retention of its log files.
#ifndef STATION_SERVICE_H
#define STATION_SERVICE_H

#include <zqcommon/connserv.h>
#include <zqcommon/logretention.h>

#include <string>

#include "station.h"

namespace station {

// Handles the command line's --version (prints the versions) and its
// configuration file (-f FILE, default `default_file`): reads the file into
// `cfg`. Answers -1 to carry on, or the exit status: 0 after --version, 2
// when a file given with -f cannot be read (the message names it). An absent
// `default_file` is no error: a warning, and the built-in defaults.
int service_command_line(Config_File& cfg, const std::string& default_file);

// Socket activation: when systemd passes one listening TCP socket
// ($LISTEN_FDS), `srv` serves it instead of the socket it bound itself
// (closed here; binding the port systemd holds fails, which is expected).
// Call before the server's thread starts. True when the socket was taken.
bool adopt_activated_socket(::Connection_Server& srv);

// Talks to the service manager through $NOTIFY_SOCKET (libsystemd's
// sd_notify); silent when the variable is not set. The watchdog period is
// half of $WATCHDOG_USEC. Used by the main thread only.
class ServiceNotifier {
 public:
  ServiceNotifier();
  void Send(const std::string& state);
  // Called often (every pass of the main loop): a watchdog ping every half
  // period, but only when `cycles` advanced since the last one, and the
  // status line every two seconds. Answers +1 when the task was found
  // stalled now, -1 when it advances again after a stall, else 0.
  int Tick(long long cycles, const std::string& status);
  bool Watchdog() const { return half_period_ > 0; }

 private:
  double half_period_ = 0;  // seconds; 0: no watchdog
  double next_ping_ = 0;
  double next_status_ = 0;
  long long last_cycles_ = -1;
  bool stalled_ = false;
};

// Everything the station does as a service, owned by main(): the notifier,
// the log's retention, and the settings it reloads on SIGHUP.
class Service {
 public:
  // `running` lists every loaded settings structure by section (the
  // [LogRetention] settings among them); `file` is the configuration file.
  Service(Config_File& cfg, SettingsList running, LogRetention_Config_Data& retention, Log& log);

  // The station listens and its task runs: READY=1 and a first status.
  void Ready(Station& st);
  // One pass of the main loop: watchdog, status, rotation and retention.
  void Tick(Station& st);
  // SIGHUP: reopens the log under its name, then reads the configuration
  // file again. Settings that can change while running take effect, the
  // others are reported as needing a restart; a file that cannot be read or
  // holds a bad value changes nothing. The outcome goes to the log. Answers
  // whether the file was taken.
  bool Reload(Station& st);
  void Stopping();

 private:
  std::string status(Station& st) const;
  bool reload_settings(Station& st, std::string& report);

  Config_File& cfg_;
  SettingsList running_;
  Log& log_;
  LogRetention retention_;
  ServiceNotifier notifier_;
};

}  // namespace station

#endif
