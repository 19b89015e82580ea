// [Device.NAME] sections: the device's address, timing and register map.
#include "zqdevices/DeviceConfig.h"

#include <zqcommon/lib_config.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace zqdevices {
namespace {

template <typename T>
struct Word {
  const char* text;
  T value;
};
const Word<DevicePoint::Table> kTables[] = {
    {"coil", DevicePoint::coil}, {"discrete", DevicePoint::discrete},
    {"holding", DevicePoint::holding}, {"input", DevicePoint::input}};
const Word<DevicePoint::Type> kTypes[] = {{"u16", DevicePoint::u16}, {"s16", DevicePoint::s16},
                                          {"u32", DevicePoint::u32}, {"s32", DevicePoint::s32},
                                          {"f32", DevicePoint::f32}, {"float", DevicePoint::f32}};
const Word<DevicePoint::Order> kOrders[] = {{"abcd", DevicePoint::abcd}, {"cdab", DevicePoint::cdab},
                                            {"badc", DevicePoint::badc}, {"dcba", DevicePoint::dcba}};

template <typename T, size_t N>
bool lookup(const Word<T> (&words)[N], const std::string& text, T& out) {
  for (const Word<T>& w : words)
    if (text == w.text) return out = w.value, true;
  return false;
}

bool parse_long(const std::string& text, long low, long high, long& out) {
  if (text.empty() || text.size() > 10) return false;
  char* end = nullptr;
  out = std::strtol(text.c_str(), &end, 10);
  return *end == '\0' && out >= low && out <= high;
}

bool parse_double(const std::string& text, double& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return *end == '\0' && out == out && out - out == 0;  // finite
}

}  // namespace

bool DevicePoint::ParseSpec(const std::string& spec, std::string& error) {
  std::istringstream in(spec);
  std::string word;
  if (!(in >> word) || !lookup(kTables, word, table)) {
    error = "table '" + word + "' is not coil, discrete, holding or input";
    return false;
  }
  long n = 0;
  if (!(in >> word) || !parse_long(word, 0, 65535, n)) {
    error = "address '" + word + "' is not 0..65535";
    return false;
  }
  address = static_cast<unsigned int>(n);
  const bool bits = table == coil || table == discrete;
  type = bits ? bit : u16;
  while (in >> word) {
    const size_t eq = word.find('=');
    const std::string key = word.substr(0, eq), value = eq == std::string::npos ? "" : word.substr(eq + 1);
    if (eq == std::string::npos && !bits && lookup(kTypes, word, type)) continue;
    if (eq == std::string::npos && !bits && lookup(kOrders, word, order)) continue;
    if (key == "scale" && parse_double(value, scale)) continue;
    if (key == "offset" && parse_double(value, offset)) continue;
    if (key == "unit" && !value.empty()) {
      unit = value;
      continue;
    }
    if (key == "safe" && table == coil && (value == "0" || value == "1")) {
      safe = value == "1";
      continue;
    }
    error = "'" + word + "' is not " +
            (bits ? std::string(table == coil ? "safe=0|1, " : "") : "a type (u16 s16 u32 s32 f32), a word order (abcd cdab badc dcba), ") +
            "scale=NUMBER, offset=NUMBER or unit=TEXT";
    return false;
  }
  if (address + Width() > 65536) {
    error = "address " + std::to_string(address) + " + " + std::to_string(Width()) + " registers passes 65535";
    return false;
  }
  return true;
}

bool DeviceConfig::FromSection(Config_File& cfg, const std::string& section, DeviceConfig& out,
                               std::string& error) {
  DeviceConfig d;
  d.name = section.substr(section.find('.') + 1);
  if (!cfg.has_section(section)) {
    error = cfg.getfilename() + ": no section [" + section + "]";
    return false;
  }
  SECTION entries = cfg.get_section(section);
  const std::string where = cfg.getfilename() + ":" + std::to_string(entries.startline) + ": [" + section + "]";
  if (d.name.empty() || section.find('.') == std::string::npos) {
    error = where + ": the device has no name ([Device.NAME])";
    return false;
  }
  bool have_url = false;
  for (LINE* line : entries) {
    const std::string key = line->Name(), value = line->Value();
    const std::string at = cfg.getfilename() + ":" + std::to_string(line->Line()) + ": " + key + " = '" + value + "': ";
    std::string lower = key;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    struct Int { const char* key; int* value; long low, high; };
    const Int ints[] = {{"unit", &d.unit, 0, 247},          {"periodms", &d.period_ms, 0, 86400000},
                        {"timeoutms", &d.timeout_ms, 1, 600000}, {"retries", &d.retries, 0, 10},
                        {"backoffms", &d.backoff_ms, 1, 86400000}, {"backoffmaxms", &d.backoff_max_ms, 1, 86400000}};
    bool done = false;
    for (const Int& i : ints) {
      if (lower != i.key) continue;
      long n = 0;
      if (!parse_long(value, i.low, i.high, n)) {
        error = at + "not " + std::to_string(i.low) + ".." + std::to_string(i.high);
        return false;
      }
      *i.value = static_cast<int>(n);
      done = true;
    }
    if (done) continue;
    if (lower == "url") {
      std::string why;
      if (!DeviceUrl::Parse(value, d.url, why)) {
        error = at + why;
        return false;
      }
      have_url = true;
    } else if (lower == "recovery") {
      if (value != "auto" && value != "command") {
        error = at + "not auto or command";
        return false;
      }
      d.recovery = value == "auto" ? recover_auto : recover_command;
    } else if (lower == "ioid") {
      long n = 0;
      if (!parse_long(value, 0, 1000000, n)) {
        error = at + "not 0..1000000";
        return false;
      }
      d.io_id = static_cast<unsigned int>(n);
    } else if (lower.compare(0, 6, "point.") == 0 || lower.compare(0, 4, "bit.") == 0) {
      DevicePoint p;
      std::string why;
      if (!p.ParseSpec(value, why)) {
        error = at + why;
        return false;
      }
      if (lower[0] == 'p') {
        p.name = key.substr(6);
        if (p.name.empty()) {
          error = at + "the point has no name";
          return false;
        }
      } else {
        long n = 0;
        if (!parse_long(key.substr(4), 0, 255, n) || (p.table != DevicePoint::coil && p.table != DevicePoint::discrete)) {
          error = at + "Bit.N takes N 0..255 and a coil or discrete input";
          return false;
        }
        p.io_bit = static_cast<int>(n);
        p.output = p.table == DevicePoint::coil;
        p.name = "bit " + std::to_string(n);
        for (const DevicePoint& q : d.points)
          if (q.io_bit == p.io_bit) {
            error = at + "bit " + std::to_string(n) + " is mapped twice";
            return false;
          }
      }
      d.points.push_back(p);
    } else {
      error = at + "unknown setting (Url, Unit, PeriodMs, TimeoutMs, Retries, Recovery, BackoffMs, BackoffMaxMs, "
                   "IoId, Point.NAME, Bit.N)";
      return false;
    }
  }
  if (!have_url) {
    error = where + ": no Url";
    return false;
  }
  if (d.backoff_max_ms < d.backoff_ms) d.backoff_max_ms = d.backoff_ms;
  out = std::move(d);
  return true;
}

bool DeviceConfig::LoadAll(Config_File& cfg, std::vector<DeviceConfig>& out, std::string& error) {
  std::vector<std::pair<int, std::string>> found;
  for (const std::string& name : cfg.get_sections()) {
    std::string lower = name.substr(0, 7);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower == "device.") found.emplace_back(cfg.get_section(name).startline, name);
  }
  std::sort(found.begin(), found.end());
  std::vector<DeviceConfig> all;
  for (const auto& f : found) {
    DeviceConfig d;
    if (!FromSection(cfg, f.second, d, error)) return false;
    all.push_back(std::move(d));
  }
  out = std::move(all);
  return true;
}

}  // namespace zqdevices
