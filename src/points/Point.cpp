#include "zqpoints/Point.h"

#include <strings.h>

#include <cmath>
#include <utility>

namespace zqpoints {

namespace {

const char* const kQuality[] = {"good", "stale", "device-fault", "simulated"};
const char* const kCondition[] = {"normal", "LO", "LOLO", "HI", "HIHI"};
const char* const kSeverity[] = {"none", "low", "medium", "high", "critical"};
const char* const kState[] = {"normal", "active-unacked", "active-acked", "returned-unacked"};

// Worse conditions have higher ranks: the on-delay applies towards them.
int rank(Condition c) {
  return c == Condition::Normal ? 0 : (c == Condition::Lo || c == Condition::Hi) ? 1 : 2;
}

}  // namespace

const char* to_string(Quality q) { return kQuality[static_cast<int>(q) & 3]; }
const char* to_string(Condition c) { return kCondition[static_cast<int>(c) % 5]; }
const char* to_string(Severity s) { return kSeverity[static_cast<int>(s) % 5]; }
const char* to_string(AlarmState s) { return kState[static_cast<int>(s) & 3]; }

bool parse_severity(const std::string& text, Severity& out) {
  for (int i = 0; i < 5; ++i) {
    if (strcasecmp(text.c_str(), kSeverity[i]) == 0) {
      out = static_cast<Severity>(i);
      return true;
    }
  }
  return false;
}

PointConfig::PointConfig() : lolo(NAN), lo(NAN), hi(NAN), hihi(NAN) {}

Point::Point(PointConfig config) : config_(std::move(config)), value_(NAN) {}

Severity Point::severity_of(Condition c) const {
  switch (c) {
    case Condition::Lo: return config_.lo_severity;
    case Condition::LoLo: return config_.lolo_severity;
    case Condition::Hi: return config_.hi_severity;
    case Condition::HiHi: return config_.hihi_severity;
    default: return Severity::None;
  }
}

// The condition of `v` with the deadband around the limits already passed:
// a limit is entered at the limit and left only `deadband` on the normal side
// of it. A NaN limit compares false, so it never triggers.
Condition Point::raw_condition(double v) const {
  const PointConfig& c = config_;
  const double db = c.deadband;
  const Condition cur = condition_;
  const bool in_hihi = cur == Condition::HiHi, in_hi = in_hihi || cur == Condition::Hi;
  const bool in_lolo = cur == Condition::LoLo, in_lo = in_lolo || cur == Condition::Lo;
  if (c.hihi_severity != Severity::None && (v >= c.hihi || (in_hihi && v > c.hihi - db)))
    return Condition::HiHi;
  if (c.hi_severity != Severity::None && (v >= c.hi || (in_hi && v > c.hi - db)))
    return Condition::Hi;
  if (c.lolo_severity != Severity::None && (v <= c.lolo || (in_lolo && v < c.lolo + db)))
    return Condition::LoLo;
  if (c.lo_severity != Severity::None && (v <= c.lo || (in_lo && v < c.lo + db)))
    return Condition::Lo;
  return Condition::Normal;
}

Point::Change Point::set_state(AlarmState next) {
  Change ch;
  ch.from = state_;
  ch.to = next;
  ch.changed = true;
  state_ = next;
  return ch;
}

Point::Change Point::Update(double value, int64_t time_us, Quality quality) {
  value_ = value;
  time_us_ = time_us;
  quality_ = quality;
  ++updates_;
  if (quality == Quality::DeviceFault || quality == Quality::Stale || std::isnan(value)) return {};
  const Condition seen = raw_condition(value);
  if (seen == condition_) {
    pending_count_ = 0;
    return {};
  }
  if (pending_count_ == 0 || seen != pending_) {
    pending_ = seen;
    pending_count_ = 0;
    pending_since_us_ = time_us;
  }
  ++pending_count_;
  const bool worse = rank(seen) >= rank(condition_);
  const uint32_t samples = worse ? config_.on_delay_samples : config_.off_delay_samples;
  const int64_t span = worse ? config_.on_delay_us : config_.off_delay_us;
  if (pending_count_ <= samples || time_us - pending_since_us_ < span) return {};
  pending_count_ = 0;
  return follow(seen);
}

// The alarm state after the accepted condition changed to `c`. A change of
// condition while the alarm stays active is reported too (from == to), so
// that the journal sees escalations.
Point::Change Point::follow(Condition c) {
  const Condition before = condition_;
  condition_ = c;
  if (suppressed()) return {};
  if (c == Condition::Normal) {
    if (state_ == AlarmState::ActiveAcked) return set_state(AlarmState::Normal);
    if (state_ == AlarmState::ActiveUnacked)
      return set_state(config_.latching ? AlarmState::ReturnedUnacked : AlarmState::Normal);
    return {};
  }
  const Severity s = severity_of(c);
  const bool new_alarm = state_ == AlarmState::Normal || state_ == AlarmState::ReturnedUnacked;
  // Worse or on the other side: the operator must acknowledge it again.
  const bool escalated = state_ == AlarmState::ActiveAcked &&
                         (s > alarm_severity_ || rank(before) == 0 ||
                          (before == Condition::Lo || before == Condition::LoLo) !=
                              (c == Condition::Lo || c == Condition::LoLo));
  alarm_severity_ = s;
  if (new_alarm || escalated) return set_state(AlarmState::ActiveUnacked);
  return set_state(state_);
}

Point::Change Point::Acknowledge() {
  if (state_ == AlarmState::ActiveUnacked) return set_state(AlarmState::ActiveAcked);
  if (state_ == AlarmState::ReturnedUnacked) return set_state(AlarmState::Normal);
  return {};
}

Point::Change Point::Shelve(int64_t until_us) {
  const bool was = suppressed();
  shelved_until_us_ = until_us;
  return was == suppressed() ? set_state(state_) : (suppressed() ? set_state(AlarmState::Normal)
                                                                 : follow_again());
}

Point::Change Point::Disable(bool disabled) {
  const bool was = suppressed();
  disabled_ = disabled;
  return was == suppressed() ? set_state(state_) : (suppressed() ? set_state(AlarmState::Normal)
                                                                 : follow_again());
}

// Suppression ended: an alarm still present comes back unacknowledged.
Point::Change Point::follow_again() {
  if (condition_ == Condition::Normal) return set_state(AlarmState::Normal);
  alarm_severity_ = severity_of(condition_);
  return set_state(AlarmState::ActiveUnacked);
}

Point::Change Point::Tick(int64_t now_us) {
  if (config_.stale_after_us > 0 && quality_ != Quality::DeviceFault && time_us_ != 0 &&
      now_us - time_us_ > config_.stale_after_us) {
    quality_ = Quality::Stale;
  }
  if (shelved_until_us_ != 0 && now_us >= shelved_until_us_) return Shelve(0);
  return {};
}

bool Point::SetLimits(double lolo, double lo, double hi, double hihi, double deadband) {
  // NaN limits are off and take no part in the order.
  const double v[4] = {lolo, lo, hi, hihi};
  double last = -INFINITY;
  for (double x : v) {
    if (std::isnan(x)) continue;
    if (x < last) return false;
    last = x;
  }
  if (!(deadband >= 0)) return false;
  config_.lolo = lolo;
  config_.lo = lo;
  config_.hi = hi;
  config_.hihi = hihi;
  config_.deadband = deadband;
  return true;
}

}  // namespace zqpoints
