// Settings members as points: unit and description from the registration,
// values synced when they change, refusals named.
#include <gtest/gtest.h>

#include "zqcommon/ew.h"
#include "zqpoints/SettingPoints.h"

using namespace zqpoints;

namespace {

struct Heater : zqcommon::Config_Data {
  double Setpoint = 40;
  int Power = 3;
  std::string Mode = "auto";
  Heater() {
    Register("Setpoint", Setpoint, zqcommon::Config_Data_INIT.FULL, "Celsius", "heater on below");
    Register("Power", Power, zqcommon::Config_Data_INIT.FULL, "", "power stage");
    Register("Mode", Mode);
  }
};

}  // namespace

TEST(SettingPoints, MembersBecomePointsAndFollowTheirValues) {
  Heater h;
  PointTable table;
  PointConfig pre;
  pre.name = "Heater.Power";
  pre.unit = "steps";
  ASSERT_EQ(table.Add(pre), 0);
  SettingPoints sp(table);
  PointConfig c;
  c.hi = 60;
  const int set = sp.Add(h, "Heater", "setpoint", c);  // any case
  ASSERT_GE(set, 0);
  EXPECT_EQ(table[set].name(), "Heater.Setpoint");
  EXPECT_EQ(table[set].config().unit, "\u00b0C");
  EXPECT_EQ(table[set].config().description, "heater on below");
  EXPECT_EQ(sp.Add(h, "Heater", "Power"), 0);  // the point declared before is kept
  EXPECT_EQ(table[0].config().unit, "steps");

  EXPECT_EQ(sp.Sync(1000), 2u);  // every point at the first call
  EXPECT_EQ(table[set].value(), 40);
  EXPECT_EQ(table[set].time_us(), 1000);
  EXPECT_EQ(sp.Sync(2000), 0u);  // nothing changed
  h.Setpoint = 65;               // as `config set` would
  EXPECT_EQ(sp.Sync(3000), 1u);
  EXPECT_EQ(table[set].value(), 65);
  EXPECT_EQ(table[set].time_us(), 3000);
  EXPECT_EQ(table[set].condition(), Condition::Hi);  // limits of `config` apply
  EXPECT_EQ(table[0].value(), 3);

  std::string error;
  EXPECT_EQ(sp.Add(h, "Heater", "Mode", PointConfig(), &error), -1);
  EXPECT_EQ(error, "Heater.Mode is not a number");
  EXPECT_EQ(sp.Add(h, "Heater", "Gain", PointConfig(), &error), -1);
  EXPECT_EQ(error, "Heater.Gain: no such setting");
  EXPECT_EQ(sp.size(), 2u);
}
