// Fuzz target: the station's command line as a network session sees it.
// An in-process station (its task not running) with a scratch data folder
// holding a file, a FIFO, a sub-folder and a link out; each input line goes
// through the log's escaping and the session's interpreter. No crash, no
// sanitizer report, no file read from outside the data folder.
#include <sys/stat.h>

#include "../../apps/station/machine.h"
#include "station_parts.h"

namespace {

struct World : StationParts {
  std::string dir;
  station::Session session;
  std::unique_ptr<CLI> cli = std::make_unique<CLI>(out, out, out);

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
    Open(session, *cli);
    station::register_machine_commands(*cli, session);
  }
  ~World() {
    cli.reset();
    st.reset();
    std::system(("rm -rf " + dir).c_str());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World w;
  fuzz_lines(fuzz_text(data, size), 32, [](std::string line) {
    // The task does not run here: io commands would wait for its cycles.
    if (line.compare(0, 2, "io") == 0 || line.find("$") != std::string::npos) return;
    w.log.Add(elog_INFO, 0, "fuzz: %s", station::escape_controls(line).c_str());
    w.cli->parse(line);
    if (w.settings.DataDir != w.dir) std::abort();  // a network session changed it
  });
  return 0;
}
