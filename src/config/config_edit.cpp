// Changing a few values of an operator's configuration file in place.
#include "zqcommon/config_edit.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/atomic_file.h"
#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"

namespace zqcommon {

namespace {

struct Line {
  std::string body, end;  // end: "\n", "\r\n" or "" for a last line without one
};

std::vector<Line> split(const std::string& text) {
  std::vector<Line> lines;
  size_t at = 0;
  while (at < text.size()) {
    const size_t nl = text.find('\n', at);
    const size_t stop = nl == std::string::npos ? text.size() : nl;
    Line l{text.substr(at, stop - at), nl == std::string::npos ? "" : "\n"};
    if (!l.body.empty() && l.body.back() == '\r' && !l.end.empty()) {
      l.body.pop_back();
      l.end = "\r\n";
    }
    lines.push_back(std::move(l));
    at = stop + 1;
  }
  return lines;
}

// The line with its value replaced; the comment keeps its column while the
// blanks before it allow.
std::string replaced(const std::string& body, const std::string& value) {
  LINE l(body, 0);
  if (l.data != body || l.value == LINE::none) return l.Name() + " = " + value;
  std::string out = body;
  if (l.valuelen == 0 && l.comment != LINE::none) return out.insert(l.value, value + " ");
  if (l.valuelen == 0) return out.erase(l.eqsign + 1) + " " + value;
  out.replace(l.value, l.valuelen, value);
  const size_t after = l.value + value.size();
  if (l.comment == LINE::none) return out.erase(after);  // no trailing blanks left behind
  if (value.size() > l.valuelen) {
    size_t extra = value.size() - l.valuelen;
    while (extra > 0 && after + 1 < out.size() && out[after] == ' ' && out[after + 1] == ' ') {
      out.erase(after, 1);
      --extra;
    }
  } else {
    out.insert(after, l.valuelen - value.size(), ' ');
  }
  return out;
}

std::string read_all(const std::string& path, bool& ok) {
  std::ifstream in(path, std::ios::binary);
  ok = in.is_open() || errno == ENOENT;
  std::ostringstream s;
  if (in.is_open()) s << in.rdbuf();
  ok = ok && !in.bad();
  return s.str();
}

// What the reader answers for an entry that is not there: a line end, which
// no value read from a line can hold (any other text, "\x01" too, can be a
// value).
const char kAbsent[] = "\n";

std::string value_in(const std::string& text, const std::string& section, const std::string& key) {
  std::istringstream in(text);
  Config_File file(in);
  return file.get_entry(section, key, kAbsent);
}

}  // namespace

std::string Config_Edit::Apply(const std::string& text, const std::string& section, const std::string& key,
                               const std::string& value) {
  std::vector<Line> lines = split(text);
  const std::string eol = lines.empty() || lines[0].end.empty() ? "\n" : lines[0].end;
  const std::string entry = key + " = " + value;
  // The line the reader takes the value from, or where its section ends, by
  // the reader's own rules (which of several sections, case): line numbers
  // count from 1.
  std::istringstream in(text);
  Config_File file(in);
  if (file.has_section(section)) {
    int line = 0;
    if (file.get_entry(section, key, kAbsent, nullptr, &line) != kAbsent && line >= 1 &&
        static_cast<size_t>(line) <= lines.size()) {
      lines[static_cast<size_t>(line) - 1].body = replaced(lines[static_cast<size_t>(line) - 1].body, value);
    } else {
      const SECTION entries = file.get_section(section);
      const size_t after = static_cast<size_t>(entries.empty() ? entries.startline : entries.back()->Line());
      if (after >= lines.size() && !lines.empty() && lines.back().end.empty()) lines.back().end = eol;
      lines.insert(lines.begin() + static_cast<long>(std::min(after, lines.size())), Line{entry, eol});
    }
  } else {
    if (!lines.empty() && lines.back().end.empty()) lines.back().end = eol;
    if (!lines.empty() && !Trim(lines.back().body).empty()) lines.push_back(Line{"", eol});
    lines.push_back(Line{"[" + section + "]", eol});
    lines.push_back(Line{entry, eol});
  }
  std::string out;
  for (const Line& l : lines) out += l.body + l.end;
  return out;
}

bool Config_Edit::Read(std::string* why) {
  bool ok = false;
  std::string text = read_all(path_, ok);
  if (!ok) {
    if (why != nullptr) *why = "cannot read " + path_ + ": " + std::strerror(errno);
    return false;
  }
  base_ = std::move(text);
  return true;
}

bool Config_Edit::Set(const std::string& section, const std::string& key, const std::string& value) {
  if (value.find_first_of("\r\n#") != std::string::npos || Trim(value) != value) return false;
  for (Change& c : changes_) {
    if ((c.section ^= section) && (c.key ^= key)) {
      c.value = value;
      return true;
    }
  }
  changes_.push_back(Change{section, key, value});
  return true;
}

Config_Edit::Result Config_Edit::Save(std::string* why) {
  bool ok = false;
  std::string now = read_all(path_, ok);
  if (!ok) {
    if (why != nullptr) *why = "cannot read " + path_ + ": " + std::strerror(errno);
    return kFailed;
  }
  const bool changed = now != base_;
  if (changed) {
    for (const Change& c : changes_) {
      const std::string then = value_in(base_, c.section, c.key), there = value_in(now, c.section, c.key);
      if (then != there) {
        if (why != nullptr) {
          *why = Format("%s.%s was changed in %s since it was read (now '%s'); not saved", c.section.c_str(),
                        c.key.c_str(), path_.c_str(), there == kAbsent ? "" : there.c_str());
        }
        return kConflict;
      }
    }
  }
  for (const Change& c : changes_) now = Apply(now, c.section, c.key, c.value);
  if (!zqdetail::write_file_atomically(path_, now, 0644)) {
    if (why != nullptr) *why = "cannot write " + path_ + ": " + std::strerror(errno);
    return kFailed;
  }
  base_ = now;
  changes_.clear();
  if (why != nullptr) *why = changed ? path_ + " had changed since it was read; the changes were merged" : "";
  return changed ? kMerged : kSaved;
}

}  // namespace zqcommon
