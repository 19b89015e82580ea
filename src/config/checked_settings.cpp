// Settings loaded with every value checked, from files and the command line.
#include "zqcommon/checked_settings.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "zqcommon/ew.h"
#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"
#include "zqcommon/setting_check.h"

namespace zqcommon {

namespace {

// An integer as Config_Data reads it (automatic base, a 32-bit number, a
// k/M/G factor where the member is scaled), but the whole text and nothing
// else; false when it is not one.
bool whole_integer(const std::string& text, bool scaled, long long& value) {
  const char* p = text.c_str();
  if (scaled && *p == '+') ++p;
  if (*p == 0 || std::isspace(static_cast<unsigned char>(*p))) return false;
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(p, &end, 0);
  if (end == p || errno != 0 || number < INT32_MIN || number > INT32_MAX) return false;
  long long factor = 1;
  if (scaled && *end != 0) {
    const char f = *end++;
    factor = f == 'k' || f == 'K' ? 1LL << 10 : f == 'M' || f == 'm' ? 1LL << 20 : f == 'G' || f == 'g' ? 1LL << 30 : 0;
  }
  value = number * factor;
  return factor != 0 && *end == 0;
}

// Why `text` does not fit the member's kind, or "".
std::string kind_problem(const Config_Data_Entry& e, const std::string& text) {
  switch (e.Type()) {
    case cfg_INT:
    case cfg_UINT:
    case cfg_LONG: {
      const bool scaled = e.Base() == cfg_STORAGE;
      long long v = 0;
      if (!whole_integer(text, scaled, v)) return scaled ? "not an integer (k, M or G allowed)" : "not an integer";
      if (e.Type() == cfg_INT && (v < INT_MIN || v > INT_MAX)) return "out of the integer range";
      if (e.Type() == cfg_UINT && (v < 0 || v > static_cast<long long>(UINT_MAX))) return "not an integer in 0..4294967295";
      return "";
    }
    case cfg_FLOAT: {
      const char* p = text.c_str();
      char* end = nullptr;
      const double v = std::strtod(p, &end);
      if (end == p || *end != 0 || std::isspace(static_cast<unsigned char>(*p)) || !std::isfinite(v)) return "not a number";
      return "";
    }
    case cfg_BOOL: return text == "0" || text == "1" ? "" : "not 0 or 1";
    case cfg_SELF: return "a section, not a value";
    default: return "";
  }
}

std::string shown(const std::string& text) {
  std::string s;
  for (size_t i = 0; i < text.size() && i < 60; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    s += c < 0x20 || c >= 0x7f ? '?' : text[i];
  }
  return text.size() > 60 ? s + "..." : s;
}

std::string problem(const std::string& where, const std::string& path, const std::string& value,
                    const std::string& why) {
  return Format("%s: %s = '%s': %s", where.c_str(), path.c_str(), shown(value).c_str(), why.c_str());
}

}  // namespace

Checked_Settings& Checked_Settings::Add(const std::string& name, Config_Data& data) {
  sections_.emplace_back(name, &data);
  for (auto& entry : data) {
    if (entry.second.Type() == cfg_SELF) {
      Add(name + Config_Data::EW_SUBCFG_SEPARATOR + entry.first, *static_cast<Config_Data*>(entry.second.GetPointer()));
    }
  }
  return *this;
}

Config_Data* Checked_Settings::section(const std::string& name) const {
  for (const auto& s : sections_) {
    if (s.first ^= name) return s.second;
  }
  return nullptr;
}

Config_Data_Entry* Checked_Settings::Find(const std::string& path) {
  const auto dot = path.rfind('.');
  if (dot == std::string::npos) return nullptr;
  Config_Data* data = section(path.substr(0, dot));
  if (data == nullptr) return nullptr;
  const std::string key = path.substr(dot + 1);
  for (auto& entry : *data) {
    if ((entry.first ^= key) && entry.second.Type() != cfg_SELF) return &entry.second;
  }
  return nullptr;
}

std::string Checked_Settings::check(const std::string& path, Config_Data_Entry& entry,
                                    const std::string& value) const {
  // The rule first: it names the range as well as the kind.
  std::string why = rules_ != nullptr ? rules_->Reason(path, value) : "";
  if (why.empty()) why = kind_problem(entry, value);
  if (why.empty() && entry.Type() == cfg_CHARS && value.size() >= entry.Size()) {
    why = Format("longer than %zu characters", entry.Size() - 1);
  }
  return why;
}

std::string Checked_Settings::Problem(const std::string& path, const std::string& value) {
  const auto dot = path.rfind('.');
  if (dot == std::string::npos) return "not Section.Key";
  if (section(path.substr(0, dot)) == nullptr) return "no section [" + path.substr(0, dot) + "]";
  Config_Data_Entry* e = Find(path);
  if (e == nullptr) return "no setting " + path.substr(dot + 1) + " in [" + path.substr(0, dot) + "]";
  return check(path, *e, value);
}

std::string Checked_Settings::Set(const std::string& path, const std::string& value) {
  std::string why = Problem(path, value);
  if (why.empty() && !(*Find(path) = value)) why = "not taken";
  return why;
}

std::vector<std::string> Checked_Settings::Load(Config_File& file) {
  std::vector<std::string> problems;
  for (const auto& s : sections_) {
    if (!file.has_section(s.first)) continue;
    for (const std::string& key : file.get_section_entries(s.first)) {
      int line = 0;
      const std::string value = file.get_entry(s.first, key, "", nullptr, &line);
      const std::string path = s.first + "." + key;
      const std::string why = Problem(path, value);
      if (!why.empty()) problems.push_back(problem(Format("%s:%d", file.getfilename().c_str(), line), path, value, why));
    }
  }
  if (!problems.empty()) return problems;
  for (const auto& s : sections_) {
    // Sub-structures are loaded by their parent.
    bool sub = false;
    for (const auto& parent : sections_) {
      sub = sub || (s.first.size() > parent.first.size() && s.first.compare(0, parent.first.size() + 1, parent.first + ".") == 0);
    }
    if (!sub) s.second->Load(file, s.first);
  }
  return problems;
}

int Checked_Settings::TakeOverrides(int& argc, char** argv) {
  int kept = 1, taken = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i] != nullptr ? argv[i] : "";
    const auto eq = a.find('=');
    const auto dot = a.find('.');
    if (!a.empty() && std::isalpha(static_cast<unsigned char>(a[0])) && eq != std::string::npos &&
        dot < eq) {
      overrides_.push_back(Override{i, a.substr(0, eq), a.substr(eq + 1)});
      ++taken;
    } else {
      argv[kept++] = argv[i];
    }
  }
  if (argc > 0) {
    argc = kept;
    argv[argc] = nullptr;
  }
  return taken;
}

std::vector<std::string> Checked_Settings::ApplyOverrides() {
  std::vector<std::string> problems;
  for (const Override& o : overrides_) {
    const std::string why = Problem(o.path, o.value);
    if (!why.empty()) problems.push_back(problem(Format("command line:%d", o.argument), o.path, o.value, why));
  }
  if (!problems.empty()) return problems;
  for (const Override& o : overrides_) {
    const std::string why = Set(o.path, o.value);
    if (!why.empty()) problems.push_back(problem(Format("command line:%d", o.argument), o.path, o.value, why));
  }
  return problems;
}

}  // namespace zqcommon
