// Members of typed settings structures as process points.
#ifndef ZQPOINTS_SETTINGPOINTS_H
#define ZQPOINTS_SETTINGPOINTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "zqcommon/export.h"
#include "zqpoints/PointTable.h"

namespace zqcommon {
class Config_Data;
class Config_Data_Entry;
}  // namespace zqcommon

namespace zqpoints {

// A settings structure (zqcommon::Config_Data) registers its members as it
// always does; Add() then makes a numeric member a point named
// "Section.Member" whose unit and description default to the member's
// registered ones (a unit of the library's catalogue becomes its symbol, as
// in [Point.NAME] sections). A point of that name declared before (from a
// [Point.Section.Member] section) is taken as it is. Sync() puts each
// member's value into its point when it changed (and all of them at the
// first call), stamped with the time given: a set-point changed by
// `config set`, a restored autosave or the program itself shows up as a new
// value of its point, with the time it was seen.
//
// Ownership: the table and the settings structures are the caller's and
// must outlive this object. Not thread safe: call it on the thread that owns
// the table. Sync() neither allocates nor formats.
class ZQ_EXPORT SettingPoints {
 public:
  explicit SettingPoints(PointTable& table) : table_(table) {}

  // Makes member `member` (name without regard to case) of `settings`, read
  // from section `section`, a point. The member must be registered as a
  // double, int, unsigned int or long long. `config` supplies the rest of
  // the point (range, limits, guidance); its name is replaced, an empty unit
  // or description is taken from the registration. The point's index, or -1
  // with `error` saying why ("Station.Gain: no such setting", "... is not a
  // number", or the table's refusal).
  int Add(zqcommon::Config_Data& settings, const std::string& section, const std::string& member,
          PointConfig config = PointConfig(), std::string* error = nullptr);
  // Updates the points whose members changed since the last call; the
  // number of points updated.
  size_t Sync(int64_t now_us);
  size_t size() const { return bound_.size(); }

 private:
  struct Bound {
    const zqcommon::Config_Data_Entry* entry;
    size_t point;
    double last;
    bool seen;
  };
  PointTable& table_;
  std::vector<Bound> bound_;
};

}  // namespace zqpoints

#endif
