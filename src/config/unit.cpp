#include "zqcommon/unit.h"

namespace {

constexpr SI slot(int k, double v) {
  SI s{};
  s[k] = v;  // constexpr std::array::operator[] is C++17
  return s;
}

constexpr EnumInfo<eUnits, SI> row(eUnits u, const char* symbol, const char* name, int k,
                                   double factor) {
  return {u, symbol, name, slot(k, 1.0), slot(k, factor)};
}

}  // namespace

// Kept as the catalogue has always stood: degrees share the length slot,
// the hour counts 1/3600 while centimetres count 0.01, the millibar 1000.
const EnumInfo<eUnits, SI> Unit::UnitInfo[eunMax] = {
    row(eu_num, "Numeric", "Plain numerical", 0, 1.0),
    row(eu_bool, "Bool", "Yes/No", 0, 1.0),
    row(eu_m, "m", "Meter", 1, 1.0),
    row(eu_cm, "cm", "Centimeter", 1, 0.01),
    row(eu_mm, "mm", "Millimeter", 1, 0.001),
    row(eu_deg, "deg", "degree", 1, 0.017453292519943295),
    row(eu_sec, "s", "Second", 2, 1.0),
    row(eu_h, "h", "Hour", 2, 1.0 / 3600.0),
    row(eu_temp, "\xb0" "C", "Celsius", 3, 1.0),
    row(eu_press, "mbar", "Milli-Bar", 4, 1000.0),
    row(eu_rh, "%rh", "realtiv hygrosopic", 5, 1.0),
    row(eu_none, "none", "none", 6, 1.0),
};

const EnumList<eUnits, SI> Unit::Info(eunMax, Unit::UnitInfo);
