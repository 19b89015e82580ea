// Clock readings and calendar conversion.
#include <sys/time.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>

#include "zqcommon/functions.h"

namespace {

// Whole second of the first GetUTickCount() call; -1 until then. Atomic so that
// concurrent first calls are not a data race; whichever stores first wins.
std::atomic<long> g_tick_origin{-1};

// Integral part of a double as int, clamped so that absurd times (NaN, far
// beyond the calendar) give nonsense values instead of undefined behaviour.
int whole(double v) {
  if (!(v > -2147483648.0)) return v != v ? 0 : -2147483647 - 1;
  if (!(v < 2147483647.0)) return 2147483647;
  return static_cast<int>(v);
}

}  // namespace

double GetUTickCount() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  long origin = g_tick_origin.load(std::memory_order_relaxed);
  if (origin < 0) {
    if (g_tick_origin.compare_exchange_strong(origin, tv.tv_sec, std::memory_order_relaxed)) {
      return static_cast<double>(tv.tv_usec);
    }
  }
  return static_cast<double>(tv.tv_sec - origin) * 1000000.0 + static_cast<double>(tv.tv_usec);
}

double GetMTickCount() { return GetUTickCount() / 1000.0; }
double GetSTickCount() { return GetUTickCount() / 1000000.0; }

double GetUTC() { return get_systime(); }

int64_t GetLLTicks() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// The date follows the Julian-day-number conversion. The time of day is taken
// from the seconds since midnight, computed exactly, rather than from the
// fraction of t / 86400: that fraction carries rounding errors of about 1e-7 s,
// which would turn a whole minute into "hh:mm-1:59.9999999".
void split_unix_time(double t, int& year, int& month, int& day, int& hour, int& minute,
                     double& second) {
  const double days = std::floor(t / 86400.0);
  double seconds_of_day = t - days * 86400.0;
  if (seconds_of_day < 0.0) seconds_of_day = 0.0;  // only for non-finite input
  const double J = days + 2440588.0;
  double A = J;
  if (J > 2299161.0) {
    const double a = std::floor((J - 1867216.25) / 36524.25);
    A = J + 1.0 + a - std::floor(a / 4.0);
  }
  const double B = A + 1524.0;
  const double C = std::floor((B - 122.1) / 365.25);
  const double D = std::floor(365.25 * C);
  const double E = std::floor((B - D) / 30.6001);
  day = whole(B - D - std::floor(30.6001 * E));
  hour = whole(std::floor(seconds_of_day / 3600.0));
  seconds_of_day -= hour * 3600.0;
  minute = whole(std::floor(seconds_of_day / 60.0));
  second = seconds_of_day - minute * 60.0;
  month = whole(E > 13.0 ? E - 13.0 : E - 1.0);
  year = whole(month < 3 ? C - 4715.0 : C - 4716.0);
}

std::string mktimestr(double t) {
  int year, month, day, hour, minute;
  double second;
  // Rounded to whole milliseconds first, so that 59.9996 s shows as the next
  // minute's 00.000 and never as 60.000.
  split_unix_time(std::round(t * 1000.0) / 1000.0, year, month, day, hour, minute, second);
  char buf[128];
  std::snprintf(buf, sizeof buf, "%02i.%02i.%i %02i:%02i:%06.3f", day, month, year, hour, minute,
                second);
  return buf;
}
