// Cycle statistics beside a real periodic task.
#include <gtest/gtest.h>
#include <unistd.h>

#include <numeric>

#include "support/eventually.h"
#include "support/rt_task.h"
#include "zqrtm/cyclestats.h"

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
