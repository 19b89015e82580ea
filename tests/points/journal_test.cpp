// The alarm journal: rows by time range, the bound, and kill -9 while writing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "kill_child.h"
#include "support/scratch_dir.h"
#include "zqpoints/AlarmJournal.h"

using namespace zqpoints;

namespace {

AlarmEvent event(int64_t t, const char* action, double value) {
  AlarmEvent e;
  e.time_us = t;
  e.from = AlarmState::Normal;
  e.to = AlarmState::ActiveUnacked;
  e.condition = Condition::Hi;
  e.severity = Severity::High;
  e.value = value;
  std::strncpy(e.action, action, sizeof e.action - 1);
  std::strncpy(e.user, "op", sizeof e.user - 1);
  return e;
}

}  // namespace

TEST(AlarmJournal, QueriesByTimeAndStaysBounded) {
  ScratchDir dir;
  AlarmJournal j;
  std::string error;
  EXPECT_FALSE(j.Open(dir / "no/such/folder/j.db", 10, error));
  EXPECT_NE(error.find("no/such/folder"), std::string::npos) << error;
  ASSERT_TRUE(j.Open(dir / "j.db", 300, error)) << error;
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(j.Append(event(1000 + i, "raise", i), "level"));
  const int64_t n = j.Count();
  EXPECT_GE(n, 300);
  EXPECT_LT(n, 300 + 256 + 1);
  const auto rows = j.Query(1900, 1910);
  ASSERT_EQ(rows.size(), 10u);
  EXPECT_EQ(rows[0].time_us, 1900);
  EXPECT_EQ(rows[0].point, "level");
  EXPECT_EQ(rows[0].to, "active-unacked");
  EXPECT_EQ(rows[0].severity, "high");
  EXPECT_EQ(rows[0].user, "op");
  EXPECT_EQ(rows[9].value, 909);
  EXPECT_EQ(j.Query(0, 1LL << 62, 5).back().time_us, 1999);  // the newest five
}

// A child appends as fast as it can and is killed; the journal opens again,
// passes SQLite's integrity check and holds whole rows.
TEST(AlarmJournal, KillDuringWritesLeavesAReadableJournal) {
  ScratchDir dir;
  const std::string path = dir / "j.db";
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(kill_during(
        [&](const std::function<void()>& ready) {
          AlarmJournal j;
          std::string error;
          if (!j.Open(path, 5000, error)) return;
          for (int i = 0; i < 1000000; ++i) {
            j.Append(event(i, "raise", i * 2.0), "torn?");
            ready();  // a first row is there
          }
        },
        5000 + round * 9000));
    AlarmJournal j;
    std::string error;
    ASSERT_TRUE(j.Open(path, 5000, error)) << "round " << round << ": " << error;
    const auto rows = j.Query(0, 1LL << 62, 100);
    for (const auto& r : rows) EXPECT_EQ(r.value, r.time_us * 2.0);
    EXPECT_GT(j.Count(), 0);
    // SQLite's own check of the file.
    FILE* check = popen(("sqlite3 " + path + " 'PRAGMA integrity_check'").c_str(), "r");
    ASSERT_NE(check, nullptr);
    char answer[64] = {};
    (void)!fgets(answer, sizeof answer, check);
    pclose(check);
    EXPECT_STREQ(answer, "ok\n") << "round " << round;
  }
}
