// Fuzz target: the station's command line as a network session sees it.
// An in-process station (its task not running) with a scratch data folder
// holding a file, a FIFO, a sub-folder and a link out; each input line goes
// through the log's escaping and the session's interpreter. No crash, no
// sanitizer report, no file read from outside the data folder.
#include <sys/stat.h>
#include <unistd.h>
#include <zqcommon/cli.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "station_parts.h"

namespace {

struct World : StationParts {
  std::string dir;
  std::string reply;
  station::Session session;
  std::unique_ptr<CLI> cli;

  World() {
    char pattern[] = "/tmp/zqstfuzzXXXXXX";
    dir = mkdtemp(pattern);
    std::FILE* f = std::fopen((dir + "/data.txt").c_str(), "w");
    std::fputs("measurement\n", f);
    std::fclose(f);
    mkfifo((dir + "/fifo").c_str(), 0600);
    mkdir((dir + "/sub").c_str(), 0700);
    symlink("/etc/passwd", (dir + "/out").c_str());
    settings.DataDir = dir;
    settings.DumpPath = dir;
    Start();
    session.station = st.get();
    session.out = out;
    session.network = true;
    session.peer = "fuzz";
    cli = std::make_unique<CLI>(out, out, out);
    cli->SetLimits(128 * 1024, 1024 * 1024);
    station::register_commands(*cli, session);
  }
  ~World() {
    cli.reset();
    st.reset();
    std::system(("rm -rf " + dir).c_str());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World* w = [] {
    static World world;
    return &world;
  }();
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t start = 0;
  for (int lines = 0; start < input.size() && lines < 32; ++lines) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    std::string line = input.substr(start, end - start);
    start = end + 1;
    // The task does not run here: io commands would wait for its cycles.
    if (line.compare(0, 2, "io") == 0 || line.find("$") != std::string::npos) continue;
    w->log.Add(elog_INFO, 0, "fuzz: %s", station::escape_controls(line).c_str());
    w->cli->parse(line);
    if (w->settings.DataDir != w->dir) std::abort();  // a network session changed it
  }
  return 0;
}
