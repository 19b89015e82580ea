// Acquisition times: CLOCK_MONOTONIC readings mapped to UTC.
#ifndef ZQRTM_ACQUISITIONCLOCK_H
#define ZQRTM_ACQUISITIONCLOCK_H

#include <atomic>
#include <cstdint>
#include <functional>

#include "zqcommon/export.h"

// A real-time task stamps each sample with Monotonic() (nanoseconds of
// CLOCK_MONOTONIC: cheap, never steps, no system call on Linux's vDSO). The
// consumer turns a stamp into UTC with ToUtcUs():
//
//   utc_us = (monotonic_ns + offset_ns) / 1000
//
// where offset_ns = CLOCK_REALTIME - CLOCK_MONOTONIC, measured at
// construction and again by Remeasure(), which the owner calls periodically
// (every few seconds; MaybeRemeasure does it when due). The offset is taken
// from the read pair with the shortest gap out of a few, so it is good to a
// microsecond or so. A clock step (settimeofday, a first NTP sync) reaches
// the stamps at the next re-measurement; slewing by NTP moves the offset
// slowly and is followed the same way. Stamps stay monotonic between
// re-measurements.
//
// Thread safety: Monotonic() and ToUtcUs() from any thread, lock-free;
// Remeasure() from one thread at a time. The offset source can be replaced
// (tests inject clock steps); it returns REALTIME - MONOTONIC in ns.
class ZQ_EXPORT AcquisitionClock {
 public:
  typedef std::function<int64_t()> OffsetSource;
  explicit AcquisitionClock(OffsetSource source = OffsetSource(), int64_t remeasure_ns = 10000000000LL);

  static int64_t Monotonic();
  // The UTC microseconds since the epoch of a Monotonic() stamp.
  int64_t ToUtcUs(int64_t monotonic_ns) const {
    return (monotonic_ns + offset_ns_.load(std::memory_order_relaxed)) / 1000;
  }
  int64_t NowUtcUs() const { return ToUtcUs(Monotonic()); }
  // Takes a new offset; the change from the previous one in ns.
  int64_t Remeasure();
  // Remeasures when the period has passed since the last; whether it did.
  bool MaybeRemeasure();
  int64_t offset_ns() const { return offset_ns_.load(std::memory_order_relaxed); }
  // The system's offset, the default source.
  static int64_t MeasureOffset();

 private:
  OffsetSource source_;
  int64_t period_ns_;
  int64_t last_ns_ = 0;
  std::atomic<int64_t> offset_ns_{0};
};

#endif
