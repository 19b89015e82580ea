// A process point: a named, unit-carrying value with limits, quality, time
// stamp and the alarm state machine that watches it.
#ifndef ZQPOINTS_POINT_H
#define ZQPOINTS_POINT_H

#include <cstdint>
#include <string>

#include "zqcommon/export.h"

namespace zqpoints {

// How far a value can be trusted.
enum class Quality : uint8_t { Good = 0, Stale = 1, DeviceFault = 2, Simulated = 3 };

// Which limit the value is beyond (after deadband and delays).
enum class Condition : uint8_t { Normal = 0, Lo = 1, LoLo = 2, Hi = 3, HiHi = 4 };

// An alarm's priority; None marks a limit that raises no alarm.
enum class Severity : uint8_t { None = 0, Low = 1, Medium = 2, High = 3, Critical = 4 };

// The alarm states of ISA-18.2 that an operator sees. Shelving and disabling
// are kept beside the state (see Point::Shelved/Disabled): a suppressed alarm
// stays in Normal.
enum class AlarmState : uint8_t {
  Normal = 0,
  ActiveUnacked = 1,   // condition present, nobody has acknowledged it
  ActiveAcked = 2,     // condition present, acknowledged
  ReturnedUnacked = 3  // condition gone, not yet acknowledged (latching alarms only)
};

ZQ_EXPORT const char* to_string(Quality q);
ZQ_EXPORT const char* to_string(Condition c);
ZQ_EXPORT const char* to_string(Severity s);
ZQ_EXPORT const char* to_string(AlarmState s);
// Parses the names to_string() gives (any case); false when unknown.
ZQ_EXPORT bool parse_severity(const std::string& text, Severity& out);

// What a point is: fixed once the point is declared, except the limits and
// the display range, which an operator may change (the owner calls
// Point::SetLimits so that the alarm logic sees a consistent set).
struct ZQ_EXPORT PointConfig {
  std::string name;
  std::string unit;         // symbol, UTF-8 ("mm", "°C", "ms"); "" for a pure number
  std::string description;
  std::string guidance;     // what the operator should do when the alarm comes
  double display_low = 0, display_high = 100;
  // A limit is off while it is NaN (the default) or its severity is None.
  double lolo, lo, hi, hihi;
  Severity lolo_severity = Severity::High, lo_severity = Severity::Medium,
           hi_severity = Severity::Medium, hihi_severity = Severity::High;
  double deadband = 0;      // a limit is left only this far on the normal side of it
  // A changed condition is taken only when it has lasted this many samples
  // and this long (on: towards a worse condition, off: towards a better one).
  uint32_t on_delay_samples = 0, off_delay_samples = 0;
  int64_t on_delay_us = 0, off_delay_us = 0;
  // A latching alarm that clears unacknowledged waits in ReturnedUnacked.
  bool latching = false;
  // A value older than this turns the quality Stale (0: never).
  int64_t stale_after_us = 0;
  PointConfig();
};

// One point. Update() runs on the hot path: it neither allocates nor
// formats; everything else is for the owner's (main) thread. Not thread
// safe: one thread updates and commands a point (the records of a real-time
// task reach it through a mailbox). Transitions are reported through the
// return value of the calls that cause them.
class ZQ_EXPORT Point {
 public:
  explicit Point(PointConfig config);

  // What an alarm-related call changed: the state before and after.
  struct Change {
    bool changed = false;
    AlarmState from = AlarmState::Normal, to = AlarmState::Normal;
  };

  // A new value read at `time_us` (microseconds since the epoch, UTC).
  // A DeviceFault or Stale value keeps the condition as it was.
  Change Update(double value, int64_t time_us, Quality quality = Quality::Good);
  // Acknowledges an unacknowledged alarm; no change when there is none.
  Change Acknowledge();
  // Suppresses the alarm until `until_us` (0: lift the shelving now).
  Change Shelve(int64_t until_us);
  // Suppresses the alarm until enabled again (administrators).
  Change Disable(bool disabled);
  // Lifts an expired shelving and marks an old value Stale; call it now and
  // then (once a second is enough) with the current time.
  Change Tick(int64_t now_us);
  // Replaces the limits (NaN turns one off) and deadband; the condition is
  // looked at again with the next value. False (and nothing changed) when the
  // limits are not ordered lolo <= lo <= hi <= hihi.
  bool SetLimits(double lolo, double lo, double hi, double hihi, double deadband);

  const PointConfig& config() const { return config_; }
  const std::string& name() const { return config_.name; }
  double value() const { return value_; }
  int64_t time_us() const { return time_us_; }
  Quality quality() const { return quality_; }
  Condition condition() const { return condition_; }
  AlarmState state() const { return state_; }
  // The severity of the present condition (None in Normal).
  Severity severity() const { return severity_of(condition_); }
  // The severity the alarm was raised with (kept while ReturnedUnacked).
  Severity alarm_severity() const { return alarm_severity_; }
  bool shelved() const { return shelved_until_us_ != 0; }
  int64_t shelved_until_us() const { return shelved_until_us_; }
  bool disabled() const { return disabled_; }
  uint64_t updates() const { return updates_; }

 private:
  Severity severity_of(Condition c) const;
  Condition raw_condition(double v) const;
  Change set_state(AlarmState next);
  Change follow(Condition accepted);
  Change follow_again();
  bool suppressed() const { return disabled_ || shelved_until_us_ != 0; }

  PointConfig config_;
  double value_;
  int64_t time_us_ = 0;
  Quality quality_ = Quality::Stale;
  Condition condition_ = Condition::Normal;   // accepted (after delays)
  Condition pending_ = Condition::Normal;     // seen, waiting for its delay
  uint32_t pending_count_ = 0;
  int64_t pending_since_us_ = 0;
  AlarmState state_ = AlarmState::Normal;
  Severity alarm_severity_ = Severity::None;
  int64_t shelved_until_us_ = 0;
  bool disabled_ = false;
  uint64_t updates_ = 0;
};

}  // namespace zqpoints

#endif
