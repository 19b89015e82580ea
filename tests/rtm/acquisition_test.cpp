// The typed mailbox and the acquisition clock.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "zqrtm/AcquisitionClock.h"
#include "zqrtm/rttypedmailbox.h"

namespace {

struct Sample {
  int64_t stamp_ns;
  uint32_t producer;
  uint32_t sequence;
  double value;
};

}  // namespace

TEST(TypedMailbox, FullEmptyAndWholeRecordsAcrossThreads) {
  rttypedmailbox<Sample> box(3);
  EXPECT_EQ(box.capacity(), 4u);
  Sample s{};
  EXPECT_FALSE(box.Get(s));
  for (uint32_t i = 0; i < 4; ++i) EXPECT_TRUE(box.Put(Sample{i, 0, i, i * 0.5}));
  EXPECT_FALSE(box.Put(Sample{}));
  ASSERT_TRUE(box.Get(s));
  EXPECT_EQ(s.sequence, 0u);
  while (box.Get(s)) {
  }

  // Two producers, one consumer: every record arrives whole and in each
  // producer's order.
  rttypedmailbox<Sample> ring(64);
  constexpr uint32_t kEach = 20000;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  auto produce = [&](uint32_t id) {
    for (uint32_t i = 0; i < kEach; ++i) {
      const Sample r{static_cast<int64_t>(i) * 7, id, i, i * 0.25};
      while (!ring.Put(r) && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    }
  };
  std::thread a(produce, 0), b(produce, 1);
  uint32_t next[2] = {0, 0}, bad = 0;
  while (next[0] + next[1] < 2 * kEach && std::chrono::steady_clock::now() < deadline) {
    Sample r;
    if (!ring.Get(r)) {
      std::this_thread::yield();
      continue;
    }
    if (r.producer > 1 || r.sequence != next[r.producer] || r.stamp_ns != r.sequence * 7 ||
        r.value != r.sequence * 0.25)
      ++bad;
    if (r.producer <= 1) next[r.producer] = r.sequence + 1;
  }
  a.join();
  b.join();
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(next[0] + next[1], 2 * kEach);
}

TEST(AcquisitionClock, MapsMonotonicToUtcAndFollowsAClockStep) {
  AcquisitionClock real;
  const int64_t system_us = static_cast<int64_t>(time(nullptr)) * 1000000;
  EXPECT_NEAR(static_cast<double>(real.NowUtcUs()), static_cast<double>(system_us), 2e6);

  int64_t offset = 1000000000000000000LL;  // 2001-09-09, as the injected REALTIME - MONOTONIC
  AcquisitionClock clock([&] { return offset; }, 0);
  const int64_t stamp = AcquisitionClock::Monotonic();
  const int64_t before = clock.ToUtcUs(stamp);
  EXPECT_EQ(before, (stamp + offset) / 1000);
  offset += 3600LL * 1000000000;  // the system clock steps an hour forward
  EXPECT_EQ(clock.ToUtcUs(stamp), before);  // not seen before the re-measurement
  EXPECT_TRUE(clock.MaybeRemeasure());      // a period of 0: always due
  EXPECT_EQ(clock.ToUtcUs(stamp) - before, 3600LL * 1000000);
  offset -= 5000;  // and back a few microseconds
  EXPECT_EQ(clock.Remeasure(), -5000);
}
