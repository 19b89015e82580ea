// Cycle statistics beside a real periodic task.
#include <gtest/gtest.h>
#include <unistd.h>

#include <numeric>

#include "support/eventually.h"
#include "zqrtm/cyclestats.h"
#include "zqrtm/rtthread.h"

namespace {

// A 1 kHz task whose cycle `slow_cycle` takes three periods.
struct SlowOnce : rtthread {
  explicit SlowOnce(long long slow) : rtthread("SLOW", 1000000, false, 0, true), slow_cycle(slow) {}
  ~SlowOnce() override {
    SetCancel();
    WaitFinished(5000);
  }
  void start(void*) override {}
  void* rtrun(void*) override {
    stats.Observe(*this);
    if (CycleCount() == slow_cycle) usleep(3000);
    return nullptr;
  }
  long long slow_cycle;
  CycleStats stats;
};

}  // namespace

TEST(CycleStats, BucketBoundsAreInclusiveUpperLimits) {
  const struct { long long ns; int bucket; } rows[] = {
      {0, 0}, {1000, 0}, {1001, 1}, {2000, 1}, {4999, 2}, {99999999, 15}, {100000000, 15},
      {100000001, 16}, {1LL << 50, 16}};
  for (const auto& r : rows) EXPECT_EQ(CycleStats::Bucket(r.ns), r.bucket) << r.ns;
}

TEST(CycleStats, RecordsOverrunOfARealTaskWhileItRuns) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  SlowOnce t(50);
  t.Start(nullptr);
  // Read concurrently while the task writes (TSan checks the atomics).
  ASSERT_TRUE(eventually([&] { return t.stats.Read().cycles > 200; }, 10000));
  const CycleStats::Snapshot s = t.stats.Read();
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  const uint64_t counted = std::accumulate(s.buckets.begin(), s.buckets.end(), uint64_t{0});
  EXPECT_GE(counted + 1, s.cycles);  // the task may be between two stores
  EXPECT_GE(s.overruns, 1u);
  // The cycle after the slow one starts late; a loaded machine may add more.
  EXPECT_GE(s.last_overrun_cycle, 51);
  EXPECT_GE(s.lateness_max_ns, 1000000);
}
