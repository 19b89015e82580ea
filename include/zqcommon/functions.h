// String helpers, file names and clocks used by every text format of the library.
//
// All functions are free functions in the global namespace working on
// std::string. They are reentrant, except the tick counters (GetUTickCount and
// the two built on it) whose first call fixes a process-wide origin. None of
// them throws other than std::bad_alloc.
//
// A "blank" is a character for which isspace() is true in the C locale; bytes
// 128 to 255 are never blanks.
#ifndef ZQCOMMON_FUNCTIONS_H
#define ZQCOMMON_FUNCTIONS_H

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "zqcommon/export.h"

// ---------------------------------------------------------------- formatting

// Formats into `out` (printf rules) and returns it. The text is formatted into
// 128 characters first and again into the reported length plus 128 when it did
// not fit. A result of exactly 128 characters is kept as the formatter left it:
// 127 characters followed by a zero character, length 128 (kept on purpose).
// When the formatter fails outright, buffers of 1024, 2048, ... bytes are tried
// up to 1 MiB and the result is what was formatted, up to its first zero.
ZQ_EXPORT std::string& vFormat(std::string& out, const char* format, va_list args);
ZQ_EXPORT std::string& Format(std::string& out, const char* format, ...)
              __attribute__((format(printf, 2, 3)));
ZQ_EXPORT std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "1, 2, 3" for {1, 2, 3}; "" for an empty vector.
ZQ_EXPORT std::string strlist(const std::vector<int>& values);

// Bits `highbit` down to 0 as '1'/'0' (highbit + 1 characters). With highbit -1
// the walk starts at bit 31 and leading zeros are left out, so 0 gives "".
ZQ_EXPORT std::string binstr(unsigned int value, int highbit = -1);

// A framed, centred block of the text's lines, lines joined by "\r\n" and the
// bottom line without a line end. Style 0 frames with "/\" and "< >", style 1
// with '*'. Any other style has no frame at all.
ZQ_EXPORT std::string cool_header(std::string text, int style, int width);

// Counts the "\r\n" pairs that start at or before `pos` into `lines` and
// returns the start of the last one, or std::string::npos when there is none.
ZQ_EXPORT std::string::size_type count_split_lines(const std::string& text,
                                                   std::string::size_type pos, int& lines);

// ------------------------------------------------------------- case handling

// In place, returning the argument.
ZQ_EXPORT std::string& toupper(std::string& s);
ZQ_EXPORT std::string& tolower(std::string& s);
// Lower case to upper case, every other character through lower-case conversion.
ZQ_EXPORT std::string& invert(std::string& s);
ZQ_EXPORT std::string& operator++(std::string& s);  // toupper
ZQ_EXPORT std::string& operator--(std::string& s);  // tolower
ZQ_EXPORT std::string& operator!(std::string& s);   // invert

// Case-insensitive equality: equal length and equal characters after upper-case
// conversion. Changes neither argument.
ZQ_EXPORT bool operator^=(const std::string& a, const std::string& b);

// Position of `sub` in `s` from `pos`, retried case-insensitively when the exact
// search fails; std::string::npos when not found.
ZQ_EXPORT std::string::size_type ifind(std::string s, std::string sub,
                                       std::string::size_type pos = 0);

// ---------------------------------------------------------------- file names

// A path split into its parts. Assigning (or constructing from) a string stores
// it with surrounding blanks trimmed; it converts back unchanged.
class ZQ_EXPORT Filename {
 public:
  Filename() = default;
  Filename(const std::string& path) { *this = path; }  // NOLINT: implicit on purpose
  Filename& operator=(const std::string& path);
  operator std::string() const { return path_; }

  // The part after the last '/', or the whole text: "x.tar.gz".
  std::string Name() const;
  // Of Name(), from the last '.' on: ".gz"; "" when the name has no dot.
  std::string Ext() const;
  // Of Name(), before the last '.': "x.tar"; the whole name when it has no dot.
  std::string Basename() const;
  // Up to and including the last '/': "/etc/app/"; "" when there is none.
  std::string Path() const;
  // True when the text begins with '/'.
  bool IsAbsolute() const;

 private:
  std::string path_;
};

// -------------------------------------------------------------------- clocks

// Microseconds since a process-wide origin: the whole second of the first
// call, which itself returns only the microsecond part of the current time.
ZQ_EXPORT double GetUTickCount();
ZQ_EXPORT double GetMTickCount();  // GetUTickCount() / 1000
ZQ_EXPORT double GetSTickCount();  // GetUTickCount() / 1000000
// Seconds since 1970 with microseconds as the fraction.
ZQ_EXPORT double GetUTC();
// Microseconds since 1970.
ZQ_EXPORT int64_t GetLLTicks();
// Seconds since 1970 (UTC) to a calendar date by way of the Julian day number.
ZQ_EXPORT void split_unix_time(double t, int& year, int& month, int& day, int& hour, int& minute,
                               double& second);
// "dd.mm.yyyy hh:mm:ss.mmm", day first: mktimestr(0) is "01.01.1970 00:00:00.000".
ZQ_EXPORT std::string mktimestr(double t);

// ---------------------------------------------------- BASIC-style functions

// Trimming. Lower-case names change their argument and return it; capitalised
// names return a new string. Empty and all-blank arguments give "".
ZQ_EXPORT std::string& trim(std::string& s);
ZQ_EXPORT std::string Trim(std::string s);
ZQ_EXPORT std::string Clean(std::string s);
ZQ_EXPORT std::string LTrim(std::string s);
ZQ_EXPORT std::string LClean(std::string s);
ZQ_EXPORT std::string RTrim(std::string s);
ZQ_EXPORT std::string RClean(std::string s);
// Removes trailing, then leading carriage returns and line feeds, in place.
ZQ_EXPORT std::string& chop(std::string& s);

// Cuts the first blank-separated word off *s (double quotes group blanks) and
// returns it together with any blanks that led it: "  one two" gives "  one"
// and leaves "two". A null pointer gives "".
ZQ_EXPORT std::string GetToken(std::string* s);
// Cuts the text before the first `sep` outside double quotes off *s and returns
// it (quotes and blanks kept); *s also loses the separator. Without such a
// separator the whole text is returned and *s emptied. A double quote after a
// single backslash does not open or close a quoted part. A null pointer or an
// empty separator returns the whole text the same way.
ZQ_EXPORT std::string GetExtToken(std::string* s, const std::string& sep);

// The text in double quotes, control characters escaped as
// `\0 \a \b \t \n \v \f \r` or `\<octal>`. Double quotes and backslashes are NOT escaped (kept on
// purpose), so dequote() does not invert quote() for such texts.
ZQ_EXPORT std::string quote(const std::string& text);
// Decodes backslash escapes (a named escape is followed by an octal number read
// from the character after the backslash, when there is one), then strips one
// leading and one trailing double quote.
ZQ_EXPORT std::string dequote(const std::string& text);
// True when the first non-blank character is a double quote.
ZQ_EXPORT bool IsQuoted(const std::string& text);
// True when the double quotes after the leading blanks are balanced.
ZQ_EXPORT bool quote_check(const std::string& text);
// True when the brackets ( [ { outside quotes are UNBALANCED (true = error).
ZQ_EXPORT bool brace_check(const std::string& text);

// Replaces every occurrence of `what`; the inserted text is not searched again.
// An empty `what` changes nothing.
ZQ_EXPORT std::string& replace(std::string& s, const std::string& what, const std::string& with);
ZQ_EXPORT std::string Replace(std::string s, const std::string& what, const std::string& with);

ZQ_EXPORT std::string itostr(int value);
// True for a non-empty text that strtol (base 0) or strtod consumes whole.
ZQ_EXPORT bool IsNumeric(const std::string& text);
// True for a non-empty text of the letters 'a' to 'z' only (no upper case).
ZQ_EXPORT bool IsText(const std::string& text);
// Wall-clock seconds since 1970 with microseconds as the fraction.
ZQ_EXPORT double get_systime();
// Seconds of the day and month within one year, counted as the years loop from
// 1970 to year - 1: no whole years are added, and years up to 1970 give 0.
// make_sec(1971, 3, 2) is 5184000. (Kept as it always behaved.)
ZQ_EXPORT long make_sec(int year, int month, int day);
// Inert by design: Like() is always false and dehex() always "".
ZQ_EXPORT bool Like(const std::string& text, const std::string& pattern);
ZQ_EXPORT std::string dehex(const std::string& text);

#endif
