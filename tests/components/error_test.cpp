// Error records, severities and fixed texts.
#include <gtest/gtest.h>

#include "zqcomponents/error.h"

using namespace components;

TEST(OneError, LevelAndEventReports) {
  OneError e;
  EXPECT_EQ(Severity(e), NONE);
  for (TIME t : {10, 20, 30}) e.Set(WARNING, t);
  EXPECT_EQ(e.count, 1u);  // the same severity counts once
  EXPECT_EQ(e.last_time, 10);
  EXPECT_TRUE(e.active);
  e.Set(ERROR, 40);
  e.Set(WARNING, 50);
  EXPECT_EQ(e.total_count, 3u);
  e.Set(NONE, 60);
  EXPECT_FALSE(e.active);
  EXPECT_EQ(e.count, 0u);
  EXPECT_EQ(e.s, WARNING);  // the last severity stays readable
  EXPECT_EQ(e.total_count, 3u);

  OneError events;
  for (TIME t : {1, 2, 3, 4}) events.Signal(INFO, t);
  events.Signal(NONE, 5);
  EXPECT_FALSE(events.active);
  EXPECT_EQ(events.count, 4u);
  EXPECT_EQ(events.last_time, 4);
  events.text = "sensor 3";
  events.Reset();
  EXPECT_EQ(events.count, 0u);
  EXPECT_EQ(events.s, NONE);
  EXPECT_TRUE(events.text == "sensor 3");
}

TEST(OneError, ThresholdsAndPromotion) {
  OneError e;
  e = std::string("WARNING:0x10,BOGUS:5,,E:3,noitem,INFO:0,PANIC:2");
  EXPECT_EQ(e.promotion[WARNING - 1], 16u);
  EXPECT_EQ(e.promotion[ERROR - 1], 3u);
  EXPECT_EQ(e.promotion[INFO - 1], OneError::kDisabled);  // 0 is refused
  e = std::string("WARNING:10");
  for (int i = 0; i < 9; ++i) e.Signal(WARNING, i);
  EXPECT_EQ(Severity(e), WARNING);
  e.Signal(WARNING, 9);
  EXPECT_EQ(Severity(e), ERROR);
  for (int i = 0; i < 20; ++i) e.Signal(WARNING, i);
  EXPECT_EQ(Severity(e), PANIC);  // 30 warnings: 3 errors: a panic

  OneError stop;
  stop = std::string("L:2");  // INFO disabled: promotion stops there
  for (int i = 0; i < 100; ++i) stop.Signal(LOG, i);
  EXPECT_EQ(Severity(stop), INFO);
  OneError none;
  for (int i = 0; i < 100; ++i) none.Signal(ERROR, i);
  EXPECT_EQ(Severity(none), ERROR);
}

TEST(FixedString, BoundedAndAlwaysTerminated) {
  fixed_string f(std::string(200, 'x'));
  EXPECT_EQ(f.size(), 127u);
  EXPECT_EQ(f.str_data[127], '\0');
  f = "abc";
  EXPECT_EQ(f.length(), 3u);
  EXPECT_EQ(f.str_data[3], '\0');
  EXPECT_TRUE(f == "abc");
  EXPECT_TRUE(f == std::string("abc"));
  EXPECT_TRUE(f == fixed_string("abc"));
  EXPECT_TRUE(f != "abd");
  f = f.c_str();  // self-assignment
  EXPECT_STREQ(static_cast<const char*>(f), "abc");
  f.erase();
  EXPECT_EQ(f.size(), 0u);
  f = static_cast<const char*>(nullptr);
  EXPECT_EQ(f.size(), 0u);
}
