// Typed, ranged checks for settings given as text.
#include "zqcommon/setting_check.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "zqcommon/ew.h"
#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"

namespace zqcommon {

namespace {

const char* kind_name(Setting_Check::Kind kind) {
  switch (kind) {
    case Setting_Check::kInteger: return "an integer";
    case Setting_Check::kOctal: return "an octal integer";
    case Setting_Check::kSize: return "an integer (k, M or G allowed)";
    case Setting_Check::kReal: return "a number";
    default: return "a text";
  }
}

// The whole text as a number of the kind, or false. Blanks around are
// allowed, nothing else after the number.
bool read_number(const std::string& text, Setting_Check::Kind kind, long double& value) {
  const std::string t = Trim(text);
  if (t.empty()) return false;
  const char* begin = t.c_str();
  char* end = nullptr;
  errno = 0;
  if (kind == Setting_Check::kReal) {
    value = std::strtold(begin, &end);
    if (!std::isfinite(static_cast<double>(value))) return false;
  } else {
    const long long v = std::strtoll(begin, &end, kind == Setting_Check::kOctal ? 8 : 10);
    value = static_cast<long double>(v);
    if (kind == Setting_Check::kSize && end != begin && *end != 0 && end[1] == 0) {
      const char f = *end;
      const long double factor = f == 'k' || f == 'K' ? 1024.0L
                                 : f == 'M'           ? 1048576.0L
                                 : f == 'G'           ? 1073741824.0L
                                                      : 0.0L;
      if (factor == 0) return false;
      value *= factor;
      ++end;
    }
  }
  return errno == 0 && end != begin && *end == 0;
}

std::string bound_text(long double v, Setting_Check::Kind kind) {
  if (kind == Setting_Check::kReal) return Format("%Lg", v);
  if (kind == Setting_Check::kOctal) return Format("0%llo", static_cast<unsigned long long>(v));
  return Format("%lld", static_cast<long long>(v));
}

}  // namespace

Setting_Check& Setting_Check::add(const std::string& path, Kind kind, long double min,
                                  long double max) {
  rules_.push_back(Rule{path, kind, min, max, {}});
  return *this;
}

Setting_Check& Setting_Check::Integer(const std::string& path, long long min, long long max) {
  return add(path, kInteger, min, max);
}
Setting_Check& Setting_Check::Octal(const std::string& path, long long min, long long max) {
  return add(path, kOctal, min, max);
}
Setting_Check& Setting_Check::Size(const std::string& path, long long min, long long max) {
  return add(path, kSize, min, max);
}
Setting_Check& Setting_Check::Real(const std::string& path, double min, double max) {
  return add(path, kReal, min, max);
}
Setting_Check& Setting_Check::Text(const std::string& path, size_t max_length) {
  return add(path, kText, 0, static_cast<long double>(max_length));
}

Setting_Check& Setting_Check::Choice(const std::string& path, const std::vector<std::string>& words) {
  add(path, kChoice, 0, 0).rules_.back().words = words;
  return *this;
}

const Setting_Check::Rule* Setting_Check::find(const std::string& path) const {
  for (const Rule& r : rules_) {
    if (strcasecmp(r.path.c_str(), path.c_str()) == 0) return &r;
  }
  return nullptr;
}

std::string Setting_Check::Reason(const std::string& path, const std::string& text) const {
  const Rule* r = find(path);
  if (r == nullptr) return "";
  if (r->kind == kChoice) {
    for (const std::string& w : r->words) {
      if (strcasecmp(w.c_str(), Trim(text).c_str()) == 0) return "";
    }
    return "not " + Allowed(path);
  }
  if (r->kind == kText) {
    for (const char c : text) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return "control characters";
    }
    if (text.size() > r->max) return Format("longer than %s characters", bound_text(r->max, kInteger).c_str());
    return "";
  }
  // Settings read integers in automatic base: "010" would pass here as ten
  // and be taken as eight.
  const std::string t = Trim(text);
  const size_t digit = t.find_first_not_of("+-");
  if ((r->kind == kInteger || r->kind == kSize) && digit != std::string::npos && t[digit] == '0' &&
      digit + 1 < t.size() && std::isdigit(static_cast<unsigned char>(t[digit + 1]))) {
    return "an integer with a leading 0, which reads as octal";
  }
  long double v = 0;
  if (read_number(text, r->kind, v) && v >= r->min && v <= r->max) return "";
  return "not " + Allowed(path);
}

std::string Setting_Check::Allowed(const std::string& path) const {
  const Rule* r = find(path);
  if (r == nullptr) return "";
  if (r->kind == kChoice) {
    std::string list;
    for (const std::string& w : r->words) list += (list.empty() ? "" : ", ") + w;
    return "one of " + list;
  }
  if (r->kind == kText) return Format("at most %s characters", bound_text(r->max, kInteger).c_str());
  return Format("%s in %s..%s", kind_name(r->kind), bound_text(r->min, r->kind).c_str(),
                bound_text(r->max, r->kind).c_str());
}

bool Setting_Check::Check(const std::string& path, const std::string& text, std::string* why) const {
  const std::string reason = Reason(path, text);
  if (reason.empty()) return true;
  // The value is quoted as far as it is printable and short.
  std::string shown;
  for (size_t i = 0; i < text.size() && i < 40; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    shown += c < 0x20 || c >= 0x7f ? '?' : text[i];
  }
  if (text.size() > 40) shown += "...";
  if (why != nullptr) *why = Format("%s: '%s' is %s", find(path)->path.c_str(), shown.c_str(), reason.c_str());
  return false;
}

bool Setting_Check::Assign(Config_Data_Entry& entry, const std::string& path,
                           const std::string& text, std::string* why) const {
  if (!Check(path, text, why)) return false;
  if (entry = text) return true;
  if (why != nullptr) *why = Format("%s: '%s' does not fit", path.c_str(), text.c_str());
  return false;
}

bool Setting_Check::CheckFile(Config_File& file, std::string* why) const {
  static const std::string kAbsent = "\x01";
  for (const Rule& r : rules_) {
    const auto dot = r.path.find('.');
    if (dot == std::string::npos) continue;
    const std::string section = r.path.substr(0, dot), key = r.path.substr(dot + 1);
    if (!file.has_section(section)) continue;
    const std::string text = file.get_entry(section, key, kAbsent);
    if (text == kAbsent) continue;
    if (!Check(r.path, text, why)) {
      if (why != nullptr) *why = file.getfilename() + ": " + *why;
      return false;
    }
  }
  return true;
}

}  // namespace zqcommon
