// Lateness histogram and overrun record of a periodic real-time task.
#include "zqrtm/cyclestats.h"

#include <algorithm>

#include "zqrtm/rtthread.h"

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
}

int CycleStats::Bucket(long long lateness_ns) {
  const auto it = std::lower_bound(kBoundNs.begin(), kBoundNs.end(), lateness_ns);
  return static_cast<int>(it - kBoundNs.begin());
}

void CycleStats::Observe(const rtthread& task) {
  const long long release = task.CycleRelease();
  const long long late = task.CycleStart() - release;
  // CycleEnd() is still the previous cycle's end here; the cycle counter is
  // this cycle's number.
  const bool overrun = late >= task.CyclePeriod() || task.CycleEnd() > release;
  Record(task.CycleCount(), late, overrun);
}

void CycleStats::Record(long long cycle, long long lateness_ns, bool overrun) {
  const long long late = std::max(0LL, lateness_ns);
  buckets_[static_cast<size_t>(Bucket(late))].fetch_add(1, kRelaxed);
  sum_.fetch_add(late, kRelaxed);
  if (late > max_.load(kRelaxed)) max_.store(late, kRelaxed);
  if (overrun) {
    overruns_.fetch_add(1, kRelaxed);
    last_overrun_.store(cycle, kRelaxed);
  }
  cycles_.fetch_add(1, kRelaxed);
}

CycleStats::Snapshot CycleStats::Read() const {
  Snapshot s;
  for (size_t i = 0; i < buckets_.size(); ++i) s.buckets[i] = buckets_[i].load(kRelaxed);
  s.cycles = cycles_.load(kRelaxed);
  s.lateness_sum_ns = sum_.load(kRelaxed);
  s.lateness_max_ns = max_.load(kRelaxed);
  s.overruns = overruns_.load(kRelaxed);
  s.last_overrun_cycle = last_overrun_.load(kRelaxed);
  return s;
}

void CycleStats::Reset() {
  for (auto& b : buckets_) b.store(0, kRelaxed);
  cycles_.store(0, kRelaxed);
  overruns_.store(0, kRelaxed);
  sum_.store(0, kRelaxed);
  max_.store(0, kRelaxed);
  last_overrun_.store(-1, kRelaxed);
}
