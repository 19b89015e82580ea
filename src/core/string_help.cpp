// Formatting into strings, case handling, small renderers and file names.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/chartype.h"
#include "zqcommon/functions.h"

namespace {

constexpr std::string::size_type kFirstTry = 128;
constexpr std::string::size_type kRetryStep = 1024;
constexpr std::string::size_type kRetryLimit = 1024 * 1024;

int format_into(std::string& out, std::string::size_type size, const char* format,
                va_list args) {
  out.resize(size);
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(&out[0], size, format, copy);
  va_end(copy);
  return n;
}

}  // namespace

std::string& vFormat(std::string& out, const char* format, va_list args) {
  if (format == nullptr) {
    out.clear();
    return out;
  }
  int n = format_into(out, kFirstTry, format, args);
  if (n > static_cast<int>(kFirstTry)) {
    n = format_into(out, static_cast<std::string::size_type>(n) + kFirstTry, format, args);
  }
  if (n < 0) {
    for (std::string::size_type size = kRetryStep; size < kRetryLimit && n < 0;
         size += kRetryStep) {
      n = format_into(out, size, format, args);
    }
    if (n < 0) {
      out.resize(std::strlen(out.c_str()));
      return out;
    }
  }
  // A result of exactly 128 characters stays as the formatter left it:
  // 127 characters and a terminating zero (long-standing behaviour).
  if (static_cast<std::string::size_type>(n) != kFirstTry) out.resize(n);
  return out;
}

std::string& Format(std::string& out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vFormat(out, format, args);
  va_end(args);
  return out;
}

std::string Format(const char* format, ...) {
  std::string out;
  va_list args;
  va_start(args, format);
  vFormat(out, format, args);
  va_end(args);
  return out;
}

std::string strlist(const std::vector<int>& values) {
  std::string out;
  char buf[16];
  for (int v : values) {
    std::snprintf(buf, sizeof buf, "%i, ", v);
    out += buf;
  }
  if (out.size() >= 3) out.resize(out.size() - 2);
  return out;
}

std::string binstr(unsigned int value, int highbit) {
  std::string out;
  const bool skip_leading = highbit < 0;
  bool seen_one = false;
  for (int bit = skip_leading ? 31 : highbit; bit >= 0; --bit) {
    const bool set = bit < 32 && ((value >> bit) & 1u) != 0;
    if (set) seen_one = true;
    if (skip_leading && !seen_one) continue;
    out += set ? '1' : '0';
  }
  return out;
}

std::string cool_header(std::string text, int style, int width) {
  struct Frame {
    const char *tl, *top, *tr, *left, *right, *bl, *bottom, *br;
  };
  static const Frame kFrames[2] = {
      {" ", "/\\", " ", "< ", " >", " ", "\\/", " "},
      {"", "*", "", "* ", " *", "", "*", ""},
  };
  static const Frame kNone = {"", "", "", "", "", "", "", ""};
  const Frame& f = (style == 0 || style == 1) ? kFrames[style] : kNone;
  const long tl = static_cast<long>(std::strlen(f.tl)), tr = static_cast<long>(std::strlen(f.tr));
  const long left = static_cast<long>(std::strlen(f.left));
  const long right = static_cast<long>(std::strlen(f.right));
  const long top_fill = static_cast<long>(std::strlen(f.top));
  const long bottom_fill = static_cast<long>(std::strlen(f.bottom));

  std::vector<std::string> lines;
  long longest = 0;
  while (!text.empty()) {
    std::string line = GetExtToken(&text, "\n");
    chop(line);
    longest = std::max(longest, static_cast<long>(line.size()));
    lines.push_back(std::move(line));
  }
  long w = longest + left + right;
  if (width != 0 && width > w) w = width;
  if (top_fill > 0) {
    while ((w - tl - tr) % top_fill != 0) ++w;
  }
  auto rule = [w](const char* a, const char* fill, long fill_len, const char* b, long a_len,
                  long b_len) {
    std::string out = a;
    if (fill_len > 0) {
      for (long i = 0; i < (w - a_len - b_len) / fill_len; ++i) out += fill;
    }
    return out += b;
  };
  std::string out = rule(f.tl, f.top, top_fill, f.tr, tl, tr);
  out += "\r\n";
  for (const std::string& line : lines) {
    const long room = std::max(0L, w - static_cast<long>(line.size()) - left - right);
    const std::string pad(static_cast<std::string::size_type>(room / 2), ' ');
    out += f.left;
    out += pad;
    out += line;
    out += pad;
    if (room % 2 != 0) out += ' ';
    out += f.right;
    out += "\r\n";
  }
  out += rule(f.bl, f.bottom, bottom_fill, f.br, static_cast<long>(std::strlen(f.bl)),
              static_cast<long>(std::strlen(f.br)));
  return out;
}

std::string::size_type count_split_lines(const std::string& text, std::string::size_type pos,
                                         int& lines) {
  lines = 0;
  std::string::size_type last = std::string::npos;
  std::string::size_type from = 0;
  std::string::size_type hit;
  while ((hit = text.find("\r\n", from)) != std::string::npos && hit <= pos) {
    ++lines;
    last = hit;
    from = hit + 1;
  }
  return last;
}

std::string& toupper(std::string& s) {
  for (char& c : s) c = zqdetail::upper(c);
  return s;
}

std::string& tolower(std::string& s) {
  for (char& c : s) c = zqdetail::lower(c);
  return s;
}

std::string& invert(std::string& s) {
  for (char& c : s) {
    c = std::islower(static_cast<unsigned char>(c)) ? zqdetail::upper(c) : zqdetail::lower(c);
  }
  return s;
}

std::string& operator++(std::string& s) { return toupper(s); }
std::string& operator--(std::string& s) { return tolower(s); }
std::string& operator!(std::string& s) { return invert(s); }

bool operator^=(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::string::size_type i = 0; i < a.size(); ++i) {
    if (zqdetail::upper(a[i]) != zqdetail::upper(b[i])) return false;
  }
  return true;
}

std::string::size_type ifind(std::string s, std::string sub, std::string::size_type pos) {
  const auto hit = s.find(sub, pos);
  if (hit != std::string::npos) return hit;
  return toupper(s).find(toupper(sub), pos);
}

Filename& Filename::operator=(const std::string& path) {
  path_ = path;
  trim(path_);
  return *this;
}

std::string Filename::Name() const {
  const auto slash = path_.rfind('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

std::string Filename::Ext() const {
  const std::string name = Name();
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot);
}

std::string Filename::Basename() const {
  const std::string name = Name();
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

std::string Filename::Path() const {
  const auto slash = path_.rfind('/');
  return slash == std::string::npos ? std::string() : path_.substr(0, slash + 1);
}

bool Filename::IsAbsolute() const { return !path_.empty() && path_[0] == '/'; }
