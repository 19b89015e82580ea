// Points: limits with deadband and delays, the alarm state machine, the
// table's events and configuration, and the hot path's lack of allocation.
#include <gtest/gtest.h>

#include <cmath>

#include "support/allocation_counter.h"
#include "support/config_text.h"
#include "zqpoints/PointTable.h"

using namespace zqpoints;

namespace {

PointConfig level(bool latching = false) {
  PointConfig c;
  c.name = "level";
  c.unit = "mm";
  c.lo = 10;
  c.hi = 90;
  c.hihi = 95;
  c.latching = latching;
  return c;
}

}  // namespace

// Every transition of the state machine: a step is a value (v), an
// acknowledgement (a), a shelving (s) or its end (u); then the state expected.
TEST(PointAlarm, Transitions) {
  struct Step {
    char op;
    double v;
    AlarmState expect;
  };
  const AlarmState N = AlarmState::Normal, AU = AlarmState::ActiveUnacked,
                   AA = AlarmState::ActiveAcked, RU = AlarmState::ReturnedUnacked;
  struct Case {
    const char* name;
    bool latching;
    std::vector<Step> steps;
  } cases[] = {
      {"raise ack clear", false, {{'v', 91, AU}, {'a', 0, AA}, {'v', 50, N}}},
      {"clear unacked, non-latching", false, {{'v', 91, AU}, {'v', 50, N}}},
      {"clear unacked, latching", true, {{'v', 91, AU}, {'v', 50, RU}, {'a', 0, N}}},
      {"returned comes back", true, {{'v', 5, AU}, {'v', 50, RU}, {'v', 5, AU}}},
      {"escalation needs a new ack", false, {{'v', 91, AU}, {'a', 0, AA}, {'v', 96, AU}}},
      {"lesser condition stays acked", false,
       {{'v', 96, AU}, {'a', 0, AA}, {'v', 92, AA}, {'v', 50, N}}},
      {"other side needs a new ack", false, {{'v', 91, AU}, {'a', 0, AA}, {'v', 5, AU}}},
      {"ack in normal does nothing", false, {{'a', 0, N}}},
      {"shelved hides, return shows", false,
       {{'v', 91, AU}, {'s', 0, N}, {'v', 92, N}, {'u', 0, AU}}},
      {"shelved and cleared", false, {{'v', 91, AU}, {'s', 0, N}, {'v', 50, N}, {'u', 0, N}}},
  };
  for (const Case& c : cases) {
    Point p(level(c.latching));
    int64_t t = 1;
    int step = 0;
    for (const Step& s : c.steps) {
      if (s.op == 'v') p.Update(s.v, ++t);
      if (s.op == 'a') p.Acknowledge();
      if (s.op == 's') p.Shelve(1000);
      if (s.op == 'u') p.Shelve(0);
      EXPECT_EQ(p.state(), s.expect) << c.name << ", step " << step;
      ++step;
    }
  }
}

TEST(PointAlarm, ShelvingEndsByItselfAndDisableHolds) {
  PointTable t;
  const int i = t.Add(level());
  t.Update(i, 91, 10);
  ASSERT_TRUE(t.Shelve(i, 1000, "op", "maintenance", 20));
  t.Tick(500);
  EXPECT_TRUE(t[i].shelved());
  t.Tick(1000);
  EXPECT_FALSE(t[i].shelved());
  EXPECT_EQ(t[i].state(), AlarmState::ActiveUnacked);
  t.Disable(i, true, "admin", "", 1100);
  t.Update(i, 99, 1200);
  EXPECT_EQ(t[i].state(), AlarmState::Normal);
  t.Tick(1e12);
  EXPECT_TRUE(t[i].disabled());
  // The events: raise, shelve, unshelve (the return), disable.
  AlarmEvent e;
  std::vector<std::string> actions;
  while (t.TakeEvent(e)) actions.push_back(e.action);
  EXPECT_EQ(actions, (std::vector<std::string>{"raise", "shelve", "unshelve", "disable"}));
}

// A noisy value around a limit: the deadband and the delays keep the alarm
// from following every crossing.
TEST(PointAlarm, FlappingInputIsDamped) {
  auto transitions = [](const PointConfig& c) {
    PointTable t;
    const int i = t.Add(c);
    for (int k = 0; k < 1000; ++k) t.Update(i, 90 + ((k % 2) ? 0.3 : -0.3), k * 1000);
    int n = 0;
    AlarmEvent e;
    while (t.TakeEvent(e)) ++n;
    return n;
  };
  PointConfig bare = level();
  EXPECT_EQ(transitions(bare), 999);  // every crossing
  PointConfig db = level();
  db.deadband = 0.5;
  EXPECT_EQ(transitions(db), 1);  // raised once, never left
  PointConfig delayed = level();
  delayed.on_delay_samples = 2;
  EXPECT_EQ(transitions(delayed), 0);  // never three samples in a row
  PointConfig timed = level();
  timed.on_delay_us = 1500;
  EXPECT_EQ(transitions(timed), 0);
  // A lasting condition still comes through the delays, and goes.
  Point p(delayed);
  for (int k = 0; k < 3; ++k) p.Update(91, k);
  EXPECT_EQ(p.state(), AlarmState::ActiveUnacked);
  p.Update(50, 10);
  EXPECT_EQ(p.state(), AlarmState::Normal);
}

TEST(PointAlarm, QualityAndLimits) {
  PointConfig c = level();
  c.stale_after_us = 1000;
  Point p(c);
  p.Update(99, 100, Quality::DeviceFault);
  EXPECT_EQ(p.state(), AlarmState::Normal);  // a faulty reading raises nothing
  EXPECT_EQ(p.quality(), Quality::DeviceFault);
  p.Update(50, 200);
  p.Tick(2000);
  EXPECT_EQ(p.quality(), Quality::Stale);
  EXPECT_FALSE(p.SetLimits(NAN, 50, 40, NAN, 0));
  EXPECT_TRUE(p.SetLimits(NAN, NAN, 40, NAN, 0));
  p.Update(45, 3000);
  EXPECT_EQ(p.condition(), Condition::Hi);
  EXPECT_EQ(p.severity(), Severity::Medium);
}

TEST(PointTable, LoadsPointsFromConfiguration) {
  Config_File cfg = config_from_text(
      "[Point.Tank1]\nUnit = Millimeter\nDescription = tank level\nHi = 90\nHiSeverity = critical\n"
      "Deadband = 1\nOnDelayMs = 5\nLatching = yes\nGuidance = open the drain\n"
      "[Point.Oven]\nUnit = Celsius\n[Other]\nx = 1\n");
  PointTable t;
  std::string error;
  ASSERT_EQ(t.Load(cfg, error), 2) << error;
  const Point& p = t[t.Find("TANK1")];
  EXPECT_EQ(p.config().unit, "mm");
  EXPECT_EQ(p.config().hi_severity, Severity::Critical);
  EXPECT_EQ(p.config().on_delay_us, 5000);
  EXPECT_TRUE(p.config().latching);
  EXPECT_EQ(p.config().guidance, "open the drain");
  EXPECT_EQ(t[t.Find("oven")].config().unit, "\u00b0C");
  EXPECT_EQ(t.Add(level()), 2);
  EXPECT_EQ(t.Add(level()), -1);

  Config_File bad = config_from_text("[Point.A]\nHi = 9x\n");
  PointTable u;
  EXPECT_EQ(u.Load(bad, error), -1);
  EXPECT_NE(error.find(":2: Point.A.Hi = '9x' is not a number"), std::string::npos) << error;
  Config_File unordered = config_from_text("[Point.B]\nLo = 9\nHi = 1\n");
  EXPECT_EQ(u.Load(unordered, error), -1);
  EXPECT_NE(error.find("ordered"), std::string::npos) << error;
}

TEST(PointTable, CountsAlarmsBySeverityAndDropsEventsWhenFull) {
  PointTable t(2);
  for (int k = 0; k < 3; ++k) {
    PointConfig c = level();
    c.name = "p" + std::to_string(k);
    t.Add(c);
  }
  t.Update(0, 91, 1);
  t.Update(1, 96, 1);
  t.Update(2, 96, 1);
  EXPECT_EQ(t.CountAlarms(Severity::Medium), 1);
  EXPECT_EQ(t.CountAlarms(Severity::High), 2);
  EXPECT_EQ(t.lost_events(), 1u);
  EXPECT_EQ(t.AcknowledgeAll("op", "seen", 5), 3);
}

TEST(PointTable, UpdatesDoNotAllocate) {
  PointTable t(16);
  for (int k = 0; k < 100; ++k) {
    PointConfig c = level();
    c.name = "p" + std::to_string(k);
    c.deadband = 1;
    t.Add(c);
  }
  AlarmEvent e;
  const long before = allocations();
  for (int cycle = 0; cycle < 1000; ++cycle) {
    for (size_t i = 0; i < t.size(); ++i) t.Update(i, (cycle % 50) * 2.0, cycle);
    while (t.TakeEvent(e)) {
    }
    t.Tick(cycle);
  }
  EXPECT_EQ(allocations() - before, 0);
}
