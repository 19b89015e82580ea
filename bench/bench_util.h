// Timing helpers shared by the benchmarks.
#ifndef ZQ_BENCH_UTIL_H
#define ZQ_BENCH_UTIL_H

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace bench {

inline double seconds(const std::function<void()>& run) {
  const auto t0 = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace bench

#endif
