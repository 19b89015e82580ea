#include "zqrtm/AcquisitionClock.h"

#include <time.h>

#include <utility>

namespace {

int64_t read_ns(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

AcquisitionClock::AcquisitionClock(OffsetSource source, int64_t remeasure_ns)
    : source_(std::move(source)), period_ns_(remeasure_ns) {
  if (!source_) source_ = [] { return MeasureOffset(); };
  Remeasure();
}

int64_t AcquisitionClock::Monotonic() { return read_ns(CLOCK_MONOTONIC); }

// REALTIME read between two MONOTONIC reads; the tightest of five brackets
// wins, which leaves out a pre-emption between the reads.
int64_t AcquisitionClock::MeasureOffset() {
  int64_t best_gap = INT64_MAX, offset = 0;
  for (int i = 0; i < 5; ++i) {
    const int64_t a = read_ns(CLOCK_MONOTONIC);
    const int64_t r = read_ns(CLOCK_REALTIME);
    const int64_t b = read_ns(CLOCK_MONOTONIC);
    if (b - a < best_gap) {
      best_gap = b - a;
      offset = r - (a + (b - a) / 2);
    }
  }
  return offset;
}

int64_t AcquisitionClock::Remeasure() {
  const int64_t next = source_();
  const int64_t change = next - offset_ns_.load(std::memory_order_relaxed);
  offset_ns_.store(next, std::memory_order_relaxed);
  last_ns_ = Monotonic();
  return change;
}

bool AcquisitionClock::MaybeRemeasure() {
  if (Monotonic() - last_ns_ < period_ns_) return false;
  Remeasure();
  return true;
}
