// Members of typed settings structures as process points (see SettingPoints.h).
#include "zqpoints/SettingPoints.h"

#include "points/unit_symbol.h"
#include "zqcommon/ew.h"
#include "zqcommon/functions.h"

namespace zqpoints {

namespace {

// The member's value; false for a member that is not a number.
bool number(const zqcommon::Config_Data_Entry& e, double& out) {
  const void* p = e.GetPointer();
  switch (e.Type()) {
    case zqcommon::cfg_FLOAT: out = *static_cast<const double*>(p); return true;
    case zqcommon::cfg_INT: out = *static_cast<const int*>(p); return true;
    case zqcommon::cfg_UINT: out = *static_cast<const unsigned int*>(p); return true;
    case zqcommon::cfg_LONG: out = static_cast<double>(*static_cast<const long long*>(p)); return true;
    default: return false;
  }
}

int refuse(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return -1;
}

}  // namespace

int SettingPoints::Add(zqcommon::Config_Data& settings, const std::string& section, const std::string& member,
                       PointConfig config, std::string* error) {
  const zqcommon::Config_Data_Entry* entry = nullptr;
  for (auto& e : settings) {
    if (e.first ^= member) entry = &e.second;
  }
  if (entry == nullptr) return refuse(error, section + "." + member + ": no such setting");
  const std::string name = section + "." + entry->Name();  // as registered
  double value = 0;
  if (!number(*entry, value)) return refuse(error, name + " is not a number");
  int index = table_.Find(name);
  if (index < 0) {
    config.name = name;
    if (config.unit.empty()) config.unit = details::unit_symbol(entry->Unit());
    if (config.description.empty()) config.description = entry->Description();
    index = table_.Add(config, error);
    if (index < 0) return -1;
  }
  bound_.push_back(Bound{entry, static_cast<size_t>(index), value, false});
  return index;
}

size_t SettingPoints::Sync(int64_t now_us) {
  size_t updated = 0;
  for (Bound& b : bound_) {
    double value = 0;
    number(*b.entry, value);
    const bool same = value == b.last || (value != value && b.last != b.last);  // NaN stays NaN
    if (b.seen && same) continue;
    b.seen = true;
    b.last = value;
    table_.Update(b.point, value, now_us);
    ++updated;
  }
  return updated;
}

}  // namespace zqpoints
