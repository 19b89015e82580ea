// What a periodic task does about its overruns: count them, warn, or hold
// its outputs in their safe states.
#ifndef ZQRTM_OVERRUNGUARD_H
#define ZQRTM_OVERRUNGUARD_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "zqcommon/export.h"

// The guard trips when `limit` overruns fall within `window_ns` (the newest
// overrun less than a window after the limit-th newest). It stays tripped
// until a whole window passes without an overrun. Each trip is counted; what
// else happens is the policy's:
//   Off    nothing (the guard never trips);
//   Count  the trips are counted;
//   Warn   as Count; the owner tells the operator (tripped(), trips());
//   Safe   as Warn, and Cycle() answers true from the trip on: the task writes
//          its outputs' safe states every cycle until Resume() is asked for
//          and the overruns have stopped for a window.
//
// The task calls Cycle() once per cycle (no allocation, no system call, a
// few relaxed atomic stores); any thread may read the state and ask for
// Resume(). Configure() before the task runs. Never fails.
class ZQ_EXPORT OverrunGuard {
 public:
  enum class Policy : uint8_t { Off = 0, Count = 1, Warn = 2, Safe = 3 };
  static constexpr unsigned kMaxLimit = 1000;

  // "off", "count", "warn", "safe"; false (and `out` unchanged) otherwise.
  static bool ParsePolicy(const std::string& text, Policy& out);
  static const char* ToString(Policy p);

  // `limit` is kept within 1..kMaxLimit, `window_ns` at least 1. Forgets the
  // overruns seen so far (not the trip count).
  void Configure(Policy policy, unsigned limit, long long window_ns);

  // The task, once per cycle: the cycle's start (a monotonic clock in ns)
  // and whether the cycle overran. True while the outputs are to be held in
  // their safe states (policy Safe only).
  bool Cycle(long long now_ns, bool overran);
  // Asks the task to release the outputs at its next cycle; refused there
  // (holding() stays true) while the guard is still tripped.
  void Resume() { resume_.store(true, std::memory_order_relaxed); }

  Policy policy() const { return policy_; }
  unsigned limit() const { return limit_; }
  long long window_ns() const { return window_ns_; }
  bool tripped() const { return tripped_.load(std::memory_order_relaxed); }
  bool holding() const { return holding_.load(std::memory_order_relaxed); }
  uint64_t trips() const { return trips_.load(std::memory_order_relaxed); }

 private:
  Policy policy_ = Policy::Off;
  unsigned limit_ = 1;
  long long window_ns_ = 1;
  std::array<long long, kMaxLimit> times_{};  // the newest `limit_` overruns, a ring
  unsigned next_ = 0, stored_ = 0;
  long long last_overrun_ns_ = 0;
  std::atomic<bool> tripped_{false}, holding_{false}, resume_{false};
  std::atomic<uint64_t> trips_{0};
};

#endif
