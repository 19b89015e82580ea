// Error records, severities and fixed texts.
#include <gtest/gtest.h>

#include <tuple>

#include "zqcomponents/error.h"

using namespace components;

namespace {
// (last severity, count, total count, time of the last change, active)
std::tuple<Severity, unsigned, unsigned, TIME, bool> state(const OneError& e) {
  return {e.s, e.count, e.total_count, e.last_time, e.active};
}
}  // namespace

TEST(OneError, LevelAndEventReports) {
  OneError e;
  EXPECT_EQ(Severity(e), NONE);
  for (TIME t : {10, 20, 30}) e.Set(WARNING, t);
  EXPECT_EQ(state(e), std::make_tuple(WARNING, 1u, 1u, TIME{10}, true));  // the same severity counts once
  e.Set(ERROR, 40);
  e.Set(WARNING, 50);
  e.Set(NONE, 60);
  EXPECT_EQ(state(e), std::make_tuple(WARNING, 0u, 3u, TIME{10}, false));  // the last severity stays readable

  OneError events;
  for (TIME t : {1, 2, 3, 4}) events.Signal(INFO, t);
  events.Signal(NONE, 5);
  EXPECT_EQ(state(events), std::make_tuple(INFO, 4u, 4u, TIME{4}, false));
  events.text = "sensor 3";
  events.Reset();
  EXPECT_EQ(state(events), std::make_tuple(NONE, 0u, 0u, TIME{0}, false));
  EXPECT_TRUE(events.text == "sensor 3");
}

TEST(OneError, ThresholdsAndPromotion) {
  OneError e;
  e = std::string("WARNING:0x10,BOGUS:5,,E:3,noitem,INFO:0,PANIC:2");
  const unsigned int want[4] = {OneError::kDisabled, OneError::kDisabled, 16, 3};  // 0 is refused
  EXPECT_TRUE(std::equal(want, want + 4, e.promotion));
  e = std::string("WARNING:10");
  for (int i = 0; i < 9; ++i) e.Signal(WARNING, i);
  EXPECT_EQ(Severity(e), WARNING);
  e.Signal(WARNING, 9);
  EXPECT_EQ(Severity(e), ERROR);
  for (int i = 0; i < 20; ++i) e.Signal(WARNING, i);
  EXPECT_EQ(Severity(e), PANIC);  // 30 warnings: 3 errors: a panic

  OneError stop, none;
  stop = std::string("L:2");  // INFO disabled: promotion stops there
  for (int i = 0; i < 100; ++i) stop.Signal(LOG, i), none.Signal(ERROR, i);
  EXPECT_EQ(Severity(stop), INFO);
  EXPECT_EQ(Severity(none), ERROR);
}

TEST(FixedString, BoundedAndAlwaysTerminated) {
  fixed_string f(std::string(200, 'x'));
  EXPECT_EQ(f.size(), 127u);
  EXPECT_EQ(f.str_data[127], '\0');
  f = "abc";
  EXPECT_EQ(f.str_data[3], '\0');
  EXPECT_TRUE(f == "abc" && f == std::string("abc") && f == fixed_string("abc") && f != "abd");
  f = f.c_str();  // self-assignment
  EXPECT_STREQ(static_cast<const char*>(f), "abc");
  f = static_cast<const char*>(nullptr);
  EXPECT_EQ(f.size(), 0u);
}
