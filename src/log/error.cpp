// Error records: level and event reports, thresholds and promotion.
#include "zqcomponents/error.h"

#include <cstdlib>

namespace components {

namespace {

// A severity by its short name ("W") or its full name ("WARNING").
bool find_severity(const std::string& name, Severity& level) {
  if (level = name) return true;
  for (auto it = Severity::begin(); it != Severity::end(); ++it) {
    if (name == (*it).Description()) {
      level = *it;
      return true;
    }
  }
  return false;
}

}  // namespace

OneError::OneError() : s(NONE) {
  for (unsigned int& p : promotion) p = kDisabled;
}

OneError& OneError::Reset() {
  count = 0;
  total_count = 0;
  last_time = 0;
  active = false;
  s = NONE;
  return *this;
}

void OneError::Set(Severity sev, const TIME& t) {
  if (sev == NONE) {
    active = false;
    count = 0;
    return;
  }
  if (sev != s) {
    ++count;
    ++total_count;
    s = sev;
  }
  if (!active) last_time = t;
  active = true;
}

void OneError::Signal(Severity sev, const TIME& t) {
  if (sev == NONE) return;
  ++count;
  ++total_count;
  s = sev;
  if (!active) last_time = t;
}

OneError& OneError::operator=(const std::string& spec) {
  std::string::size_type start = 0;
  while (start < spec.size()) {
    auto end = spec.find(',', start);
    if (end == std::string::npos) end = spec.size();
    const std::string item = spec.substr(start, end - start);
    start = end + 1;
    const auto colon = item.find(':');
    if (colon == std::string::npos) continue;
    Severity level;
    if (!find_severity(item.substr(0, colon), level)) continue;
    const eSeverity e = level;
    if (e == NONE || e == PANIC) continue;
    const long n = std::strtol(item.c_str() + colon + 1, nullptr, 0);
    if (n <= 0) continue;  // 0 would divide by zero in the promotion
    promotion[e - 1] = static_cast<unsigned int>(n);
  }
  return *this;
}

OneError::operator Severity() const {
  const eSeverity level = s;
  if (level == NONE || level == PANIC || promotion[level - 1] == kDisabled) return s;
  int e = level;
  int result = level;
  unsigned int n = count;
  while (e < PANIC && n != 0) {
    const unsigned int threshold = promotion[e - 1];
    if (threshold == kDisabled || n < threshold) break;
    n /= threshold;
    ++e;
    if (e > result) result = e;
  }
  return Severity(static_cast<eSeverity>(result));
}

}  // namespace components
