// Typed, ranged checks for settings given as text.
#ifndef ZQCOMMON_SETTING_CHECK_H
#define ZQCOMMON_SETTING_CHECK_H

#include <string>
#include <vector>

#include "zqcommon/export.h"

class Config_File;

namespace zqcommon {

class Config_Data_Entry;

// A table of rules for settings named "Section.Key" (names without regard to
// case): an integer in a range (decimal, octal, or with a k/M/G factor of
// 2^10, 2^20, 2^30), a real number in a range, or a text of bounded length
// without control characters. Config_Data's own parsing is lenient ("12x"
// reads 12, "abc" reads 0); a program that takes settings from untrusted
// hands checks them here first and assigns only what passes.
//
// A setting without a rule passes unchecked. Failures are results: false and
// a one-line reason naming the setting, the value and what is allowed. Not
// locked; the table is read-only once filled, so concurrent checks are safe.
class ZQ_EXPORT Setting_Check {
 public:
  enum Kind { kInteger, kOctal, kSize, kReal, kText, kChoice };

  Setting_Check& Integer(const std::string& path, long long min, long long max);
  Setting_Check& Octal(const std::string& path, long long min, long long max);
  // An integer that may carry a k, M or G factor.
  Setting_Check& Size(const std::string& path, long long min, long long max);
  Setting_Check& Real(const std::string& path, double min, double max);
  Setting_Check& Text(const std::string& path, size_t max_length);
  // One of the given words (without regard to case).
  Setting_Check& Choice(const std::string& path, const std::vector<std::string>& words);

  // Whether `text` is allowed for `path`; `why` gets the reason when not.
  bool Check(const std::string& path, const std::string& text, std::string* why) const;
  // Why `text` is not allowed for `path` ("not an integer in 0..65535"), or
  // "" when it is or no rule names the setting.
  std::string Reason(const std::string& path, const std::string& text) const;
  // What the rule for `path` allows ("an integer in 100..1000000", "at most
  // 255 characters", "one of required, preferred"); "" when no rule names it.
  std::string Allowed(const std::string& path) const;
  // Checks, then assigns to the entry; false (entry untouched) when the check
  // or the assignment fails.
  bool Assign(Config_Data_Entry& entry, const std::string& path, const std::string& text,
              std::string* why) const;
  // Checks every ruled setting present in the file's sections; false with the
  // first offender's reason (the file's line number in front).
  bool CheckFile(Config_File& file, std::string* why) const;

 private:
  struct Rule {
    std::string path;
    Kind kind;
    long double min, max;
    std::vector<std::string> words;  // kChoice
  };
  Setting_Check& add(const std::string& path, Kind kind, long double min, long double max);
  const Rule* find(const std::string& path) const;
  std::vector<Rule> rules_;
};

}  // namespace zqcommon

#endif
