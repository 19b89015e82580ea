// The station: a small measurement-and-control program on the whole library.
//
// A periodic real-time task reads a simulated sensor and drives simulated
// digital I/O; the main thread takes the task's records from a mailbox, keeps
// error records, a log and traces, and serves one command set on its own
// terminal and to TCP clients (which may switch to TLS).
#ifndef STATION_STATION_H
#define STATION_STATION_H

#include <zqcommon/ew.h>
#include <zqcommon/iocontrol.h>
#include <zqcommon/lib_config.h>
#include <zqcommon/log.h>
#include <zqcommon/setting_check.h>
#include <zqcomponents/error.h>
#include <zqcomponents/trace.h>
#include <zqrtm/OverrunGuard.h>
#include <zqrtm/cyclestats.h>
#include <zqrtm/rtmailbox.h>
#include <zqrtm/rttypedmailbox.h>
#include <zqrtm/rtthread.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "access.h"
#include "points.h"

namespace station {

// [Station]: the task and the watched sensor range.
struct StationSettings : zqcommon::Config_Data {
  StationSettings();
  int PeriodUs = 1000;          // task period
  double LowLimit = 0.0;        // readings below raise warnings
  double HighLimit = 80.0;      // readings above raise warnings
  double Setpoint = 40.0;       // the heater output is on below it
  std::string Promotion = "WARNING:100,ERROR:1000";  // repeated warnings promote
  std::string DumpPath = ".";   // where trace dumps go
  int TraceDepth = 10000;       // samples kept per trace
  int FitPoints = 1000;         // the recorded curve handed to the fitter
  std::string UsersFile = "station.users";  // network users; "none": no login asked
  std::string DataDir = ".";    // the only files network clients may read
  long long MaxFileBytes = 64LL << 20;  // the largest file hash and crc read
  int LogLossReportS = 60;      // at most one report of lost log lines per period
  std::string RealTime = "preferred";  // "required": no start without real-time rights
  std::string LocalConfig;      // read after the main file; config save writes here
  // What the task does when OverrunLimit overruns fall within OverrunWindowMs:
  // off (only the counts of status), count, warn, safe (outputs to their safe states).
  std::string OverrunPolicy = "off";
  int OverrunLimit = 3;
  int OverrunWindowMs = 1000;
};

// [Server]: the TCP side.
struct ServerSettings : zqcommon::Config_Data {
  ServerSettings();
  int ListenPort = 7600;        // 0: any free port
  int MaxConnections = 64;
  std::string Interface = "127.0.0.1";
  std::string ACL = "station.acl";
  bool RequireTLS = false;      // only starttls, help and exit before TLS
  AccessConfig access_cfg;      // the [TLS], [Login] and [Access] sections
};

// One record from the task: the cycle, the time within the sensor's run,
// the reading, the I/O byte and the cycle's length; the CLOCK_MONOTONIC time
// the reading was taken and (filled in by the main thread) that time in UTC
// microseconds. It crosses the mailbox as it is, in binary.
struct Record {
  long long cycle = 0;
  double x = 0;
  double value = 0;
  unsigned int io = 0;
  long long length_ns = 0;
  long long stamp_ns = 0;
  long long time_us = 0;
  long long release_ns = 0, start_ns = 0;  // the cycle's release and start
  long long prev_end_ns = 0;               // when the cycle before ended
  unsigned char overrun = 0;  // the overrun policy: kTripped, kHolding
  static constexpr unsigned char kTripped = 1, kHolding = 2;
};
typedef rttypedmailbox<Record> RecordMailbox;

// The periodic task. It owns the process image and its handler; everything
// it shares goes through the two mailboxes: records out, bit commands in.
class SensorTask : public rtthread {
 public:
  // I/O bits of the simulated board.
  static constexpr unsigned int kHeater = 0, kAlarm = 1, kInject = 4;

  SensorTask(long long period_ns, RecordMailbox& records, rtmailbox& commands);
  ~SensorTask() override;
  // Ends the cycles and waits for the task's thread.
  void Stop();
  // Written by the main thread between cycles' reads: single values.
  std::atomic<double> low{0.0}, high{80.0}, setpoint{40.0};
  // Lateness and overruns, recorded by the task, read by anyone.
  CycleStats cycle_stats;
  // Field devices (devices.cpp), set before the task starts: their handlers
  // join the image after the board, and the hook sees the image (inputs,
  // outputs) in every cycle just before the outputs are written.
  bool AddHandler(IOHandler& h) { return io_.AddHandler(h) == IOR_SUCCESS; }
  std::function<void(unsigned char* inputs, unsigned char* outputs)> cycle_hook;
  // The overrun policy (configured before the task starts) and the outputs'
  // safe states it writes while it holds them: image bit `bit` to `on`. The
  // board's are set: heater off, alarm on.
  OverrunGuard overrun;
  void SetSafeBit(unsigned int bit, bool on);

 protected:
  void start(void* arg) override;
  void* rtrun(void* arg) override;

 private:
  double reading(long long cycle, double& x);
  void apply(const char* command);

  RecordMailbox& records_;
  rtmailbox& commands_;
  SimIOHandler board_;
  unsigned char pi_[16] = {}, i_[16] = {}, iand_[16], ior_[16] = {}, o_[16] = {},
                oand_[16], oor_[16] = {};
  unsigned char safe_and_[16], safe_or_[16] = {};  // out = out & and | or while held safe
  IOControl io_;
  uint32_t noise_ = 12345;
  std::string command_;
};

// Sampled values for the component trace manager: a bounded ring of
// "value" texts with their cycle and time.
class ValueTrace : public components::Traceable {
 public:
  explicit ValueTrace(unsigned int depth) : depth_(depth) {}
  void Set(double v) { current_ = v; }
  void SetTraceBuffer(void*, unsigned int) override {}
  void Sample(unsigned int cycle, const components::TIME& t) override;
  void Clear() override { samples_.clear(); }
  unsigned int Size() override { return static_cast<unsigned int>(samples_.size()); }
  unsigned int MaxSize() override { return depth_; }
  std::string GetPrintable() override;
  void GetBinary(std::vector<TraceBinarySample>& out) override;

 private:
  unsigned int depth_;
  double current_ = 0;
  std::deque<TraceBinarySample> samples_;
};

// A watched condition: its error record and what the log was last told.
struct Watch {
  const char* name;
  components::OneError error;
  components::eSeverity reported = components::NONE;
};

// Everything the commands work on. Owned by main(); only the main thread
// touches it.
class Station {
 public:
  Station(Config_File& cfg, StationSettings& settings, ServerSettings& server,
          Log_Config_Data& logcfg, Log& log);
  ~Station();

  // Takes every waiting record: range checks, traces, the recorded curve.
  void Drain();
  // Drains until the task has run `cycles` more cycles (at most 500 ms).
  void Settle(long long cycles);
  // Queues a bit command for the task ("s 4", "c 4", "i 4").
  bool Command(const std::string& text);

  Config_File& cfg;
  StationSettings& settings;
  ServerSettings& server;
  Log_Config_Data& logcfg;
  Log& log;
  RecordMailbox records{8192};
  rtmailbox commands{32, 64};
  SensorTask task;
  Record last;
  long long records_seen = 0;
  std::unique_ptr<StationPoints> points;  // made before the task runs
  std::deque<std::pair<double, double>> curve;  // (x, reading), newest last
  Watch watches[3] = {{"sensor_high", {}}, {"sensor_low", {}}, {"cycle_overrun", {}}};
  ValueTrace value_trace;
  ValueTrace io_trace;
  components::fixed_string dump_path;
  components::TraceData slots[2];
  components::TraceManager traces;
  unsigned int clients = 0;
  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  // Tells the operator's terminal about an event (error records, clients);
  // empty without a terminal.
  std::function<void(const std::string&)> announce;
  unsigned long long log_lost_told = 0;  // the log's lost lines already reported
  double log_lost_checked = 0;           // when they were last looked at
  double log_reopen_tried = 0;           // when a missing log file was last tried
  // Observers of every record and of every change of a watch's severity.
  std::function<void(const Record&)> on_record;
  std::function<void(const Watch&, double value)> on_severity;
  // After SIGHUP read the users file and the access list again (for
  // channels that keep their own view of users, such as the broker's).
  std::function<void()> on_access_reload;
  std::string access_read;  // when the users and the access list were last read, for status
  // Threads for file digests of network sessions (null: on the main loop).
  std::shared_ptr<class WorkQueue> workers;

 private:
  void check(Watch& w, bool bad, components::TIME t, double value);
};

// One operator session (the terminal or a TCP client): the interpreter's
// output stream and, for clients, whether TLS was asked for.
struct Session {
  Station* station = nullptr;
  FILE* out = nullptr;
  bool network = false;
  bool want_tls = false;
  bool want_exit = false;
  bool want_editing = false;
  bool machine = false;  // answers framed for programs (machine.h)
  int code = 0;          // the answer's result code in machine mode
  std::shared_ptr<struct FileSend> sending;  // the file `get` sends in pieces (machine.cpp)
  bool encrypted = false;  // TLS is on
  std::string peer;
  int level = ZQSecurity::kNoAccess;  // the access level reached
  AccessState access;
  std::shared_ptr<struct PendingAnswer> pending;  // an answer a worker computes (answers wait)
};

// Registers the station's commands on an interpreter for `session`.
void register_commands(class CLI& cli, Session& session);

// The line editor, completion and, for the terminal (a non-empty
// `history_file`), the kept history; a network session gets the `editing`
// command that asks for it.
void setup_console(class CLI& cli, Session& session, const std::string& history_file);
// The named I/O bits, for the io command and its completion.
const std::vector<std::pair<const char*, unsigned int>>& bit_names();

// Settings structures by section name, for command-line overrides and the
// config command.
typedef std::vector<std::pair<std::string, zqcommon::Config_Data*>> SettingsList;
SettingsList sections(StationSettings& settings, ServerSettings& server, Log_Config_Data& logcfg);
inline SettingsList sections(Station& st) { return sections(st.settings, st.server, st.logcfg); }
// The setting "Section.Key" (names without regard to case), or null.
zqcommon::Config_Data_Entry* find_setting(const SettingsList& all, const std::string& path);
// Loads the sections of `server.access_cfg`.
void load_access(Config_File& cfg, ServerSettings& server);

// The library's diagnostics as log entries (diagnostics_log.cpp).
void RouteDiagnosticsToLog(Log& log);
void StopRoutingDiagnostics();

// The type and range of every setting; values outside are refused.
const zqcommon::Setting_Check& setting_rules();
// Whether the setting names files, folders, addresses or ports (or is a log
// mask): network clients may not change those.
bool operator_only(const std::string& path);
// A regular file of at most Station.MaxFileBytes, for a network session only
// inside Station.DataDir and never through a symbolic link; false with the
// reason in `why`.
bool read_file(const Session& s, const std::string& name, std::string& data, std::string& why);
// Once a minute: when the log lost lines since the last report, says so in it.
void report_log_losses(Station& st, double now);
// One answer line to a session, ended with CR LF.
void say(Session& s, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Control bytes (and the backslash) as \xNN: client text fit for the log.
std::string escape_controls(const std::string& text);

}  // namespace station

#endif
