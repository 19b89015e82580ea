// BASIC-style string functions: trimming, quote-aware tokens, quoting, tests.
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/chartype.h"
#include "zqcommon/functions.h"

using zqdetail::is_blank;

namespace {

// Index of the first non-blank character, or s.size().
std::string::size_type first_non_blank(const std::string& s) {
  std::string::size_type i = 0;
  while (i < s.size() && is_blank(s[i])) ++i;
  return i;
}

// One past the last non-blank character, or 0 for an all-blank text.
std::string::size_type end_non_blank(const std::string& s) {
  std::string::size_type n = s.size();
  while (n > 0 && is_blank(s[n - 1])) --n;
  return n;
}

bool is_line_end(char c) { return c == '\r' || c == '\n'; }

// Quote state shared by GetExtToken and brace_check: a double quote toggles
// unless a single backslash precedes it (an escaped backslash does not escape).
bool quote_toggles(const std::string& s, std::string::size_type i) {
  if (s[i] != '"') return false;
  if (i == 0 || s[i - 1] != '\\') return true;
  return i >= 2 && s[i - 2] == '\\';
}

}  // namespace

std::string& trim(std::string& s) {
  const auto end = end_non_blank(s);
  s.erase(end);
  s.erase(0, first_non_blank(s));
  return s;
}

std::string Trim(std::string s) { return trim(s); }
std::string Clean(std::string s) { return trim(s); }
std::string LTrim(std::string s) { return s.erase(0, first_non_blank(s)); }
std::string LClean(std::string s) { return LTrim(std::move(s)); }
std::string RTrim(std::string s) { return s.erase(end_non_blank(s)); }
std::string RClean(std::string s) { return RTrim(std::move(s)); }

std::string& chop(std::string& s) {
  std::string::size_type n = s.size();
  while (n > 0 && is_line_end(s[n - 1])) --n;
  s.erase(n);
  std::string::size_type i = 0;
  while (i < s.size() && is_line_end(s[i])) ++i;
  return s.erase(0, i);
}

std::string GetToken(std::string* s) {
  if (s == nullptr) return std::string();
  std::string& src = *s;
  std::string::size_type i = first_non_blank(src);
  bool quoted = false;
  while (i < src.size() && (quoted || !is_blank(src[i]))) {
    if (src[i] == '"') quoted = !quoted;
    ++i;
  }
  if (i >= src.size()) {
    std::string all;
    all.swap(src);
    return all;
  }
  std::string word = src.substr(0, i);  // keeps the leading blanks
  while (i < src.size() && is_blank(src[i])) ++i;
  src.erase(0, i);
  return word;
}

std::string GetExtToken(std::string* s, const std::string& sep) {
  if (s == nullptr) return std::string();
  std::string& src = *s;
  std::string::size_type found = sep.empty() ? std::string::npos : src.find(sep);
  bool quoted = false;
  std::string::size_type i = 0;
  for (; i < src.size(); ++i) {
    if (i == found) {
      if (!quoted) break;
      found = src.find(sep, i + 1);  // this one lies inside quotes
    }
    if (quote_toggles(src, i)) quoted = !quoted;
  }
  if (i >= src.size()) {
    std::string all;
    all.swap(src);
    return all;
  }
  std::string token = src.substr(0, i);
  src.erase(0, i + sep.size());
  return token;
}

std::string quote(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    switch (u) {
      case 0: out += "\\0"; break;
      case 7: out += "\\a"; break;
      case 8: out += "\\b"; break;
      case 9: out += "\\t"; break;
      case 10: out += "\\n"; break;
      case 11: out += "\\v"; break;
      case 12: out += "\\f"; break;
      case 13: out += "\\r"; break;
      default:
        if (u < 32) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\%o", static_cast<unsigned>(u));
          out += buf;
        } else {
          out += c;  // includes '"' and '\\', deliberately unescaped
        }
    }
  }
  out += '"';
  return out;
}

std::string dequote(const std::string& text) {
  if (text.empty()) return text;
  std::string out;
  out.reserve(text.size());
  const char* p = text.c_str();
  const std::string::size_type n = text.size();
  std::string::size_type i = 0;
  while (i < n) {
    const char c = p[i];
    if (c != '\\') {
      out += c;
      ++i;
      continue;
    }
    if (i + 1 >= n) break;  // a trailing backslash is dropped
    switch (p[i + 1]) {
      case '"': out += '"'; break;
      case '0': out += '\0'; break;
      case '\\': out += '\\'; break;
      case 'a': out += '\a'; break;
      case 'b': out += '\b'; break;
      case 'f': out += '\f'; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case 'v': out += '\v'; break;
      default: break;
    }
    // An octal number may follow from the character after the backslash.
    char* end = nullptr;
    const long value = std::strtol(p + i + 1, &end, 8);
    if (end != p + i + 1) {
      out += static_cast<char>(value);
      i = static_cast<std::string::size_type>(end - p);
    } else {
      i += 2;
    }
  }
  if (!out.empty() && out.front() == '"') out.erase(0, 1);
  if (!out.empty() && out.back() == '"') out.pop_back();
  return out;
}

bool IsQuoted(const std::string& text) {
  const auto i = first_non_blank(text);
  return i < text.size() && text[i] == '"';
}

bool quote_check(const std::string& text) {
  const auto start = first_non_blank(text);
  bool outside = true;
  for (auto i = start; i < text.size(); ++i) {
    if (text[i] == '"' && (i == start || text[i - 1] != '\\')) outside = !outside;
  }
  return outside;
}

bool brace_check(const std::string& text) {
  int round = 0, square = 0, curly = 0;
  bool quoted = false;
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    if (quote_toggles(text, i)) quoted = !quoted;
    if (quoted) continue;
    switch (text[i]) {
      case '(': ++round; break;
      case ')': --round; break;
      case '[': ++square; break;
      case ']': --square; break;
      case '{': ++curly; break;
      case '}': --curly; break;
      default: break;
    }
    if (round < 0 || square < 0 || curly < 0) break;
  }
  return round != 0 || square != 0 || curly != 0;
}

std::string& replace(std::string& s, const std::string& what, const std::string& with) {
  if (what.empty()) return s;
  std::string::size_type p = 0;
  while ((p = s.find(what, p)) != std::string::npos) {
    s.replace(p, what.size(), with);
    p += with.size();
  }
  return s;
}

std::string Replace(std::string s, const std::string& what, const std::string& with) {
  return replace(s, what, with);
}

std::string itostr(int value) { return std::to_string(value); }

bool IsNumeric(const std::string& text) {
  if (text.empty()) return false;
  const char* begin = text.c_str();
  const char* full = begin + text.size();
  char* end = nullptr;
  std::strtol(begin, &end, 0);
  if (end == full) return true;
  std::strtod(begin, &end);
  return end == full;
}

bool IsText(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < 'a' || c > 'z') return false;
  }
  return true;
}

double get_systime() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}

namespace {

bool is_leap(long y) { return (y % 4 == 0) && (y % 100 != 0 || y % 400 == 0); }

// Leap years in 1..y.
long leaps_through(long y) { return y / 4 - y / 100 + y / 400; }

}  // namespace

// The classic definition loops over the years 1970 .. year-1 and, inside that
// loop, either sets the result to the day's seconds (day != 0) and adds the
// month lengths of that year, or (day == 0) keeps adding the month lengths.
// Computed here in closed form with the same results, so a huge year costs
// nothing.
long make_sec(int year, int month, int day) {
  if (year <= 1970) return 0;
  static const long kMonthDays[11] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30};
  const long m = std::labs(static_cast<long>(month));
  const long d = std::labs(static_cast<long>(day));
  long months = 0;  // months before `month` in a common year, in seconds
  for (long i = 2; i <= m && i <= 12; ++i) months += kMonthDays[i - 2] * 86400L;
  const bool has_february = m >= 3;
  const long last = static_cast<long>(year) - 1;
  if (d != 0) {
    return (d - 1) * 86400L + months + ((has_february && is_leap(last)) ? 86400L : 0);
  }
  const long years = last - 1970 + 1;
  const long leap_days = has_february ? leaps_through(last) - leaps_through(1969) : 0;
  return years * months + leap_days * 86400L;
}

bool Like(const std::string&, const std::string&) { return false; }
std::string dehex(const std::string&) { return std::string(); }
