// Real-time tasks, mailboxes and debug output on the POSIX back-end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "zqcommon/bug.h"
#include "zqrtm/rtdebug.h"
#include "zqrtm/rtmailbox.h"
#include "support/eventually.h"
#include "zqrtm/rtthread.h"

namespace {

struct Ticker : rtthread {
  explicit Ticker(long long period) : rtthread("TICKER", period, false, 0, true) {}
  ~Ticker() override {
    SetCancel();
    WaitFinished(5000);
  }
  std::atomic<int> ticks{0}, starts{0};
  void start(void*) override { ++starts; }
  void* rtrun(void* arg) override {
    ++ticks;
    return arg;
  }
};


}  // namespace

TEST(RtThread, NameNumbers) {
  EXPECT_EQ(nam2num(""), 0xFFFFFFFFu);
  EXPECT_EQ(nam2num("A"), 13u);
  EXPECT_EQ(nam2num("0"), 3u);
  EXPECT_EQ(nam2num("_"), 39u);
  EXPECT_EQ(nam2num("-"), 40u);
  EXPECT_EQ(nam2num("ab"), 11u * 39 + 12 + 2);
  EXPECT_EQ(nam2num("abc"), nam2num("ABC"));
  EXPECT_EQ(nam2num("STDOUT"), nam2num("STDOUTX"));  // six characters count
  EXPECT_NE(nam2num("STDOUT"), nam2num("STDERR"));
}

TEST(RtThread, CyclesSuspendResumeAndCancel) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Ticker bad(0);
  bad.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return !bad.thread::IsRunning(); }));
  EXPECT_EQ(bad.starts, 0);
  const std::string err = testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  EXPECT_NE(err.find("FATAL: Invalid realtime period specified!!!\n\n"), std::string::npos);

  Ticker t(1000000);  // 1 kHz
  EXPECT_EQ(t.AvgCycleLength(), 0);
  t.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return t.ticks > 20; }));
  EXPECT_TRUE(t.IsRunning());
  EXPECT_EQ(t.starts, 1);
  t.Suspend();
  EXPECT_FALSE(t.IsRunning());
  usleep(20000);
  const int parked = t.ticks;
  usleep(50000);
  EXPECT_EQ(t.ticks, parked);  // the period ticks on, cycles do not run
  t.Resume();
  ASSERT_TRUE(eventually([&] { return t.ticks > parked + 10; }));
  EXPECT_EQ(t.CyclePeriod(), 1000000);
  EXPECT_GE(t.CycleCount(), 30);
  EXPECT_LE(t.MinCycleLength(), t.AvgCycleLength());
  EXPECT_LE(t.AvgCycleLength(), t.MaxCycleLength());
  EXPECT_GE(t.CycleEnd(), t.CycleStart());
  EXPECT_GE(t.CycleStart(), t.CycleRelease());
  t.ResetCycleLength();
  EXPECT_EQ(t.MaxCycleLength() <= 0x3FFFFFFF, true);
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
  EXPECT_TRUE(box.GetMessage(text));
  EXPECT_EQ(text, "12345678");
  EXPECT_TRUE(box.GetMessage(text));
  EXPECT_EQ(text, "ab");
  EXPECT_FALSE(box.GetMessage(text));
  try {
    rtmailbox none(0, 4);
    FAIL() << "no exception";
  } catch (const char* what) {
    EXPECT_STREQ(what, "Cannot create mailbox");
  }

  // Several producers and consumers: every record arrives exactly once.
  rtmailbox shared(16, 64);
  const int kProducers = 4, kEach = 20000;
  std::vector<std::thread> threads;
  std::atomic<int> received{0};
  std::vector<std::set<std::string>> seen(2);
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (int i = 0; i < kEach; ++i) {
        const std::string msg = std::to_string(p) + ":" + std::to_string(i);
        while (!shared.PutMessage(msg)) std::this_thread::yield();
      }
    });
  }
  for (int c = 0; c < 2; ++c) {
    threads.emplace_back([&, c] {
      std::string m;
      while (received < kProducers * kEach) {
        if (shared.GetMessage(m)) {
          seen[c].insert(m);
          ++received;
        } else {
          std::this_thread::yield();
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  std::set<std::string> all = seen[0];
  all.insert(seen[1].begin(), seen[1].end());
  EXPECT_EQ(all.size(), static_cast<size_t>(kProducers * kEach));
  EXPECT_EQ(seen[0].size() + seen[1].size(), all.size());  // none twice
}

TEST(RtDebug, RecordsCutOverflowAndGating) {
  rtdebug d;  // its task is not started: the records stay in the mailboxes
  std::string record;
  d.printf(0, 1, "%s", std::string(300, 'x').c_str());
  ASSERT_TRUE(d.take(0, record));
  EXPECT_EQ(record, std::string(252, 'x') + "...");

  for (int i = 0; i < 128; ++i) d.printf(0, 1, "fill %d", i);
  d.printf(0, 1, "dropped");
  d.printf(0, 1, "dropped too");
  ASSERT_TRUE(d.take(0, record));
  EXPECT_EQ(record, "fill 0");
  d.printf(0, 1, "after");  // the notice takes the free slot; "after" is dropped
  for (int i = 1; i < 128; ++i) d.take(0, record);
  EXPECT_EQ(record, "fill 127");
  ASSERT_TRUE(d.take(0, record));
  EXPECT_EQ(record, "--- output overflow ---\r\n");
  d.printf(0, 1, "after");  // still in overflow: a notice first, then the text
  ASSERT_TRUE(d.take(0, record));
  EXPECT_EQ(record, "--- output overflow ---\r\n");
  ASSERT_TRUE(d.take(0, record));
  EXPECT_EQ(record, "after");
  EXPECT_FALSE(d.take(0, record));

  int level = 1;
  unsigned int mask = 2;
  d.init(&level, &mask);
  d.printf(2, 2, "too verbose");
  d.debug(1, 1, "wrong category");
  EXPECT_FALSE(d.take(0, record));
  EXPECT_FALSE(d.take(1, record));
  d.logger(5, 2, "to the log only");
  EXPECT_TRUE(d.take(2, record));
  EXPECT_EQ(record, "to the log only");
  EXPECT_FALSE(d.take(0, record));
  d.debug(1, 2, "to stderr %d", 7);
  EXPECT_TRUE(d.take(1, record));
  EXPECT_EQ(record, "to stderr 7");
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
