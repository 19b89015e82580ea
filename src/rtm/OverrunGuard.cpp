// Overrun policy of a periodic task (see OverrunGuard.h).
#include "zqrtm/OverrunGuard.h"

#include <algorithm>
#include <strings.h>

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
const char* const kNames[] = {"off", "count", "warn", "safe"};
}  // namespace

bool OverrunGuard::ParsePolicy(const std::string& text, Policy& out) {
  for (unsigned i = 0; i < 4; ++i) {
    if (strcasecmp(text.c_str(), kNames[i]) == 0) {
      out = static_cast<Policy>(i);
      return true;
    }
  }
  return false;
}

const char* OverrunGuard::ToString(Policy p) { return kNames[static_cast<unsigned>(p) & 3u]; }

void OverrunGuard::Configure(Policy policy, unsigned limit, long long window_ns) {
  policy_ = policy;
  limit_ = std::min(std::max(limit, 1u), kMaxLimit);
  window_ns_ = std::max(window_ns, 1LL);
  next_ = stored_ = 0;
  tripped_.store(false, kRelaxed);
  holding_.store(false, kRelaxed);
}

bool OverrunGuard::Cycle(long long now_ns, bool overran) {
  if (policy_ == Policy::Off) return false;
  bool tripped = tripped_.load(kRelaxed);
  if (overran) {
    last_overrun_ns_ = now_ns;
    times_[next_] = now_ns;
    next_ = next_ + 1 == limit_ ? 0 : next_ + 1;
    if (stored_ < limit_) ++stored_;
    // With the ring full, times_[next_] is the limit-th newest overrun.
    if (!tripped && stored_ == limit_ && now_ns - times_[next_] < window_ns_) {
      tripped = true;
      tripped_.store(true, kRelaxed);
      trips_.fetch_add(1, kRelaxed);
      if (policy_ == Policy::Safe) holding_.store(true, kRelaxed);
    }
  } else if (tripped && now_ns - last_overrun_ns_ >= window_ns_) {
    tripped = false;
    tripped_.store(false, kRelaxed);
  }
  if (resume_.load(kRelaxed)) {
    resume_.store(false, kRelaxed);
    if (!tripped) holding_.store(false, kRelaxed);
  }
  return holding_.load(kRelaxed);
}
