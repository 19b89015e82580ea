// Lateness histogram and overrun record of a periodic real-time task.
#ifndef ZQRTM_CYCLESTATS_H
#define ZQRTM_CYCLESTATS_H

#include <zqcommon/export.h>

#include <array>
#include <atomic>
#include <cstdint>

class rtthread;

// Statistics of a periodic task's cycles, opt-in beside an rtthread: how late
// each cycle started after its release (a histogram with log-spaced buckets,
// 1-2-5 steps from 1 us to 100 ms, as latency plots of real-time Linux use)
// and the overruns (a cycle that started a whole period late, or whose
// predecessor ran past its release), with the number of the last one.
//
// The task calls Observe(*this) first thing in each rtrun(), or Record() with
// its own times. Writers are the task alone; any thread may call Read() while
// the task runs: every value is a relaxed atomic, so a snapshot is consistent
// per value (not across values) and never stops or slows the task. Owned by
// the program; it must outlive the task's cycles. Never allocates or fails.
class ZQ_EXPORT CycleStats {
 public:
  // Upper bounds of the buckets in nanoseconds; one more bucket holds the rest.
  static constexpr int kBounds = 16;
  static constexpr std::array<long long, kBounds> kBoundNs = {
      1000,     2000,     5000,     10000,    20000,    50000,     100000,    200000,
      500000,   1000000,  2000000,  5000000,  10000000, 20000000,  50000000,  100000000};

  // The counts and figures at one moment, copied out for readers.
  struct Snapshot {
    std::array<uint64_t, kBounds + 1> buckets{};  // counts, last = above 100 ms
    uint64_t cycles = 0;
    long long lateness_sum_ns = 0;
    long long lateness_max_ns = 0;
    uint64_t overruns = 0;
    long long last_overrun_cycle = -1;  // -1: none yet
  };

  // Records the current cycle of `task` from its release and start times, and
  // an overrun when the previous cycle ended after this cycle's release.
  void Observe(const rtthread& task);
  // Records one cycle: its number, how late it started and whether it overran.
  void Record(long long cycle, long long lateness_ns, bool overrun);
  // The bucket for a lateness (0 .. kBounds).
  static int Bucket(long long lateness_ns);
  Snapshot Read() const;
  // The overruns so far (what Read() would copy, without the rest).
  uint64_t overruns() const { return overruns_.load(std::memory_order_relaxed); }
  // Starts counting afresh; for the task's own thread or while it is stopped.
  void Reset();

 private:
  std::array<std::atomic<uint64_t>, kBounds + 1> buckets_{};
  std::atomic<uint64_t> cycles_{0}, overruns_{0};
  std::atomic<long long> sum_{0}, max_{0}, last_overrun_{-1};
};

#endif
