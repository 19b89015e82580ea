// The catalogue of physical units that measured and configured values carry.
#ifndef ZQCOMMON_UNIT_H
#define ZQCOMMON_UNIT_H

#include <array>

#include "zqcommon/enuminfo.h"
#include "zqcommon/export.h"

enum eUnits {
  eu_num = 0,
  eu_bool = 1,
  eu_m = 2,
  eu_cm = 3,
  eu_mm = 4,
  eu_deg = 5,
  eu_sec = 6,
  eu_h = 7,
  eu_temp = 8,
  eu_press = 9,
  eu_rh = 10,
  eu_none = 11,
  eunMax = 12
};

// One slot per kind of quantity: 0 plain numbers, 1 length (and angle),
// 2 time, 3 temperature, 4 pressure, 5 humidity, 6 none; slot 7 is unused.
typedef std::array<double, 8> SI;

// The catalogue: UnitInfo holds the twelve rows (kind vector with 1.0 in the
// unit's slot, scale vector with the unit's factor there), Info maps each
// unit to its row. Info is built during static initialisation and never
// changes afterwards, so look-ups from any thread are safe. How kinds and
// scales combine into conversions is up to the program.
class ZQ_EXPORT Unit {
 public:
  static const EnumInfo<eUnits, SI> UnitInfo[eunMax];
  static const EnumList<eUnits, SI> Info;
};

#endif
