// Points and alarms: 10,000 points updated and alarm-checked per cycle (ns per
// point-update, operator new calls in steady state), and the alarm journal at
// 1,000 transitions/s paced (p99 write latency) and flat out. No peer library
// does this; the rows are held against the goals (20 ns, 1,000/s).
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/allocation_counter.h"
#include "bench_util.h"
#include <zqpoints/AlarmJournal.h>
#include <zqpoints/PointTable.h>

namespace {

using namespace zqpoints;

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

void points() {
  constexpr int kPoints = 10000, kCycles = 2000;
  PointTable table(1 << 16);
  for (int i = 0; i < kPoints; ++i) {
    PointConfig c;
    c.name = "p" + std::to_string(i);
    c.unit = "mm";
    c.lo = 10, c.hi = 90, c.hihi = 95, c.deadband = 1;
    c.on_delay_samples = i % 3;
    table.Add(c);
  }
  // Values sweep slowly, so that a few points cross a limit every cycle.
  std::vector<double> phase(kPoints);
  for (int i = 0; i < kPoints; ++i) phase[i] = (i * 7919 % 1000) * 0.1;
  AlarmEvent e;
  long events = 0;
  std::vector<double> per_cycle;
  per_cycle.reserve(kCycles);
  const long before = allocations();
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    const int64_t t = 1700000000000000LL + cycle * 1000LL;
    const double t0 = now_s();
    for (int i = 0; i < kPoints; ++i) {
      double v = phase[i] + cycle * 0.05;
      v -= 100.0 * std::floor(v / 100.0);
      table.Update(static_cast<size_t>(i), v, t);
    }
    per_cycle.push_back(now_s() - t0);
    while (table.TakeEvent(e)) ++events;
  }
  const long allocated = allocations() - before;
  const double ns = bench::median(per_cycle) / kPoints * 1e9;
  std::printf("points: %d points x %d cycles, median %.1f ns per point-update (%.1f us per cycle), "
              "%ld alarm events, %ld allocations in steady state\n",
              kPoints, kCycles, ns, ns * kPoints / 1000, events, allocated);
  bench::Summary s;
  s.work = "point update+alarm check (10k points)";
  s.peer = "none (goal 20 ns)";
  s.peer_figure = "20 ns";
  s.ours = bench::text("%.1f ns, %ld allocs", ns, allocated);
  s.ratio = allocated == 0 ? 20.0 / ns : 0;
  s.goal = 1;
  s.goal_against = "20 ns";
  bench::summary(s);
}

void journal() {
  char dir[] = "/tmp/zqjournalXXXXXX";
  if (!mkdtemp(dir)) return;
  const std::string path = std::string(dir) + "/journal.db";
  AlarmJournal j;
  std::string error;
  if (!j.Open(path, 100000, error)) {
    std::printf("journal: %s\n", error.c_str());
    return;
  }
  AlarmEvent e;
  std::strcpy(e.action, "raise");
  e.to = AlarmState::ActiveUnacked;
  // Paced: one append per millisecond for three seconds.
  constexpr int kPaced = 3000;
  std::vector<double> latency;
  latency.reserve(kPaced);
  const double start = now_s();
  int late = 0;
  for (int i = 0; i < kPaced; ++i) {
    const double due = start + i * 1e-3;
    double t = now_s();
    if (t < due) usleep(static_cast<useconds_t>((due - t) * 1e6));
    else if (t - due > 1e-3) ++late;
    e.time_us = i;
    e.value = i;
    t = now_s();
    j.Append(e, "level");
    latency.push_back(now_s() - t);
  }
  const double paced_rate = kPaced / (now_s() - start);
  std::sort(latency.begin(), latency.end());
  const double p50 = latency[kPaced / 2] * 1e6, p99 = latency[kPaced * 99 / 100] * 1e6,
               worst = latency.back() * 1e6;
  // Flat out.
  constexpr int kBurst = 20000;
  const double b0 = now_s();
  for (int i = 0; i < kBurst; ++i) j.Append(e, "level");
  const double burst_rate = kBurst / (now_s() - b0);
  std::printf("journal: paced %.0f appends/s (%d late), latency p50 %.0f us p99 %.0f us max %.0f us; "
              "flat out %.0f appends/s (SQLite WAL, synchronous=NORMAL)\n",
              paced_rate, late, p50, p99, worst, burst_rate);
  j.Close();
  std::string rm = std::string("rm -rf ") + dir;
  if (std::system(rm.c_str()) != 0) std::printf("could not remove %s\n", dir);
  bench::Summary s;
  s.work = "alarm journal appends/s";
  s.peer = "none (goal 1,000/s)";
  s.peer_figure = "1000/s";
  s.ours = bench::text("%.0f/s flat out, p99 %.0f us at 1000/s", burst_rate, p99);
  s.ratio = burst_rate / 1000.0;
  s.goal = 1;
  s.goal_against = "1,000/s";
  bench::summary(s);
}

}  // namespace

int main() {
  points();
  journal();
  return 0;
}
