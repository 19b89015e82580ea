// Log speed: 1,000,000 entries through Log with the default settings (file
// mask all, flush every 50 entries) against the same line shape through
// spdlog's synchronous basic file sink, flushed every 50 entries too, in one
// run. Best of three passes each.
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <zqcommon/log.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

namespace {

constexpr int kEntries = 1000000;

double best_seconds(const std::function<void(int)>& run) {
  double best = 1e30;
  for (int pass = 0; pass < 3; ++pass) {
    const auto t0 = std::chrono::steady_clock::now();
    run(pass);
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  return best;
}

}  // namespace

int main() {
  char dir_template[] = "/tmp/zq_log_benchXXXXXX";
  const std::string dir = std::string(mkdtemp(dir_template)) + "/";

  const double ours = best_seconds([&](int pass) {
    Log_Config_Data cfg;  // defaults: file mask all, flush every 50, queue of 100
    cfg.base = dir + "zq" + std::to_string(pass) + "_";
    Log log(cfg);
    log.Start();
    for (int i = 0; i < kEntries; ++i) log.Add(elog_INFO, i, "entry number %d with some payload", i);
  });

  const double peer = best_seconds([&](int pass) {
    auto logger = spdlog::basic_logger_st("bench" + std::to_string(pass),
                                          dir + "spd" + std::to_string(pass) + ".txt");
    logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
        "%d.%m.%Y %H:%M:%S.%e;I;%v", spdlog::pattern_time_type::utc, "\r\n"));
    for (int i = 0; i < kEntries; ++i) {
      logger->info("{:08x};entry number {} with some payload", i, i);
      if (i % 50 == 49) logger->flush();
    }
    logger->flush();
    spdlog::drop("bench" + std::to_string(pass));
  });

  std::printf("Log speed, %d entries, best of 3 (lines per second)\n", kEntries);
  std::printf("  Log (defaults)          %10.0f\n", kEntries / ours);
  std::printf("  spdlog basic file sink  %10.0f   Log/spdlog = %5.2f\n", kEntries / peer, peer / ours);
  std::string cleanup = "rm -rf " + dir;
  return std::system(cleanup.c_str());
}
