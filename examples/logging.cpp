// logging: a rotating log and an error record that promotes.
//
//   logging [FOLDER]      (default: the current folder)
//
// Writes log files demo01.txt, demo02.txt, ... of at most 2 kB each in FOLDER
// and reports one watched condition 25 times: with "W:10" ten warnings count
// as an error, which the log records when it happens.
#include <zqcommon/log.h>
#include <zqcomponents/error.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  Log_Config_Data cfg;
  cfg.base = std::string(argc > 1 ? argv[1] : ".") + "/demo";
  cfg.autodate = 0;       // plain names, numbered on rotation
  cfg.maxsize = 2048;     // rotate at 2 kB
  cfg.pmask = elog_ERROR;  // errors also go to standard error
  Log log(cfg);
  log.fcount = 1;  // numbered files; without it rotation reopens demo.txt
  log.Start();

  components::OneError overheat;
  overheat = "W:10";  // ten warnings read as an error
  components::eSeverity reported = components::NONE;
  for (int i = 1; i <= 25; ++i) {
    overheat.Signal(components::WARNING, i);
    const components::eSeverity now = static_cast<components::Severity>(overheat);
    log.Add(elog_INFO, i, "reading %d: temperature above the limit", i);
    if (now != reported) {
      log.Add(now >= components::ERROR ? elog_ERROR : elog_WARN, i, "overheat is now %s after %u reports",
              components::Severity(now).Description(), overheat.count);
      reported = now;
    }
  }
  log.Flush();
  std::printf("%u entries kept in memory, %u errors, %u warnings; last file %s\n",
              static_cast<unsigned int>(log.size()), log.ErrCount(), log.WarnCount(),
              log.Name().c_str());
  return 0;
}
