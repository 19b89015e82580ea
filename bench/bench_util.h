// Timing helpers and the summary row shared by the benchmarks.
#ifndef ZQ_BENCH_UTIL_H
#define ZQ_BENCH_UTIL_H

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
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

// printf into a string.
inline std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string text(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

// One row of the table bench/run.sh ends with.
struct Summary {
  std::string work;
  std::string peer;         // the strongest peer, or why there is none
  std::string peer_figure;  // "n/a" without a peer
  std::string ours;
  double ratio = NAN;       // ours over the peer, above 1 better for us; NaN without a peer
  double goal = NAN;        // the ratio aimed at; NaN when no goal is set
  std::string goal_against; // what the goal's ratio is taken against
  std::string bound = "-";  // the physical bound, where there is one
};

// Prints "SUMMARY|work|peer|peer figure|ours|ratio|goal|met|bound".
inline void summary(const Summary& s) {
  const bool has_goal = !std::isnan(s.goal), has_ratio = !std::isnan(s.ratio);
  const std::string ratio = has_ratio ? text("%.2f", s.ratio) : "n/a";
  const std::string goal = has_goal ? text(">=%.3gx %s", s.goal, s.goal_against.c_str()) : "-";
  const char* met = !has_goal ? "-" : !has_ratio ? "not measured" : s.ratio >= s.goal ? "met" : "NOT MET";
  std::printf("SUMMARY|%s|%s|%s|%s|%s|%s|%s|%s\n", s.work.c_str(), s.peer.c_str(), s.peer_figure.c_str(),
              s.ours.c_str(), ratio.c_str(), goal.c_str(), met, s.bound.c_str());
}

}  // namespace bench

#endif
