// The points of a program by name, with their alarm events queued for the
// journal and the operator.
#ifndef ZQPOINTS_POINTTABLE_H
#define ZQPOINTS_POINTTABLE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zqcommon/export.h"
#include "zqpoints/Point.h"

class Config_File;

namespace zqpoints {

// One alarm transition or operator action, fixed size (it is queued on the
// hot path and written to the journal as it is).
struct AlarmEvent {
  int64_t time_us = 0;            // UTC microseconds: acquisition time or the action's time
  uint32_t point = 0;             // index in the table
  AlarmState from = AlarmState::Normal, to = AlarmState::Normal;
  Condition condition = Condition::Normal;
  Severity severity = Severity::None;
  double value = 0;
  char action[12] = {};           // raise, clear, ack, shelve, unshelve, disable, enable
  char user[32] = {};             // "" for the process itself
  char comment[128] = {};
};

// Points by index (stable, the order they were added) and by name. Updates
// by index neither allocate nor format once the table is built; the name
// look-ups and operator actions are for the main thread. Not thread safe.
// Events beyond the queue's capacity are dropped and counted.
class ZQ_EXPORT PointTable {
 public:
  explicit PointTable(size_t event_capacity = 4096);

  // The new point's index; -1 when the name is taken, empty, or its limits
  // are not ordered (`error` says which).
  int Add(const PointConfig& config, std::string* error = nullptr);
  // Adds a point for every section "Point.NAME" of `cfg`: Unit, Description,
  // Guidance, DisplayLow, DisplayHigh, LoLo, Lo, Hi, HiHi, LoLoSeverity,
  // LoSeverity, HiSeverity, HiHiSeverity, Deadband, OnDelay, OffDelay
  // (samples), OnDelayMs, OffDelayMs, Latching, StaleMs. The number of points
  // added, or -1 at the first fault with `error` naming file, line and value.
  int Load(Config_File& cfg, std::string& error);

  // The index of a point (names without regard to case), or -1.
  int Find(const std::string& name) const;
  size_t size() const { return points_.size(); }
  const Point& operator[](size_t i) const { return points_[i]; }

  // A new value of point `index` (the hot path).
  void Update(size_t index, double value, int64_t time_us, Quality quality = Quality::Good) {
    const Point::Change c = points_[index].Update(value, time_us, quality);
    if (c.changed) queue(index, c, time_us, nullptr, nullptr, nullptr);
  }
  // Operator actions at `now_us` by `user`; the number of alarms changed.
  int Acknowledge(int index, const std::string& user, const std::string& comment, int64_t now_us);
  int AcknowledgeAll(const std::string& user, const std::string& comment, int64_t now_us);
  bool Shelve(int index, int64_t until_us, const std::string& user, const std::string& comment,
              int64_t now_us);
  bool Disable(int index, bool disabled, const std::string& user, const std::string& comment,
               int64_t now_us);
  bool SetLimits(int index, double lolo, double lo, double hi, double hihi, double deadband);
  // Ends expired shelving, marks stale values; call about once a second.
  void Tick(int64_t now_us);

  // The oldest queued event; false when there is none.
  bool TakeEvent(AlarmEvent& out);
  uint64_t lost_events() const { return lost_; }
  // Alarms in ActiveUnacked, ActiveAcked or ReturnedUnacked of severity `s`.
  int CountAlarms(Severity s) const;

 private:
  void queue(size_t index, const Point::Change& c, int64_t time_us, const char* action,
             const std::string* user, const std::string* comment);

  std::vector<Point> points_;
  std::map<std::string, size_t> by_name_;  // lower-case names
  std::unique_ptr<AlarmEvent[]> events_;
  size_t capacity_, head_ = 0, count_ = 0;
  uint64_t lost_ = 0;
};

}  // namespace zqpoints

#endif
