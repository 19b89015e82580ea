// The members of one flat JSON object.
#include "zqfleet/JsonFields.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace zqfleet {

// Strings and numbers are written by nlohmann-json: escapes as JSON wants
// them, bytes that are not UTF-8 replaced by U+FFFD, and doubles in the
// shortest form that reads back to the same value (exact times included).
std::string JsonFields::Quote(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void JsonFields::key(const char* name) {
  if (!text_.empty()) text_ += ',';
  text_ += Quote(name);
  text_ += ':';
}

JsonFields& JsonFields::Add(const char* name, const std::string& text) {
  key(name);
  text_ += Quote(text);
  return *this;
}

JsonFields& JsonFields::Add(const char* name, long long number) {
  key(name);
  text_ += std::to_string(number);
  return *this;
}

JsonFields& JsonFields::Add(const char* name, double number) {
  key(name);
  if (!std::isfinite(number)) {
    text_ += "null";
    return *this;
  }
  text_ += nlohmann::json(number).dump();
  return *this;
}

std::string JsonFields::UtcTime(double seconds) {
  const time_t whole = static_cast<time_t>(std::floor(seconds));
  const int ms = static_cast<int>((seconds - static_cast<double>(whole)) * 1000.0);
  tm t{};
  gmtime_r(&whole, &t);
  char buf[40];
  const size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &t);
  std::snprintf(buf + n, sizeof buf - n, ".%03dZ", ms < 0 ? 0 : ms > 999 ? 999 : ms);
  return buf;
}

JsonFields& JsonFields::AddTime(const char* name, double seconds) { return Add(name, UtcTime(seconds)); }

JsonFields& JsonFields::AddRaw(const char* name, const std::string& json) {
  key(name);
  text_ += json;
  return *this;
}

}  // namespace zqfleet
