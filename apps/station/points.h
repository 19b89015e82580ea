// The station's process points and alarms: the sensor reading and the cycle
// overrun as points with alarm state machines, their journal, and the
// operator's saved set-points.
#ifndef STATION_POINTS_H
#define STATION_POINTS_H

#include <zqcommon/ew.h>
#include <zqpoints/AlarmJournal.h>
#include <zqpoints/Autosave.h>
#include <zqpoints/PointTable.h>
#include <zqpoints/SettingPoints.h>
#include <zqrtm/AcquisitionClock.h>
#include <zqrtm/OverrunGuard.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

class CLI;

namespace station {

class Station;
struct Record;
struct Session;

// [Points]: where the alarm journal and the saved set-points go ("" keeps
// that part off).
struct PointsSettings : zqcommon::Config_Data {
  PointsSettings();
  std::string StateFile;    // operator-changed set-points, limits, shelving
  std::string JournalFile;  // SQLite alarm journal
  int JournalRows = 100000; // rows kept in the journal
};

// Start lateness and execution time of the task's cycles in 1 us bins up to
// 10 ms (one more bin for the rest), as cyclictest keeps its histogram.
struct TaskHistogram {
  static constexpr size_t kBins = 10000;
  std::vector<uint64_t> bins = std::vector<uint64_t>(kBins + 1);
  uint64_t cycles = 0;
  long long min_us = 0, max_us = 0;
  double sum_us = 0;
  void Add(long long ns);
};

// Owned by the station; only the main thread touches it.
// The overrun policy's state in one line, as `outputs` and `status` say it.
std::string overrun_state(const OverrunGuard& g);

class StationPoints {
 public:
  // Loads [Points] and the [Point.NAME] sections and restores the saved
  // set-points into the station's settings (before the task runs).
  explicit StationPoints(Station& st);

  // A record from the task: its points take the reading at its acquisition time.
  void OnRecord(const Record& r);
  // Alarm events to the journal, the log and the terminal; expired shelving;
  // set-point changes to the state file; the clock offset. Call often.
  void Poll();
  // Saves shelving and set-points now (at exit).
  void Flush();
  // The kept samples as CSV: a header row of names and units, then one row
  // per sample with its acquisition time in ISO 8601 UTC to the microsecond,
  // LF line ends. The number of rows, or -1 when the file cannot be written.
  long WriteCsv(const std::string& path) const;
  // The task's timing as JSON in the shape of cyclictest --json: "thread"
  // holds the start lateness (cyclictest's latency), "execution" the
  // cycles' run times in the same shape. False when it cannot be written.
  bool WriteTimingJson(const std::string& path) const;

  TaskHistogram lateness, execution;
  // The name a session acts under in the journal.
  static std::string user_of(const Session& s);

  Station& st;
  PointsSettings settings;
  AcquisitionClock clock;
  zqpoints::PointTable table;
  // Station.Setpoint, LowLimit and HighLimit as points of their own.
  zqpoints::SettingPoints set_points{table};
  zqpoints::AlarmJournal journal;
  std::unique_ptr<zqpoints::Autosave> autosave;
  int sensor = -1, overrun = -1;
  int overrun_trip = -1;  // the overrun policy's alarm (policies warn and safe)
  // Told of every alarm event after the journal (the fleet's MQTT topic).
  std::function<void(const zqpoints::AlarmEvent&)> on_alarm;

 private:
  void declare_defaults();
  void restore();
  void follow_settings();
  std::vector<Record> samples_;  // ring of the newest Station.TraceDepth records
  size_t next_sample_ = 0;
  long long previous_cycle_ = -1, previous_start_ns_ = 0;  // for the execution time
  std::string started_;  // when the histograms began, as cyclictest writes it
  double tick_checked_ = 0;
  bool save_failed_ = false;  // the last save failed (told once)
  double low_ = 0, high_ = 0, setpoint_ = 0;  // last values seen in the settings
  uint64_t trips_told_ = 0;  // overrun policy trips already logged
};

// Registers points, alarms, ack, shelve, disable and alarm-history.
void register_point_commands(CLI& cli, Session& s);

}  // namespace station

#endif
