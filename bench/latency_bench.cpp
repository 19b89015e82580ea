// Wake-up latency of a 1 kHz rtthread for 10 s against cyclictest (rt-tests)
// with the same period and priority, in one run: once idle, once with a busy
// loop on the other core. Prints min, average, 50th, 99th, 99.9th percentile
// and max in microseconds, and our figure over cyclictest's.
#include <zqrtm/rtthread.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kCycles = 10000;  // 10 s at 1 kHz
constexpr long long kPeriodNs = 1000000;

struct Stats {
  double min, avg, p50, p99, p999, max;
};

Stats stats_of(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  double sum = 0;
  for (double v : us) sum += v;
  auto pct = [&](double p) { return us[std::min(us.size() - 1, static_cast<size_t>(p * us.size()))]; };
  return {us.front(), sum / us.size(), pct(0.5), pct(0.99), pct(0.999), us.back()};
}

// Records the lateness of every cycle's start against its release time.
class Probe : public rtthread {
 public:
  Probe() : rtthread("LATPRB", kPeriodNs, true, 0, true) { latencies.reserve(kCycles); }
  ~Probe() override {
    SetCancel();
    WaitFinished(-1);
  }
  std::vector<double> latencies;
  std::atomic<bool> done{false};

 protected:
  void start(void*) override {}
  void* rtrun(void*) override {
    if (latencies.size() < kCycles) {
      latencies.push_back((CycleStart() - CycleRelease()) / 1000.0);
    } else {
      done = true;
    }
    return nullptr;
  }
};

Stats run_ours() {
  Probe probe;
  probe.Start(nullptr);
  while (!probe.done) usleep(100000);
  probe.SetCancel();
  probe.WaitFinished(-1);
  return stats_of(probe.latencies);
}

// cyclictest's histogram (one line per microsecond: "latency count").
bool run_cyclictest(Stats& out) {
  const std::string hist = "/tmp/zq_cyclictest_hist.txt";
  const std::string cmd = "cyclictest -m -q -p 99 -i 1000 -l " + std::to_string(kCycles) +
                          " -h 100000 --histfile=" + hist + " > /dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) return false;
  std::ifstream in(hist);
  std::vector<double> us;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    long latency = 0, count = 0;
    if (fields >> latency >> count) us.insert(us.end(), static_cast<size_t>(count), static_cast<double>(latency));
  }
  std::remove(hist.c_str());
  if (us.empty()) return false;
  out = stats_of(us);
  return true;
}

void report(const char* title, const Stats& ours, const Stats& peer) {
  std::printf("%s (microseconds)\n", title);
  std::printf("  %-8s %10s %12s %8s\n", "", "rtthread", "cyclictest", "ratio");
  const char* names[] = {"min", "avg", "p50", "p99", "p99.9", "max"};
  const double a[] = {ours.min, ours.avg, ours.p50, ours.p99, ours.p999, ours.max};
  const double b[] = {peer.min, peer.avg, peer.p50, peer.p99, peer.p999, peer.max};
  for (int i = 0; i < 6; ++i) {
    std::printf("  %-8s %10.1f %12.1f %8.2f\n", names[i], a[i], b[i], b[i] > 0 ? a[i] / b[i] : 0.0);
  }
}

}  // namespace

int main() {
  for (bool busy : {false, true}) {
    std::atomic<bool> stop{false};
    std::thread load;
    if (busy) {
      load = std::thread([&] {
        volatile unsigned long spin = 0;
        while (!stop) ++spin;
      });
    }
    const Stats ours = run_ours();
    Stats peer{};
    const bool have_peer = run_cyclictest(peer);
    stop = true;
    if (load.joinable()) load.join();
    const char* title = busy ? "1 kHz wake-up latency, busy loop on the other core"
                             : "1 kHz wake-up latency, idle";
    if (have_peer) {
      report(title, ours, peer);
    } else {
      std::printf("%s: cyclictest did not run\n", title);
    }
  }
  return 0;
}
