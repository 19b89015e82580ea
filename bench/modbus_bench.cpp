// Modbus, side by side with libmodbus's own loops:
//  1. polling: a ModbusDevice polling back to back (10 holding registers a
//     poll) against libmodbus's client in a bare loop, same bare server;
//  2. ten devices, one of them dead: the others' poll rate against the
//     all-alive run;
//  3. serving: ModbusServer against a bare libmodbus server loop, read by a
//     bare libmodbus client, while a 1 kHz "task" publishes the image.
// 1 and 3 measure the two sides in turns, each side first in every other
// pair, and report the median of the pairs' ratios.
// Servers run in child processes (stopped by their pids), as a device would.
//   modbus_bench [SECONDS per measurement, default 1]
#include <arpa/inet.h>
#include <modbus/modbus.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zqdevices/ModbusDevice.h>
#include <zqdevices/ModbusServer.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "bench_util.h"
#include "support/loopback.h"

using namespace zqdevices;
using Clock = std::chrono::steady_clock;

namespace {

double g_seconds = 1;

// libmodbus's server in its plainest loop: one client at a time, receive and
// reply, in a child process. The pid; `port` is where it listens.
pid_t bare_server(int& port) {
  const int s = listen_local(port);
  if (s < 0) std::abort();
  const pid_t pid = fork();
  if (pid != 0) {
    close(s);
    return pid;
  }
  modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
  modbus_mapping_t* map = modbus_mapping_new(64, 64, 64, 64);
  for (int i = 0; i < 64; ++i) map->tab_registers[i] = map->tab_input_registers[i] = static_cast<uint16_t>(i * 7);
  uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
  for (;;) {
    const int c = accept(s, nullptr, nullptr);
    if (c < 0) continue;
    modbus_set_socket(ctx, c);
    for (;;) {
      const int rc = modbus_receive(ctx, query);
      if (rc > 0) modbus_reply(ctx, query, rc, map);
      if (rc < 0) break;
    }
    close(c);
  }
}

// Our server in a child process, a 1 kHz publisher beside it. It prints the
// publisher's figures to standard error when stopped (SIGTERM).
std::atomic<bool> g_stop{false};
pid_t our_server(int& port) {
  int pipefd[2];
  if (pipe(pipefd) != 0) std::abort();
  const pid_t pid = fork();
  if (pid != 0) {
    close(pipefd[1]);
    if (read(pipefd[0], &port, sizeof port) != sizeof port) std::abort();
    close(pipefd[0]);
    return pid;
  }
  signal(SIGTERM, [](int) { g_stop = true; });
  ModbusServerConfig c;
  c.listen = "127.0.0.1:0";
  c.image_bytes = 8;
  c.writable.assign(64, false);
  for (int k = 0; k < 32; ++k) {
    c.values.emplace_back("d", "v" + std::to_string(k));
    c.units.emplace_back();
  }
  ModbusServer server(c);
  if (!server.Start()) std::abort();
  const std::string d = "d", unit;
  for (int k = 0; k < 32; ++k) {
    const std::string name = "v" + std::to_string(k);
    server.Deliver(DeviceValue{d, name, k * 7.0, unit, Quality::good, {}});
  }
  port = server.Port();
  if (write(pipefd[1], &port, sizeof port) != sizeof port) std::abort();
  uint8_t in[8] = {1, 2, 3}, out[8] = {4, 5, 6};
  long cycles = 0, skipped = 0;
  double worst_us = 0;
  auto next = Clock::now();
  while (!g_stop) {
    next += std::chrono::milliseconds(1);
    std::this_thread::sleep_until(next);
    const auto t0 = Clock::now();
    if (!server.PublishImage(in, out)) ++skipped;
    server.TakeWrites([](unsigned int, bool) {});
    worst_us = std::max(worst_us, std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    ++cycles;
  }
  std::fprintf(stderr, "  task beside our server: %ld cycles, %ld handed over later (server busy), longest hand-over %.1f us\n",
               cycles, skipped, worst_us);
  server.Stop();
  _exit(0);
}

void stop(pid_t pid) {
  kill(pid, SIGCONT);
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

struct Rate {
  double per_s = 0, p99_ms = 0;
};

// libmodbus's client reading `count` registers back to back.
Rate bare_client(int port, bool input_registers, int count) {
  modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
  if (modbus_connect(ctx) != 0) std::abort();
  uint16_t regs[64];
  std::vector<double> lat;
  lat.reserve(1 << 20);
  const auto end = Clock::now() + std::chrono::duration<double>(g_seconds);
  const auto t0 = Clock::now();
  while (Clock::now() < end) {
    const auto a = Clock::now();
    const int rc = input_registers ? modbus_read_input_registers(ctx, 0, count, regs)
                                   : modbus_read_registers(ctx, 0, count, regs);
    if (rc != count) std::abort();
    lat.push_back(std::chrono::duration<double, std::milli>(Clock::now() - a).count());
  }
  const double s = std::chrono::duration<double>(Clock::now() - t0).count();
  modbus_close(ctx);  // the bare server serves one client at a time
  modbus_free(ctx);
  std::sort(lat.begin(), lat.end());
  return {lat.size() / s, lat[lat.size() * 99 / 100]};
}

struct NullSink : ValueSink {
  void Deliver(const DeviceValue&) override {}
};

DeviceConfig device(const std::string& name, int port, int period_ms, int timeout_ms) {
  DeviceConfig d;
  d.name = name;
  std::string error;
  if (!DeviceUrl::Parse("modbus-tcp://127.0.0.1:" + std::to_string(port), d.url, error)) std::abort();
  d.period_ms = period_ms;
  d.timeout_ms = timeout_ms;
  d.backoff_ms = 50;
  d.backoff_max_ms = 50;
  for (unsigned int k = 0; k < 10; ++k) {
    DevicePoint p;
    if (!p.ParseSpec("holding " + std::to_string(k), error)) std::abort();
    p.name = "r" + std::to_string(k);
    d.points.push_back(p);
  }
  return d;
}

// Polls per second of each device over the measurement.
std::vector<double> poll_rates(std::vector<std::unique_ptr<ModbusDevice>>& devices) {
  std::vector<uint64_t> before;
  for (auto& d : devices) before.push_back(d->GetStats().polls);
  const auto t0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(g_seconds));
  const double s = std::chrono::duration<double>(Clock::now() - t0).count();
  std::vector<double> rates;
  for (size_t i = 0; i < devices.size(); ++i) rates.push_back((devices[i]->GetStats().polls - before[i]) / s);
  return rates;
}

// The peer and ours measured in turns: `rounds` pairs, each side first in
// turn. Rates and p99s are the medians; the ratio (ours over the peer's) is
// the median of the pairs' ratios, each from two measurements under the same
// load.
struct InTurns {
  Rate peer, ours;
  double ratio = 0;
  std::string ratios;  // each pair's, in order
};
template <typename Peer, typename Ours>
InTurns in_turns(int rounds, Peer&& peer, Ours&& ours) {
  std::vector<double> peer_rates, peer_p99, our_rates, our_p99, ratios;
  for (int round = 0; round < rounds; ++round) {
    Rate p, o;
    for (int side = 0; side < 2; ++side) (side + round) % 2 == 0 ? (p = peer()) : (o = ours());
    peer_rates.push_back(p.per_s);
    peer_p99.push_back(p.p99_ms);
    our_rates.push_back(o.per_s);
    our_p99.push_back(o.p99_ms);
    ratios.push_back(o.per_s / p.per_s);
  }
  std::string each;
  for (double r : ratios) each += bench::text(" %.2f", r);
  return {{bench::median(peer_rates), bench::median(peer_p99)},
          {bench::median(our_rates), bench::median(our_p99)},
          bench::median(ratios),
          each};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) g_seconds = std::atof(argv[1]);
  NullSink sink;

  // 1. Polling against the same bare server, peer and ours in turns (six
  //    pairs of rounds).
  int port = 0;
  pid_t server = bare_server(port);
  std::string fault;
  const InTurns poll = in_turns(
      6, [&] { return bare_client(port, false, 10); },
      [&] {
        ModbusDevice d(device("bench", port, 0, 1000), &sink);
        d.Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // connected, warmed up
        const auto t0 = Clock::now();
        const uint64_t before = d.GetStats().polls;
        std::this_thread::sleep_for(std::chrono::duration<double>(g_seconds));
        const double per_s = (d.GetStats().polls - before) / std::chrono::duration<double>(Clock::now() - t0).count();
        if (d.GetState() != ModbusDevice::running || d.GetStats().faults != 0) fault = d.LastError();
        return Rate{per_s, d.GetStats().p99_ms};
      });
  stop(server);
  if (!fault.empty()) {
    std::fprintf(stderr, "FAIL: the polling device faulted: %s\n", fault.c_str());
    return 1;
  }
  std::printf("polling 10 holding registers back to back, loopback:\n");
  std::printf("  libmodbus client loop: %.0f requests/s, p99 %.3f ms\n", poll.peer.per_s, poll.peer.p99_ms);
  std::printf("  ModbusDevice:          %.0f requests/s, p99 %.3f ms (histogram bucket edge)\n", poll.ours.per_s,
              poll.ours.p99_ms);
  std::printf("  ours/peer in each pair:%s (median %.2f)\n", poll.ratios.c_str(), poll.ratio);
  bench::summary({"Modbus poll, 10 registers", "libmodbus client loop", bench::text("%.0f req/s", poll.peer.per_s),
                  bench::text("%.0f req/s, p99 %.2f ms", poll.ours.per_s, poll.ours.p99_ms), poll.ratio, 0.9,
                  "libmodbus", "loopback RTT"});

  // 2. Ten devices polling every 10 ms, then one of them dead (its server
  //    stopped: connected, never answering).
  std::vector<pid_t> servers;
  std::vector<int> ports(10);
  for (int& p : ports) servers.push_back(bare_server(p));
  std::vector<std::unique_ptr<ModbusDevice>> devices;
  for (int i = 0; i < 10; ++i) {
    devices.push_back(std::make_unique<ModbusDevice>(device("d" + std::to_string(i), ports[i], 10, 100), &sink));
    devices.back()->Start();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::vector<double> alive = poll_rates(devices);
  kill(servers[0], SIGSTOP);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::vector<double> dead = poll_rates(devices);
  const bool faulted = devices[0]->GetState() == ModbusDevice::faulted;
  devices.clear();
  for (pid_t p : servers) stop(p);
  double alive_rate = 0, dead_rate = 0, worst = 1e9;
  for (int i = 1; i < 10; ++i) {
    alive_rate += alive[i] / 9;
    dead_rate += dead[i] / 9;
    worst = std::min(worst, dead[i] / alive[i]);
  }
  std::printf("ten devices every 10 ms: the other nine %.1f polls/s each with all alive, %.1f with one dead "
              "(device 0 %s; slowest of the nine at %.2f of its alive rate)\n",
              alive_rate, dead_rate, faulted ? "faulted" : "NOT faulted", worst);
  bench::summary({"10 devices, one dead", "the same nine, all alive", bench::text("%.1f polls/s", alive_rate),
                  bench::text("%.1f polls/s", dead_rate), worst, 0.9, "all alive", "100 polls/s (period)"});

  // 3. Serving 10 input registers to a bare client loop, in turns (five
  //    pairs of rounds).
  auto served_by = [&](bool ours) {
    server = ours ? our_server(port) : bare_server(port);
    const Rate r = bare_client(port, true, 10);
    stop(server);
    return r;
  };
  const InTurns serve = in_turns(5, [&] { return served_by(false); }, [&] { return served_by(true); });
  std::printf("serving 10 input registers to a libmodbus client loop:\n");
  std::printf("  bare libmodbus server: %.0f requests/s, p99 %.3f ms\n", serve.peer.per_s, serve.peer.p99_ms);
  std::printf("  ModbusServer:          %.0f requests/s, p99 %.3f ms\n", serve.ours.per_s, serve.ours.p99_ms);
  std::printf("  ours/peer in each pair:%s (median %.2f)\n", serve.ratios.c_str(), serve.ratio);
  std::fflush(stdout);
  bench::summary({"Modbus server, 10 registers", "bare libmodbus server loop",
                  bench::text("%.0f req/s", serve.peer.per_s),
                  bench::text("%.0f req/s, p99 %.2f ms", serve.ours.per_s, serve.ours.p99_ms), serve.ratio, 0.9,
                  "libmodbus", "loopback RTT"});
  return faulted ? 0 : 1;
}
