#include "zqpoints/PointTable.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"
#include "zqcommon/unit.h"
#include "points/unit_symbol.h"

namespace zqpoints {

namespace details {

std::string unit_symbol(const std::string& text) {
  for (const auto& row : Unit::UnitInfo) {
    if (text ^= row.symbol) return row.id == eu_temp ? "\u00b0C" : row.symbol;
    if (text ^= row.name) return row.id == eu_temp ? "\u00b0C" : row.symbol;
  }
  return text;
}

}  // namespace details

namespace {

void copy_text(char* dst, size_t size, const char* src) {
  size_t n = 0;
  if (src != nullptr) {
    while (n + 1 < size && src[n] != 0) {
      dst[n] = src[n];
      ++n;
    }
  }
  std::memset(dst + n, 0, size - n);
}

std::string lower(std::string s) { return tolower(s); }

// Reads the entries of one [Point.NAME] section; the first fault names
// the file, the line and the value.
class SectionReader {
 public:
  SectionReader(Config_File& cfg, const std::string& section, std::string& error)
      : cfg_(cfg), section_(section), error_(error) {}

  bool text(const char* key, std::string& out) {
    int line = 0;
    const std::string v = cfg_.get_entry(section_, key, "\x01", nullptr, &line);
    if (v != "\x01") out = v;
    return true;
  }
  bool number(const char* key, double& out) {
    int line = 0;
    const std::string v = cfg_.get_entry(section_, key, "\x01", nullptr, &line);
    if (v == "\x01") return true;
    errno = 0;
    char* end = nullptr;
    const double d = std::strtod(v.c_str(), &end);
    if (v.empty() || *end != 0 || errno != 0) return fail(key, line, v, "is not a number");
    out = d;
    return true;
  }
  template <class I>
  bool whole(const char* key, I& out, double scale) {
    double d = NAN;
    if (!number(key, d)) return false;
    if (std::isnan(d)) return true;
    if (d < 0 || d > 1e12) return fail(key, 0, std::to_string(d), "is out of range");
    out = static_cast<I>(d * scale);
    return true;
  }
  bool severity(const char* key, Severity& out) {
    int line = 0;
    const std::string v = cfg_.get_entry(section_, key, "\x01", nullptr, &line);
    if (v == "\x01") return true;
    if (!parse_severity(v, out))
      return fail(key, line, v, "is not one of none, low, medium, high, critical");
    return true;
  }
  bool flag(const char* key, bool& out) {
    int line = 0;
    const std::string v = cfg_.get_entry(section_, key, "\x01", nullptr, &line);
    if (v == "\x01") return true;
    if (v == "1" || (v ^= "true") || (v ^= "yes")) return out = true, true;
    if (v == "0" || (v ^= "false") || (v ^= "no")) return out = false, true;
    return fail(key, line, v, "is not true or false");
  }
  bool fail(const char* key, int line, const std::string& value, const char* why) {
    error_ = cfg_.getfilename() + ":" + std::to_string(line) + ": " + section_ + "." + key +
             " = '" + value + "' " + why;
    return false;
  }

 private:
  Config_File& cfg_;
  const std::string& section_;
  std::string& error_;
};

}  // namespace

PointTable::PointTable(size_t event_capacity)
    : events_(new AlarmEvent[event_capacity ? event_capacity : 1]),
      capacity_(event_capacity ? event_capacity : 1) {}

int PointTable::Add(const PointConfig& config, std::string* error) {
  auto say = [&](const std::string& why) {
    if (error != nullptr) *error = why;
    return -1;
  };
  if (config.name.empty()) return say("a point needs a name");
  if (by_name_.count(lower(config.name)) != 0) return say("point " + config.name + " exists");
  Point p(config);
  if (!p.SetLimits(config.lolo, config.lo, config.hi, config.hihi, config.deadband))
    return say("point " + config.name + ": limits must be ordered LoLo <= Lo <= Hi <= HiHi");
  points_.push_back(std::move(p));
  by_name_[lower(config.name)] = points_.size() - 1;
  return static_cast<int>(points_.size() - 1);
}

int PointTable::Load(Config_File& cfg, std::string& error) {
  int added = 0;
  for (const std::string& section : cfg.get_sections()) {
    if (section.size() <= 6 || !(section.substr(0, 6) ^= "Point.")) continue;
    PointConfig c;
    c.name = section.substr(6);
    SectionReader r(cfg, section, error);
    double on_ms = 0, off_ms = 0, stale_ms = 0;
    std::string unit;
    const bool ok = r.text("Unit", unit) && r.text("Description", c.description) &&
                    r.text("Guidance", c.guidance) && r.number("DisplayLow", c.display_low) &&
                    r.number("DisplayHigh", c.display_high) && r.number("LoLo", c.lolo) &&
                    r.number("Lo", c.lo) && r.number("Hi", c.hi) && r.number("HiHi", c.hihi) &&
                    r.severity("LoLoSeverity", c.lolo_severity) &&
                    r.severity("LoSeverity", c.lo_severity) &&
                    r.severity("HiSeverity", c.hi_severity) &&
                    r.severity("HiHiSeverity", c.hihi_severity) &&
                    r.number("Deadband", c.deadband) &&
                    r.whole("OnDelay", c.on_delay_samples, 1.0) &&
                    r.whole("OffDelay", c.off_delay_samples, 1.0) && r.number("OnDelayMs", on_ms) &&
                    r.number("OffDelayMs", off_ms) && r.flag("Latching", c.latching) &&
                    r.number("StaleMs", stale_ms);
    if (!ok) return -1;
    c.unit = details::unit_symbol(unit);
    c.on_delay_us = static_cast<int64_t>(on_ms * 1000);
    c.off_delay_us = static_cast<int64_t>(off_ms * 1000);
    c.stale_after_us = static_cast<int64_t>(stale_ms * 1000);
    std::string why;
    if (Add(c, &why) < 0) {
      error = cfg.getfilename() + ": [" + section + "]: " + why;
      return -1;
    }
    ++added;
  }
  return added;
}

int PointTable::Find(const std::string& name) const {
  const auto it = by_name_.find(lower(name));
  return it == by_name_.end() ? -1 : static_cast<int>(it->second);
}

void PointTable::queue(size_t index, const Point::Change& c, int64_t time_us, const char* action,
                       const std::string* user, const std::string* comment) {
  if (count_ == capacity_) {
    ++lost_;
    return;
  }
  AlarmEvent& e = events_[(head_ + count_) % capacity_];
  ++count_;
  const Point& p = points_[index];
  e.time_us = time_us;
  e.point = static_cast<uint32_t>(index);
  e.from = c.from;
  e.to = c.to;
  e.condition = p.condition();
  e.severity = p.alarm_severity();
  e.value = p.value();
  if (action == nullptr) {
    action = (c.to == AlarmState::Normal || c.to == AlarmState::ReturnedUnacked) ? "clear"
             : c.to == AlarmState::ActiveUnacked                                ? "raise"
                                                                                : "change";
  }
  copy_text(e.action, sizeof e.action, action);
  copy_text(e.user, sizeof e.user, user ? user->c_str() : nullptr);
  copy_text(e.comment, sizeof e.comment, comment ? comment->c_str() : nullptr);
}

int PointTable::Acknowledge(int index, const std::string& user, const std::string& comment,
                            int64_t now_us) {
  if (index < 0 || static_cast<size_t>(index) >= points_.size()) return 0;
  const Point::Change c = points_[index].Acknowledge();
  if (!c.changed) return 0;
  queue(index, c, now_us, "ack", &user, &comment);
  return 1;
}

int PointTable::AcknowledgeAll(const std::string& user, const std::string& comment,
                               int64_t now_us) {
  int n = 0;
  for (size_t i = 0; i < points_.size(); ++i)
    n += Acknowledge(static_cast<int>(i), user, comment, now_us);
  return n;
}

bool PointTable::Shelve(int index, int64_t until_us, const std::string& user,
                        const std::string& comment, int64_t now_us) {
  if (index < 0 || static_cast<size_t>(index) >= points_.size()) return false;
  const Point::Change c = points_[index].Shelve(until_us);
  queue(index, c, now_us, until_us ? "shelve" : "unshelve", &user, &comment);
  return true;
}

bool PointTable::Disable(int index, bool disabled, const std::string& user,
                         const std::string& comment, int64_t now_us) {
  if (index < 0 || static_cast<size_t>(index) >= points_.size()) return false;
  const Point::Change c = points_[index].Disable(disabled);
  queue(index, c, now_us, disabled ? "disable" : "enable", &user, &comment);
  return true;
}

bool PointTable::SetLimits(int index, double lolo, double lo, double hi, double hihi,
                           double deadband) {
  if (index < 0 || static_cast<size_t>(index) >= points_.size()) return false;
  return points_[index].SetLimits(lolo, lo, hi, hihi, deadband);
}

void PointTable::Tick(int64_t now_us) {
  for (size_t i = 0; i < points_.size(); ++i) {
    const Point::Change c = points_[i].Tick(now_us);
    if (c.changed) queue(i, c, now_us, "unshelve", nullptr, nullptr);
  }
}

bool PointTable::TakeEvent(AlarmEvent& out) {
  if (count_ == 0) return false;
  out = events_[head_];
  head_ = (head_ + 1) % capacity_;
  --count_;
  return true;
}

int PointTable::CountAlarms(Severity s) const {
  int n = 0;
  for (const Point& p : points_) n += p.state() != AlarmState::Normal && p.alarm_severity() == s;
  return n;
}

}  // namespace zqpoints
