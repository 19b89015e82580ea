// N simulated stations publishing to one mosquitto: the library's MqttLink
// against the same load from mosquitto_pub (libmosquitto's C client, one
// process per station fed line by line).
//
//   fleet_bench [STATIONS=200] [SECONDS=10]
//   fleet_bench telemetry [POINTS=1000] [HZ=100] [SECONDS=10]
//
// Each station publishes a status record every second and 10 sample batches
// a second at QoS 1. A subscriber in this process counts what arrives per
// station, checks every sequence number, and measures end-to-end latency
// from a send time in each payload. CPU per station is the publishing
// processes' user+system time divided by the stations. Needs mosquitto and
// mosquitto_pub on PATH; starts its own broker on a free loopback port.
//
// telemetry: one station's points (a PointTable) published at a rate, one
// record per update, at QoS 0 and 1, against mosquitto_pub -l fed the same
// records (see telemetry() below); fails when a QoS 1 record is lost.
#include <dirent.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zqfleet/JsonFields.h>
#include <zqfleet/MqttLink.h>
#include <zqpoints/PointTable.h>

#include "bench_util.h"
#include "support/loopback.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

long long now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

// CPU time of the processes' threads in seconds, from /proc/PID/task/*/schedstat (nanosecond
// resolution), so that their start-up can be left out.
double cpu_of(const std::vector<pid_t>& pids) {
  long long ns = 0;
  for (pid_t p : pids) {
    const std::string tasks = "/proc/" + std::to_string(p) + "/task";
    DIR* dir = opendir(tasks.c_str());
    if (dir == nullptr) continue;
    while (dirent* e = readdir(dir)) {
      if (e->d_name[0] == '.') continue;
      FILE* f = std::fopen((tasks + "/" + e->d_name + "/schedstat").c_str(), "r");
      if (f == nullptr) continue;
      long long run = 0;
      if (std::fscanf(f, "%lld", &run) == 1) ns += run;
      std::fclose(f);
    }
    closedir(dir);
  }
  return static_cast<double>(ns) * 1e-9;
}

double cpu_seconds(const rusage& r) {
  return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
         static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
}

// Counts records per station and their latency; payloads carry "n" (the
// station), "seq" or "k" (a number per station and topic) and "t" (send time).
struct Subscriber {
  std::mutex mu;
  std::vector<std::vector<long long>> seen;  // per station: samples numbers seen
  std::vector<long long> latency_us;
  long long received = 0;

  static long long field(const char* text, const char* name) {
    const char* p = std::strstr(text, name);
    return p != nullptr ? std::atoll(p + std::strlen(name)) : -1;
  }
  static void on_message(mosquitto*, void* self, const mosquitto_message* m) {
    auto& s = *static_cast<Subscriber*>(self);
    const std::string text(static_cast<const char*>(m->payload), static_cast<size_t>(m->payloadlen));
    const long long t = field(text.c_str(), "\"t\":"), n = field(text.c_str(), "\"n\":");
    const long long k = field(text.c_str(), "\"k\":");
    std::lock_guard<std::mutex> lock(s.mu);
    ++s.received;
    if (t > 0) s.latency_us.push_back((now_ns() - t) / 1000);
    if (n >= 0 && n < static_cast<long long>(s.seen.size()) && k >= 0) s.seen[static_cast<size_t>(n)].push_back(k);
  }
};

struct Result {
  double cpu = 0, rate = 0, p99_ms = 0;
  long long lost = 0, dup = 0, sent = 0;
};

Result measure(Subscriber& sub, int stations, int seconds, double cpu, long long sent) {
  Result r;
  r.cpu = cpu;
  r.sent = sent;
  std::lock_guard<std::mutex> lock(sub.mu);
  r.rate = static_cast<double>(sub.received) / seconds;
  for (auto& v : sub.seen) {
    std::sort(v.begin(), v.end());
    const long long distinct = std::unique(v.begin(), v.end()) - v.begin();
    r.dup += static_cast<long long>(v.size()) - distinct;
  }
  long long got = 0;
  for (auto& v : sub.seen) got += static_cast<long long>(std::unique(v.begin(), v.end()) - v.begin());
  r.lost = sent - got;
  std::sort(sub.latency_us.begin(), sub.latency_us.end());
  if (!sub.latency_us.empty()) r.p99_ms = sub.latency_us[sub.latency_us.size() * 99 / 100] / 1000.0;
  (void)stations;
  return r;
}

// One run: `publish` drives the load for `seconds` and returns CPU seconds
// and the number of sample records sent.
template <typename F>
Result run(int port, int stations, int seconds, const char* prefix, F publish) {
  Subscriber sub;
  sub.seen.resize(static_cast<size_t>(stations));
  mosquitto* m = mosquitto_new(nullptr, true, &sub);
  mosquitto_message_callback_set(m, &Subscriber::on_message);
  mosquitto_connect(m, "127.0.0.1", port, 30);
  mosquitto_subscribe(m, nullptr, (std::string(prefix) + "/#").c_str(), 1);
  mosquitto_loop_start(m);
  usleep(300000);
  long long sent = 0;
  const double cpu = publish(sent);
  usleep(2000000);  // the last records arrive
  mosquitto_disconnect(m);
  mosquitto_loop_stop(m, false);
  mosquitto_destroy(m);
  return measure(sub, stations, seconds, cpu, sent);
}

// A mosquitto of its own on a free loopback port, stopped by its pid.
struct Broker {
  int port = free_local_port();
  char conf[32] = "/tmp/fleet-bench-XXXXXX";
  pid_t pid = -1;
  bool Start() {
    const int fd = mkstemp(conf);
    const std::string text = "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 100000\n";
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return false;
    close(fd);
    pid = fork();
    if (pid == 0) {
      // The broker's log would interleave with the report: it goes nowhere.
      const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
      }
      execlp("mosquitto", "mosquitto", "-c", conf, static_cast<char*>(nullptr));
      _exit(127);
    }
    usleep(500000);
    return pid > 0;
  }
  // Asked to stop for 5 s, then killed.
  void Stop() {
    kill(pid, SIGTERM);
    for (int waited = 0; waitpid(pid, nullptr, WNOHANG) == 0; ++waited) {
      if (waited == 500) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        break;
      }
      usleep(10000);
    }
    unlink(conf);
  }
};

// Runs `publish` in a child process; the child writes its CPU seconds and
// the records it sent into a pipe.
template <typename F>
double in_child(long long& sent, F publish) {
  int pipefd[2];
  if (pipe(pipefd) != 0) return 0.0;
  const pid_t child = fork();
  if (child == 0) {
    rusage before{}, after{};
    long long count = 0;
    const double cpu = publish(count, before, after);
    const long long msg[2] = {static_cast<long long>(cpu * 1e6), count};
    if (write(pipefd[1], msg, sizeof msg) != sizeof msg) _exit(1);
    _exit(0);
  }
  close(pipefd[1]);
  long long msg[2] = {0, 0};
  if (read(pipefd[0], msg, sizeof msg) != sizeof msg) std::fprintf(stderr, "library run failed\n");
  close(pipefd[0]);
  waitpid(child, nullptr, 0);
  sent = msg[1];
  return static_cast<double>(msg[0]) * 1e-6;
}

// mosquitto_pub -l publishers (`topics`, each fed line by line) and their stdin.
struct Publishers {
  std::vector<FILE*> feeds;
  std::vector<pid_t> kids;
  Publishers(int port, const std::vector<std::string>& topics, int qos) {
    for (const std::string& t : topics) {
      int p[2];
      if (pipe(p) != 0) break;
      const pid_t kid = fork();
      if (kid == 0) {
        dup2(p[0], 0);
        close(p[0]);
        close(p[1]);
        const std::string portText = std::to_string(port), qosText = std::to_string(qos);
        execlp("mosquitto_pub", "mosquitto_pub", "-h", "127.0.0.1", "-p", portText.c_str(), "-q", qosText.c_str(),
               "-V", "5", "-t", t.c_str(), "-l", static_cast<char*>(nullptr));
        _exit(127);
      }
      close(p[0]);
      kids.push_back(kid);
      feeds.push_back(fdopen(p[1], "w"));
    }
  }
  // End of input: each publisher sends what it has and exits.
  void Close() {
    for (FILE* f : feeds) std::fclose(f);
    for (pid_t k : kids) waitpid(k, nullptr, 0);
  }
};

double thread_cpu() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Sleeps until `start` + `tick` periods of `period_ns` (CLOCK_MONOTONIC).
void sleep_until_tick(const timespec& start, long long tick, long long period_ns) {
  const long long at = start.tv_sec * 1000000000LL + start.tv_nsec + tick * period_ns;
  const timespec ts{static_cast<time_t>(at / 1000000000LL), static_cast<long>(at % 1000000000LL)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

// Telemetry of one station: `points` points updated at `hz`, one samples
// record per update (the acquisition time in UTC microseconds and every
// value, as the station writes its samples; the names and units once a
// second), through MqttLink at `qos` against mosquitto_pub -l fed the same
// records. Loss is counted by the subscriber from the records' numbers.
int telemetry(int points, int hz, int seconds) {
  Broker broker;
  if (!broker.Start()) return 1;
  std::printf("telemetry: %d points at %d Hz (%d point-samples/s), %d s, one record per update, one mosquitto\n",
              points, hz, points * hz, seconds);
  zqpoints::PointTable table;
  for (int i = 0; i < points; ++i) {
    zqpoints::PointConfig c;
    c.name = "p" + std::to_string(i);
    c.unit = "mm";
    table.Add(c);
  }
  std::string columns = "[", units = "[";
  for (int i = 0; i < points; ++i) {
    columns += (i ? ",\"" : "\"") + table[static_cast<size_t>(i)].name() + "\"";
    units += (i ? ",\"" : "\"") + table[static_cast<size_t>(i)].config().unit + "\"";
  }
  columns += "]";
  units += "]";
  const long long period = 1000000000LL / hz;
  const int ticks = seconds * hz;
  // One update of every point and its record's fields, built the station's
  // way (snprintf per value into a kept buffer, JsonFields around it).
  std::string values;
  values.reserve(static_cast<size_t>(points) * 12 + 2);
  const auto record = [&](long long tick) {
    const int64_t t_us = static_cast<int64_t>(now_ns() / 1000);
    values.assign("[");
    for (int i = 0; i < points; ++i) {
      const double v = 100.0 + std::sin(0.01 * static_cast<double>(tick + i));
      table.Update(static_cast<size_t>(i), v, t_us);
      char item[32];
      std::snprintf(item, sizeof item, "%s%.4f", i ? "," : "", v);
      values += item;
    }
    values += "]";
    zqfleet::JsonFields f;
    f.Add("n", 0).Add("k", tick).Add("t", now_ns()).Add("time_us", static_cast<long long>(t_us)).AddRaw("values", values);
    if (tick % hz == 0) f.AddRaw("columns", columns).AddRaw("units", units);
    return f;
  };
  std::vector<Result> results;
  double building = 0;  // CPU seconds spent updating the points and writing the records
  for (int qos = 0; qos <= 1; ++qos) {
    const Result lib = run(broker.port, 1, seconds, "zq", [&](long long& sent) {
      return in_child(sent, [&](long long& count, rusage& before, rusage& after) {
        zqfleet::MqttSettings s;
        s.Host = "127.0.0.1";
        s.Port = broker.port;
        s.QoS = qos;
        s.QueueLimit = 64LL << 20;
        std::string error;
        s.Resolve("t0", error);
        zqfleet::MqttLink link(s, "t0");
        link.Start("", error);
        usleep(1000000);  // connected
        getrusage(RUSAGE_SELF, &before);
        timespec start{};
        clock_gettime(CLOCK_MONOTONIC, &start);
        for (long long tick = 0; tick < ticks; ++tick) {
          link.Publish("samples", record(tick).Text());
          ++count;
          sleep_until_tick(start, tick + 1, period);
        }
        link.Stop(5000);
        getrusage(RUSAGE_SELF, &after);
        return cpu_seconds(after) - cpu_seconds(before);
      });
    });
    // The same records, envelope included, from one mosquitto_pub -l.
    const Result pub = run(broker.port, 1, seconds, "mp", [&](long long& sent) {
      Publishers p(broker.port, {"mp/t0/samples"}, qos);
      usleep(1000000);
      const double before = cpu_of(p.kids);
      timespec start{};
      clock_gettime(CLOCK_MONOTONIC, &start);
      for (long long tick = 0; tick < ticks; ++tick) {
        const double t0 = thread_cpu();
        const zqfleet::JsonFields f = record(tick);
        building += thread_cpu() - t0;
        std::fprintf(p.feeds[0], "{\"station\":\"t0\",\"seq\":%lld,\"time\":\"%s\",%s}\n", tick,
                     zqfleet::JsonFields::UtcTime(static_cast<double>(now_ns()) * 1e-9).c_str(), f.Text().c_str());
        std::fflush(p.feeds[0]);
        ++sent;
        sleep_until_tick(start, tick + 1, period);
      }
      usleep(2000000);  // the last records go out
      const double after = cpu_of(p.kids);
      p.Close();
      return after - before;
    });
    const auto show = [&](const char* name, const Result& r) {
      std::printf("QoS %d %-17s %7.1f records/s (%9.0f point-samples/s) delivered, p99 %6.1f ms, CPU %5.1f%% of a core, lost %lld, duplicated %lld of %lld\n",
                  qos, name, r.rate, r.rate * points, r.p99_ms, 100.0 * r.cpu / seconds, r.lost, r.dup, r.sent);
    };
    show("MqttLink", lib);
    show("mosquitto_pub -l", pub);
    results.push_back(lib);
    results.push_back(pub);
  }
  broker.Stop();
  std::printf("of the MqttLink CPU, updating the points and writing the records (done outside mosquitto_pub's): %.1f%% of a core\n",
              100.0 * building / (2.0 * seconds));
  const Result& lib1 = results[2];
  const Result& pub1 = results[3];
  std::printf("goal: no loss at QoS 1 (%s), station CPU <= 50%% of a core (%s)\n", lib1.lost == 0 ? "met" : "NOT MET",
              lib1.cpu / seconds <= 0.5 ? "met" : "NOT MET");
  bench::summary({bench::text("telemetry: %d points at %d Hz, QoS 1", points, hz), "mosquitto_pub -l (same records)",
                  bench::text("%.1f%% core", 100.0 * pub1.cpu / seconds),
                  bench::text("%.1f%% core, lost %lld", 100.0 * lib1.cpu / seconds, lib1.lost),
                  lib1.cpu > 0 ? pub1.cpu / lib1.cpu : NAN, NAN, "", "-"});
  return lib1.lost == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  mosquitto_lib_init();
  if (argc > 1 && std::strcmp(argv[1], "telemetry") == 0) {
    return telemetry(argc > 2 ? std::atoi(argv[2]) : 1000, argc > 3 ? std::atoi(argv[3]) : 100,
                     argc > 4 ? std::atoi(argv[4]) : 10);
  }
  const int stations = argc > 1 ? std::atoi(argv[1]) : 200;
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
  Broker broker;
  if (!broker.Start()) return 1;
  const int port = broker.port;
  std::printf("fleet: %d stations, %d s, status 1/s + samples 10/s each at QoS 1, one mosquitto\n", stations, seconds);

  // The library: one MqttLink per station in a child process, whose CPU is measured.
  const Result lib = run(port, stations, seconds, "zq", [&](long long& sent) {
    return in_child(sent, [&](long long& count, rusage& before, rusage& after) {
      std::vector<std::unique_ptr<zqfleet::MqttLink>> links;
      for (int i = 0; i < stations; ++i) {
        zqfleet::MqttSettings s;
        s.Host = "127.0.0.1";
        s.Port = port;
        std::string error;
        s.Resolve("b" + std::to_string(i), error);
        links.push_back(std::make_unique<zqfleet::MqttLink>(s, "b" + std::to_string(i)));
        links.back()->Start("", error);
      }
      usleep(1000000);  // every link connected
      getrusage(RUSAGE_SELF, &before);
      for (int tick = 0; tick < seconds * 10; ++tick) {
        for (int i = 0; i < stations; ++i) {
          zqfleet::JsonFields f;
          f.Add("n", i).Add("k", static_cast<long long>(tick)).Add("t", now_ns()).AddRaw("samples", "[[1,20.5,1],[2,20.6,1]]");
          links[static_cast<size_t>(i)]->Publish("samples", f.Text());
          ++count;
          if (tick % 10 == 0) links[static_cast<size_t>(i)]->Publish("status", zqfleet::JsonFields().Add("cycles", tick).Text());
        }
        usleep(100000);
      }
      for (auto& l : links) l->Stop(2000);
      getrusage(RUSAGE_SELF, &after);
      return cpu_seconds(after) - cpu_seconds(before);
    });
  });

  // The same load from mosquitto_pub -l, one process per station and topic
  // kind, fed line by line; its CPU is the children's.
  const Result pub = run(port, stations, seconds, "mp", [&](long long& sent) {
    std::vector<std::string> topics;
    for (int i = 0; i < stations; ++i)
      for (const char* topic : {"samples", "status"}) topics.push_back("mp/b" + std::to_string(i) + "/" + topic);
    Publishers p(port, topics, 1);
    std::vector<FILE*>& feeds = p.feeds;
    usleep(1000000);
    const double before = cpu_of(p.kids);
    long long count = 0;
    for (int tick = 0; tick < seconds * 10; ++tick) {
      for (int i = 0; i < stations; ++i) {
        std::fprintf(feeds[static_cast<size_t>(2 * i)],
                     "{\"station\":\"b%d\",\"seq\":%d,\"time\":\"2026-01-01T00:00:00.000Z\",\"n\":%d,\"k\":%d,\"t\":%lld,"
                     "\"samples\":[[1,20.5,1],[2,20.6,1]]}\n", i, tick, i, tick, now_ns());
        std::fflush(feeds[static_cast<size_t>(2 * i)]);
        ++count;
        if (tick % 10 == 0) {
          std::fprintf(feeds[static_cast<size_t>(2 * i + 1)], "{\"station\":\"b%d\",\"seq\":%d,\"cycles\":%d}\n", i, tick / 10, tick);
          std::fflush(feeds[static_cast<size_t>(2 * i + 1)]);
        }
      }
      usleep(100000);
    }
    usleep(2000000);  // the last records go out
    const double after = cpu_of(p.kids);
    p.Close();
    sent = count;
    return after - before;
  });

  broker.Stop();
  const auto show = [&](const char* name, const Result& r) {
    std::printf("%-22s %8.0f msg/s delivered, p99 %7.1f ms, CPU %6.3f ms per station per second, samples lost %lld, duplicated %lld of %lld\n",
                name, r.rate, r.p99_ms, r.cpu * 1000.0 / stations / seconds, r.lost, r.dup, r.sent);
  };
  show("MqttLink", lib);
  show("mosquitto_pub -l", pub);
  std::printf("CPU per station, MqttLink / mosquitto_pub: %.2f\n", pub.cpu > 0 ? lib.cpu / pub.cpu : 0.0);
  const auto per_station = [&](const Result& r) {
    return bench::text("%.3f ms CPU/station/s", r.cpu * 1000.0 / stations / seconds);
  };
  bench::summary({bench::text("fleet: %d stations publishing", stations),
                  "mosquitto_pub -l (one per station and topic)", per_station(pub), per_station(lib),
                  lib.cpu > 0 ? pub.cpu / lib.cpu : NAN, 1.0, "mosquitto_pub", "-"});
  return 0;
}
