// Operator-changed values (set-points, limits, shelving) kept across restarts.
#ifndef ZQPOINTS_AUTOSAVE_H
#define ZQPOINTS_AUTOSAVE_H

#include <cstdint>
#include <map>
#include <string>

#include "zqcommon/export.h"

namespace zqpoints {

// A small state file of "name = value" lines, closed by an end marker
// "end COUNT CRC32" over everything before it:
//
//   # zq autosave
//   Station.Setpoint = 42.5
//   end 1 5d0b1c2a
//
// Saving writes a temporary file, flushes it to the disk and renames it over
// the state file, after the previous state file has been kept the same way
// as PATH.bak; a kill at any moment leaves a complete file or its backup.
// Load() takes the state file, else the backup, else nothing (the caller
// keeps its configuration), and says in `note` which and why. Names and
// values are single lines (line ends become spaces). Not thread safe.
class ZQ_EXPORT Autosave {
 public:
  enum class Source { File, Backup, None };

  // `delay_ms`: changes are gathered this long before a save.
  explicit Autosave(std::string path, int64_t delay_ms = 200);

  // Replaces the values with those saved; the source they came from.
  Source Load(std::string& note);
  // A value changed (saved by the next Poll after the delay); same value: nothing.
  void Set(const std::string& name, const std::string& value);
  void Erase(const std::string& name);
  // Saves when a change is waiting and the delay has passed; call it a few
  // times a second. False when a save failed (kept for the next call).
  bool Poll();
  // Saves now when anything changed; false when it failed (errno set).
  bool Flush();
  bool dirty() const { return dirty_; }
  const std::map<std::string, std::string>& values() const { return values_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int64_t delay_ns_;
  int64_t changed_ns_ = 0;
  bool dirty_ = false;
  std::map<std::string, std::string> values_;
};

}  // namespace zqpoints

#endif
