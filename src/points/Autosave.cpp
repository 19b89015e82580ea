#include "zqpoints/Autosave.h"

#include <time.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

#include "core/atomic_file.h"
#include "zqsecurity/crc32.h"

namespace zqpoints {

namespace {

const char kHeader[] = "# zq autosave\n";

int64_t monotonic_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

std::string one_line(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  return s;
}

std::string trim(const std::string& s) {
  const auto a = s.find_first_not_of(" \t");
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(" \t") - a + 1);
}

// The values of a complete state file; false with the reason when the file
// is missing, torn or altered.
bool read_state(const std::string& path, std::map<std::string, std::string>& out,
                std::string& why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return why = "missing", false;
  std::stringstream ss;
  ss << in.rdbuf();
  const std::string text = ss.str();
  const auto end = text.rfind("end ");
  if (end == std::string::npos || (end != 0 && text[end - 1] != '\n'))
    return why = "torn (no end marker)", false;
  unsigned long count = 0, crc = 0;
  char tail = 0;
  if (std::sscanf(text.c_str() + end, "end %lu %lx%c", &count, &crc, &tail) != 3 || tail != '\n' ||
      text.find('\n', end) != text.size() - 1)
    return why = "torn (bad end marker)", false;
  if (mk_crc32(text.data(), static_cast<unsigned int>(end)) != crc)
    return why = "damaged (checksum differs)", false;
  std::map<std::string, std::string> values;
  std::istringstream lines(text.substr(0, end));
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    const auto eq = line.find(" = ");
    if (eq == std::string::npos) return why = "damaged (line without ' = ')", false;
    values[line.substr(0, eq)] = line.substr(eq + 3);
  }
  if (values.size() != count) return why = "damaged (entry count differs)", false;
  out.swap(values);
  return true;
}

}  // namespace

Autosave::Autosave(std::string path, int64_t delay_ms)
    : path_(std::move(path)), delay_ns_(delay_ms * 1000000) {}

Autosave::Source Autosave::Load(std::string& note) {
  std::string why, why_backup;
  if (read_state(path_, values_, why)) {
    note = "set-points restored from " + path_;
    return Source::File;
  }
  if (read_state(path_ + ".bak", values_, why_backup)) {
    note = "state file " + path_ + " " + why + "; set-points restored from the backup " + path_ +
           ".bak";
    return Source::Backup;
  }
  values_.clear();
  note = "state file " + path_ + " " + why + ", backup " + why_backup +
         "; set-points from the configuration";
  return Source::None;
}

void Autosave::Set(const std::string& name, const std::string& value) {
  const std::string n = trim(one_line(name)), v = one_line(value);
  auto it = values_.find(n);
  if (it != values_.end() && it->second == v) return;
  values_[n] = v;
  if (!dirty_) changed_ns_ = monotonic_ns();
  dirty_ = true;
}

void Autosave::Erase(const std::string& name) {
  if (values_.erase(name) == 0) return;
  if (!dirty_) changed_ns_ = monotonic_ns();
  dirty_ = true;
}

bool Autosave::Poll() {
  if (!dirty_ || monotonic_ns() - changed_ns_ < delay_ns_) return true;
  return Flush();
}

bool Autosave::Flush() {
  if (!dirty_) return true;
  std::string text = kHeader;
  for (const auto& v : values_) text += v.first + " = " + v.second + "\n";
  char end[40];
  std::snprintf(end, sizeof end, "end %zu %08x\n", values_.size(),
                mk_crc32(text.data(), static_cast<unsigned int>(text.size())));
  text += end;
  // The previous complete file becomes the backup before it is replaced.
  std::map<std::string, std::string> previous;
  std::string why;
  if (read_state(path_, previous, why)) {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream old;
    old << in.rdbuf();
    if (!zqdetail::write_file_atomically(path_ + ".bak", old.str(), 0600, true)) return false;
  }
  if (!zqdetail::write_file_atomically(path_, text, 0600, true)) return false;
  dirty_ = false;
  return true;
}

}  // namespace zqpoints
