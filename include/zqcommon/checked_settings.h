// Settings structures loaded with every value checked, from files and the
// command line.
#ifndef ZQCOMMON_CHECKED_SETTINGS_H
#define ZQCOMMON_CHECKED_SETTINGS_H

#include <string>
#include <utility>
#include <vector>

#include "zqcommon/export.h"

class Config_File;

namespace zqcommon {

class Config_Data;
class Config_Data_Entry;
class Setting_Check;

// Loads a program's settings structures (each a Config_Data bound to a
// section) so that no value is taken half-read: Config_Data::Load reads
// "78l0" as 78 and "2,5x" as 2 without a word; here every value must be
// whole, of its member's kind and within the range the optional rule table
// gives, or it is reported.
//
// Checks by kind: integers are read as Config_Data reads them (automatic
// base, k/M/G where the member is scaled) but must be nothing else and fit
// the member; reals must be whole finite numbers; booleans 0 or 1; character
// buffers must fit. Texts, symbolic and resolver members pass unless a rule
// of the table names them. The table's rules apply on top.
//
// A problem reads "FILE:LINE: Section.Key = 'VALUE': why" (for the command
// line "command line:N" with N the argument's position). Loading is all or
// nothing per call: when a file holds any problem, nothing of it is assigned.
//
// Owns nothing: the structures and the rule table must outlive this object.
// Not locked; used at start-up and on reload by one thread.
class ZQ_EXPORT Checked_Settings {
 public:
  // One "Section.Key=VALUE" argument: its position on the command line.
  struct Override {
    int argument;
    std::string path;
    std::string value;
  };

  explicit Checked_Settings(const Setting_Check* rules = nullptr) : rules_(rules) {}

  // Binds `data` to `section`; its sub-structures to "section.Member".
  Checked_Settings& Add(const std::string& section, Config_Data& data);

  // Checks every entry of the bound sections in `file`: unknown keys and
  // values that do not pass are problems. Without problems the structures
  // are loaded from it (Config_Data::Load, so lines and hooks are as usual).
  // Sections not bound are not looked at. Answers the problems.
  std::vector<std::string> Load(Config_File& file);

  // Moves every "Section.Key=VALUE" argument (not an option: it starts with
  // a letter, has a '.' before its '=') out of argv, keeping the others in
  // order; argc shrinks. "Section.Key=" gives an empty value, which clears a
  // text setting. Nothing is checked or assigned yet. Answers how many.
  int TakeOverrides(int& argc, char** argv);
  void AddOverride(const Override& o) { overrides_.push_back(o); }
  const std::vector<Override>& Overrides() const { return overrides_; }
  // Checks the overrides taken (unknown section, unknown key, bad value);
  // without problems assigns them all, in order. Answers the problems.
  std::vector<std::string> ApplyOverrides();

  // Why `value` cannot be given to the setting "Section.Key" ("" when it
  // can); the setting is looked up without regard to case.
  std::string Problem(const std::string& path, const std::string& value);
  // Checks, then assigns; "" on success, else why not (the entry untouched).
  std::string Set(const std::string& path, const std::string& value);
  // The setting "Section.Key", or null.
  Config_Data_Entry* Find(const std::string& path);
  // The bound sections, in the order bound (sub-structures after their parent).
  const std::vector<std::pair<std::string, Config_Data*>>& Sections() const { return sections_; }

 private:
  Config_Data* section(const std::string& name) const;
  std::string check(const std::string& path, Config_Data_Entry& entry, const std::string& value) const;

  const Setting_Check* rules_;
  std::vector<std::pair<std::string, Config_Data*>> sections_;
  std::vector<Override> overrides_;
};

}  // namespace zqcommon

#endif
