// The unit catalogue: its specified rows and the first-row-wins append.
#include "zqcommon/unit.h"

#include <gtest/gtest.h>

namespace {

TEST(Unit, CatalogueRows) {
  ASSERT_EQ(Unit::Info.size(), 12u);
  const EnumInfo<eUnits, SI>& cm = Unit::Info.at(eu_cm);
  EXPECT_STREQ(cm.symbol, "cm");
  EXPECT_STREQ(cm.name, "Centimeter");
  for (int k = 0; k < 8; ++k) {
    EXPECT_EQ(cm.kind[k], k == 1 ? 1.0 : 0.0);
    EXPECT_EQ(cm.scale[k], k == 1 ? 0.01 : 0.0);
  }
  EXPECT_STREQ(Unit::Info.at(eu_temp).symbol, "\xb0" "C");
  EXPECT_STREQ(Unit::Info.at(eu_rh).name, "realtiv hygrosopic");
  EXPECT_EQ(Unit::Info.at(eu_h).scale[2], 1.0 / 3600.0);
  EXPECT_EQ(Unit::Info.at(eu_deg).kind[1], 1.0);
  EXPECT_EQ(Unit::Info.at(eu_press).scale[4], 1000.0);
  for (const auto& row : Unit::Info) EXPECT_EQ(row.first, row.second.id);
}

TEST(Unit, AppendKeepsFirstRow) {
  EnumList<eUnits, SI> list(eunMax, Unit::UnitInfo), partial(2, Unit::UnitInfo);
  const EnumInfo<eUnits, SI> extra[] = {{eu_m, "M", "metre again", SI{}, SI{}}};
  list.append(1, extra);
  list.append(0, extra);
  list.append(1, nullptr);
  EXPECT_STREQ(list.at(eu_m).symbol, "m");
  EXPECT_EQ(list.size(), 12u);
  partial.append(1, extra);
  partial.append(eunMax, Unit::UnitInfo);
  EXPECT_EQ(partial.size(), 12u);
  EXPECT_STREQ(partial.at(eu_m).symbol, "M");
}

}  // namespace
