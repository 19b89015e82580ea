// Real-time tasks, their cycle statistics, mailboxes and debug output on the
// POSIX back-end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/rt_task.h"
#include "zqcommon/bug.h"
#include "zqrtm/cyclestats.h"
#include "zqrtm/rtdebug.h"
#include "zqrtm/rtmailbox.h"
#include "zqrtm/rtthread.h"

TEST(RtThread, NameNumbers) {
  const struct { const char* name; unsigned int number; } rows[] = {
      {"", 0xFFFFFFFFu}, {"A", 13}, {"0", 3}, {"_", 39}, {"-", 40}, {"ab", 11 * 39 + 12 + 2}};
  for (const auto& r : rows) EXPECT_EQ(nam2num(r.name), r.number) << r.name;
  EXPECT_EQ(nam2num("abc"), nam2num("ABC"));
  EXPECT_EQ(nam2num("STDOUT"), nam2num("STDOUTX"));  // six characters count
  EXPECT_NE(nam2num("STDOUT"), nam2num("STDERR"));
}

TEST(RtThread, CyclesSuspendResumeAndCancel) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::atomic<int> ticks{0};
  auto tick = [&](RtTask&) { ++ticks; };
  RtTask bad(0, tick);
  bad.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return !bad.thread::IsRunning(); }));
  EXPECT_EQ(bad.starts, 0);
  const std::string err = testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  EXPECT_NE(err.find("FATAL: Invalid realtime period specified!!!\n\n"), std::string::npos);

  RtTask t(1000000, tick);  // 1 kHz
  EXPECT_EQ(t.AvgCycleLength(), 0);
  t.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return ticks > 20; }));
  EXPECT_TRUE(t.IsRunning());
  EXPECT_EQ(t.starts, 1);
  t.Suspend();
  EXPECT_FALSE(t.IsRunning());
  usleep(20000);
  const int parked = ticks;
  usleep(50000);
  EXPECT_EQ(ticks, parked);  // the period ticks on, cycles do not run
  t.Resume();
  ASSERT_TRUE(eventually([&] { return ticks > parked + 10; }));
  EXPECT_GE(t.CycleCount(), 30);
  EXPECT_LE(t.MinCycleLength(), t.AvgCycleLength());
  EXPECT_LE(t.AvgCycleLength(), t.MaxCycleLength());
  EXPECT_GE(t.CycleEnd(), t.CycleStart());
  EXPECT_GE(t.CycleStart(), t.CycleRelease());
  t.ResetCycleLength();
  EXPECT_LE(t.MaxCycleLength(), 0x3FFFFFFF);
  t.SetCancel();
  ASSERT_TRUE(eventually([&] { return !t.thread::IsRunning(); }));
  EXPECT_TRUE(t.IsCancelled());
}

TEST(RtMailbox, RecordsAreWholeAndNeverBlock) {
  rtmailbox box(8, 2);
  std::string text = "junk";
  EXPECT_FALSE(box.GetMessage(text));
  EXPECT_EQ(text, "");
  EXPECT_FALSE(box.PutMessage("123456789"));  // one byte too long
  EXPECT_TRUE(box.PutMessage("12345678"));   // exactly a record: kept whole
  EXPECT_TRUE(box.PutMessage("ab"));
  EXPECT_FALSE(box.PutMessage("c"));  // full
  for (const char* want : {"12345678", "ab"}) {
    EXPECT_TRUE(box.GetMessage(text));
    EXPECT_EQ(text, want);
  }
  EXPECT_FALSE(box.GetMessage(text));
  try {
    rtmailbox none(0, 4);
    FAIL() << "no exception";
  } catch (const char* what) {
    EXPECT_STREQ(what, "Cannot create mailbox");
  }

  // Several producers and two consumers: every record arrives exactly once.
  rtmailbox shared(16, 64);
  const int kRecords = 80000;
  std::vector<std::atomic<int>> arrived(kRecords);
  std::atomic<int> received{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < 4; ++p) {
    threads.emplace_back([&, p] {
      for (int i = p; i < kRecords; i += 4) {
        while (!shared.PutMessage(std::to_string(i))) std::this_thread::yield();
      }
    });
  }
  for (int c = 0; c < 2; ++c) {
    threads.emplace_back([&] {
      for (std::string m; received < kRecords;) {
        if (!shared.GetMessage(m)) std::this_thread::yield();
        else ++arrived[std::stoi(m)], ++received;
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < kRecords; ++i) ASSERT_EQ(arrived[i], 1) << i;
}

TEST(RtDebug, RecordsCutOverflowAndGating) {
  rtdebug d;  // its task is not started: the records stay in the mailboxes
  // The next record of a channel, or "<none>".
  auto next = [&](int channel) {
    std::string record;
    return d.take(channel, record) ? record : "<none>";
  };
  const std::string overflow = "--- output overflow ---\r\n";
  d.printf(0, 1, "%s", std::string(300, 'x').c_str());
  EXPECT_EQ(next(0), std::string(252, 'x') + "...");

  for (int i = 0; i < 128; ++i) d.printf(0, 1, "fill %d", i);
  d.printf(0, 1, "dropped");
  d.printf(0, 1, "dropped too");
  EXPECT_EQ(next(0), "fill 0");
  d.printf(0, 1, "after");  // the notice takes the free slot; "after" is dropped
  for (int i = 1; i < 127; ++i) next(0);
  EXPECT_EQ(next(0), "fill 127");
  EXPECT_EQ(next(0), overflow);
  d.printf(0, 1, "after");  // still in overflow: a notice first, then the text
  EXPECT_EQ(next(0), overflow);
  EXPECT_EQ(next(0), "after");
  EXPECT_EQ(next(0), "<none>");

  int level = 1;
  unsigned int mask = 2;
  d.init(&level, &mask);
  d.printf(2, 2, "too verbose");
  d.debug(1, 1, "wrong category");
  d.logger(5, 2, "to the log only");
  EXPECT_EQ(next(2), "to the log only");
  d.debug(1, 2, "to stderr %d", 7);
  EXPECT_EQ(next(1), "to stderr 7");
  EXPECT_EQ(next(0), "<none>");
  EXPECT_EQ(next(1), "<none>");
}

TEST(RtDebug, TheTaskPrints) {
  testing::internal::CaptureStdout();
  rtdebug::StartRTDebug();
  ASSERT_NE(RTDEBUG, nullptr);
  RTDEBUG->printf(0, 1, "hello from a task\n");
  for (int i = 0; i < 200; ++i) usleep(5000);
  rtdebug::EndRTDebug();
  EXPECT_EQ(RTDEBUG, nullptr);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("hello from a task\n"), std::string::npos);
}

TEST(CycleStats, BucketBoundsAreInclusiveUpperLimits) {
  const struct { long long ns; int bucket; } rows[] = {{0, 0}, {1000, 0}, {1001, 1}, {2000, 1}, {4999, 2},
      {99999999, 15}, {100000000, 15}, {100000001, 16}, {1LL << 50, 16}};
  for (const auto& r : rows) EXPECT_EQ(CycleStats::Bucket(r.ns), r.bucket) << r.ns;
}

TEST(CycleStats, RecordsOverrunOfARealTaskWhileItRuns) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  CycleStats stats;
  RtTask t(1000000, [&](RtTask& task) {  // 1 kHz; cycle 50 takes three periods
    stats.Observe(task);
    if (task.CycleCount() == 50) usleep(3000);
  });
  t.Start(nullptr);
  // Read concurrently while the task writes (TSan checks the atomics).
  ASSERT_TRUE(eventually([&] { return stats.Read().cycles > 200; }, 10000));
  const CycleStats::Snapshot s = stats.Read();
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  const uint64_t counted = std::accumulate(s.buckets.begin(), s.buckets.end(), uint64_t{0});
  EXPECT_GE(counted + 1, s.cycles);  // the task may be between two stores
  EXPECT_GE(s.overruns, 1u);
  // The cycle after the slow one starts late; a loaded machine may add more.
  EXPECT_GE(s.last_overrun_cycle, 51);
  EXPECT_GE(s.lateness_max_ns, 1000000);
}
