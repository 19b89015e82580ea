// Log speed: ENTRIES (default 500,000) entries through Log with the default
// settings (file mask all, flush every 50 entries) against the same lines
// through spdlog's synchronous basic file sink, flushed every 50 entries too,
// its stream given a 64 KiB buffer so that 50 lines leave in one write() as
// ours do. Three message shapes: integers only, a real one with a float, and
// floats, strings, widths and precisions. Each pair runs alternately RUNS
// (default 5) times; figures are medians. After every run the two files must
// hold the same lines but for the time stamps (the bench stops with an error
// otherwise), and the write() calls of both (counted by the kernel in
// /proc/self/io) are reported. The bound is the write() rate for chunks of
// 50 lines.
//
// Usage: log_bench [ENTRIES [RUNS]]
#include <fcntl.h>
#include <unistd.h>
#include "bench_util.h"
#include <zqcommon/log.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#if __has_include(<spdlog/spdlog.h>)
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#define ZQ_HAVE_SPDLOG 1
#endif

namespace {

using bench::median;
using bench::seconds;

int kEntries = 500000;
int kRuns = 5;
constexpr size_t kStamp = 23;  // "dd.mm.yyyy hh:mm:ss.mmm"

long long write_calls() {
  std::ifstream io("/proc/self/io");
  std::string key;
  long long value = 0;
  while (io >> key >> value) {
    if (key == "syscw:") return value;
  }
  return -1;
}

long long file_size(const std::string& path) {
  std::ifstream in(path, std::ios::ate | std::ios::binary);
  return in ? static_cast<long long>(in.tellg()) : -1;
}

// The first line where the files differ after the time stamps, or -1 when
// they hold the same lines.
long long first_difference(const std::string& ours, const std::string& peer) {
  std::ifstream a(ours, std::ios::binary), b(peer, std::ios::binary);
  if (!a || !b) return 0;
  std::string x, y;
  for (long long line = 1;; ++line) {
    const bool more_a = static_cast<bool>(std::getline(a, x)), more_b = static_cast<bool>(std::getline(b, y));
    if (!more_a && !more_b) return -1;
    if (more_a != more_b || x.size() < kStamp || y.size() < kStamp || x.compare(kStamp, x.npos, y, kStamp) != 0) {
      return line;
    }
  }
}

// A message shape: our call and spdlog's, each written as a caller writes
// it and inlined into the timing loop (no wrapper on either side).
template <class Ours, class Peer>
struct Shape {
  const char* name;
  Ours ours;  // (Log&, int)
  Peer peer;  // (spdlog::logger* as void*, int)
};

template <class Ours, class Peer>
Shape<Ours, Peer> make_shape(const char* name, Ours ours, Peer peer) {
  return {name, ours, peer};
}

void emit(Log& log, int i) { log.Add(elog_INFO, i, "entry number %d with some payload", i); }

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc > 1) kEntries = std::max(50, std::atoi(argv[1]));
  if (argc > 2) kRuns = std::max(1, std::atoi(argv[2]));
  char dir_template[] = "/tmp/zq_log_benchXXXXXX";
  const std::string dir = std::string(mkdtemp(dir_template)) + "/";
  const double values[] = {0.5, 12.25, -3.14159, 1234.5678, 1e-3};

  const auto shapes = std::make_tuple(
      make_shape("integers", [](Log& log, int i) { emit(log, i); },
       [](void* l, int i) {
#ifdef ZQ_HAVE_SPDLOG
         static_cast<spdlog::logger*>(l)->info("{:08x};entry number {} with some payload", i, i);
#else
         (void)l, (void)i;
#endif
       }),
      make_shape("int + %.3f",
       [&](Log& log, int i) { log.Add(elog_INFO, i, "sensor %d out of range: %.3f", i % 64, values[i % 5] * i); },
       [&](void* l, int i) {
#ifdef ZQ_HAVE_SPDLOG
         static_cast<spdlog::logger*>(l)->info("{:08x};sensor {} out of range: {:.3f}", i, i % 64, values[i % 5] * i);
#else
         (void)l, (void)i;
#endif
       }),
      make_shape("%s %g %8.2f %-6s %e",
       [&](Log& log, int i) {
         log.Add(elog_INFO, i, "%s: g=%g f=%8.2f [%-6s] e=%e", "valve", values[i % 5] * i, values[(i + 1) % 5],
                 i % 2 ? "open" : "shut", values[(i + 2) % 5]);
       },
       [&](void* l, int i) {
#ifdef ZQ_HAVE_SPDLOG
         static_cast<spdlog::logger*>(l)->info("{:08x};{}: g={:g} f={:8.2f} [{:<6}] e={:e}", i, "valve",
                                               values[i % 5] * i, values[(i + 1) % 5], i % 2 ? "open" : "shut",
                                               values[(i + 2) % 5]);
#else
         (void)l, (void)i;
#endif
       }));

  std::printf("Log speed, %d entries per run, medians of %d runs (million lines per second)\n", kEntries, kRuns);
  int run_id = 0;
  auto run_shape = [&](const auto& shape) -> bool {
    std::vector<double> ours, peer;
    long long our_bytes = 0, peer_bytes = -1, our_writes = 0, peer_writes = -1;
    for (int r = 0; r < kRuns; ++r, ++run_id) {
      std::string ours_path;
      const long long w0 = write_calls();
      ours.push_back(seconds([&] {
        Log_Config_Data cfg;  // defaults: file mask all, flush every 50, queue of 100
        cfg.base = dir + "zq" + std::to_string(run_id) + "_";
        Log log(cfg);
        log.Start();
        for (int i = 0; i < kEntries; ++i) shape.ours(log, i);
        ours_path = log.Name();
      }));
      our_writes = write_calls() - w0;
      our_bytes = file_size(ours_path);
#ifdef ZQ_HAVE_SPDLOG
      const std::string name = "bench" + std::to_string(run_id), path = dir + name + ".txt";
      // glibc ignores the size without a buffer of the caller's; this one outlives the stream.
      static std::vector<char> stream_buffer(64 << 10);
      spdlog::file_event_handlers buffered;
      buffered.after_open = [](const spdlog::filename_t&, std::FILE* f) {
        std::setvbuf(f, stream_buffer.data(), _IOFBF, stream_buffer.size());
      };
      const long long p0 = write_calls();
      peer.push_back(seconds([&] {
        auto logger = spdlog::basic_logger_st(name, path, false, buffered);
        logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%d.%m.%Y %H:%M:%S.%e;I;%v", spdlog::pattern_time_type::utc, "\r\n"));
        for (int i = 0; i < kEntries; ++i) {
          shape.peer(logger.get(), i);
          if (i % 50 == 49) logger->flush();
        }
        logger->flush();
        spdlog::drop(name);
      }));
      peer_writes = write_calls() - p0;
      peer_bytes = file_size(path);
      const long long line = first_difference(ours_path, path);
      if (line >= 0 || our_bytes != peer_bytes) {
        std::printf("MISMATCH: %s and %s differ (%lld and %lld bytes), first at line %lld\n", ours_path.c_str(),
                    path.c_str(), our_bytes, peer_bytes, line);
        return false;
      }
      std::remove(path.c_str());
#endif
      std::remove(ours_path.c_str());
    }
    const double o = kEntries / median(ours) / 1e6;
    std::printf("  %-22s Log %6.2f", shape.name, o);
    const std::string work = std::string("log ") + shape.name;
    const double goal = std::strcmp(shape.name, "integers") == 0 ? 2.0 : 1.5;
    if (peer.empty()) {
      std::printf("   spdlog: not installed (libspdlog-dev)\n");
      bench::summary({work, "spdlog: not installed (libspdlog-dev)", "n/a", bench::text("%.2f M lines/s", o), NAN,
                      goal, "spdlog", "write() bound below"});
      return true;
    }
    const double p = kEntries / median(peer) / 1e6;
    std::printf("   spdlog %6.2f   ratio %5.2f   same lines; bytes %lld/%lld   write() calls %lld/%lld%s\n", p, o / p,
                our_bytes, peer_bytes, our_writes, peer_writes,
                our_writes == peer_writes ? "" : "   (DIFFERENT write() COUNTS)");
    bench::summary({work, bench::text("spdlog basic_file_sink_st (write() calls %lld/%lld)", our_writes, peer_writes),
                    bench::text("%.2f M lines/s", p), bench::text("%.2f M lines/s", o), o / p, goal, "spdlog",
                    "write() bound below"});
    return true;
  };
  if (!std::apply([&](const auto&... shape) { return (run_shape(shape) && ...); }, shapes)) return 1;

  // The physical bound: write() of 50 lines' worth of bytes at a time.
  const size_t chunk = 50 * 70;
  std::vector<char> bytes(chunk, 'x');
  const std::string path = dir + "raw.txt";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const int chunks = kEntries / 50;
  std::vector<double> raw;
  for (int r = 0; r < kRuns && fd >= 0; ++r) {
    raw.push_back(seconds([&] {
      for (int i = 0; i < chunks; ++i) {
        if (::write(fd, bytes.data(), chunk) != static_cast<ssize_t>(chunk)) break;
      }
    }));
    if (ftruncate(fd, 0) != 0) break;
  }
  if (fd >= 0) ::close(fd);
  std::remove(path.c_str());
  const double bound = kEntries / median(raw) / 1e6;
  std::printf("  write() of %zu-byte chunks carries %.1f M lines/s (the bound)\n", chunk, bound);
  bench::summary({"log bound: write() of 50-line chunks", "-", "-", bench::text("%.1f M lines/s", bound), NAN, NAN,
                  "", "physical bound"});
  ::rmdir(dir.c_str());
  return 0;
}
