// The overrun policy: when it trips, when it lets go, what each policy does.
#include <gtest/gtest.h>

#include "zqrtm/OverrunGuard.h"

namespace {
constexpr long long kMs = 1000000;
}

TEST(OverrunGuard, TripsAtTheLimitWithinTheWindowOnly) {
  OverrunGuard g;
  g.Configure(OverrunGuard::Policy::Warn, 3, 10 * kMs);
  // Three overruns spread wider than the window: no trip.
  EXPECT_FALSE(g.Cycle(0, true));
  g.Cycle(6 * kMs, true);
  g.Cycle(12 * kMs, true);
  EXPECT_FALSE(g.tripped());
  // The third within 10 ms of the first of the newest three trips it, once.
  g.Cycle(13 * kMs, true);
  EXPECT_TRUE(g.tripped());
  g.Cycle(14 * kMs, true);
  EXPECT_EQ(g.trips(), 1u);
  EXPECT_FALSE(g.holding());  // Warn never holds the outputs
  // A whole window without an overrun ends the trip; the next burst counts again.
  g.Cycle(20 * kMs, false);
  EXPECT_TRUE(g.tripped());
  g.Cycle(24 * kMs, false);
  EXPECT_FALSE(g.tripped());
  for (long long t = 30; t < 33; ++t) g.Cycle(t * kMs, true);
  EXPECT_EQ(g.trips(), 2u);
}

TEST(OverrunGuard, SafeHoldsUntilResumedAfterTheOverrunsStop) {
  OverrunGuard g;
  g.Configure(OverrunGuard::Policy::Safe, 2, 5 * kMs);
  g.Cycle(0, true);
  EXPECT_TRUE(g.Cycle(1 * kMs, true));
  g.Resume();  // still tripped: refused, and the request is not kept
  EXPECT_TRUE(g.Cycle(2 * kMs, false));
  EXPECT_TRUE(g.Cycle(10 * kMs, false));  // no longer tripped, but nobody resumed
  EXPECT_FALSE(g.tripped());
  g.Resume();
  EXPECT_FALSE(g.Cycle(11 * kMs, false));
  EXPECT_FALSE(g.holding());
}

TEST(OverrunGuard, OffAndCountAndPolicyNames) {
  OverrunGuard off, count;
  count.Configure(OverrunGuard::Policy::Count, 1, kMs);
  for (long long t = 0; t < 5; ++t) {
    EXPECT_FALSE(off.Cycle(t * kMs, true));
    EXPECT_FALSE(count.Cycle(t * 3 * kMs, true));
    count.Cycle(t * 3 * kMs + 2 * kMs, false);  // a quiet window ends each trip
  }
  EXPECT_EQ(off.trips(), 0u);
  EXPECT_EQ(count.trips(), 5u);
  OverrunGuard::Policy p = OverrunGuard::Policy::Off;
  EXPECT_TRUE(OverrunGuard::ParsePolicy("SAFE", p));
  EXPECT_EQ(p, OverrunGuard::Policy::Safe);
  EXPECT_FALSE(OverrunGuard::ParsePolicy("stop", p));
  EXPECT_EQ(p, OverrunGuard::Policy::Safe);
  EXPECT_STREQ(OverrunGuard::ToString(OverrunGuard::Policy::Count), "count");
}
