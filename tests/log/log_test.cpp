// Log files: queue and counters, the file line, rotation, flushing, and no
// lost or torn lines when the writer is killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "support/allocation_counter.h"
#include "support/scratch_dir.h"
#include "zqcommon/functions.h"
#include "zqcommon/log.h"

namespace {

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0, end;
  while ((end = text.find("\r\n", start)) != std::string::npos) {
    lines.push_back(text.substr(start, end - start));
    start = end + 2;
  }
  if (start < text.size()) lines.push_back("<torn>" + text.substr(start));
  return lines;
}

}  // namespace

TEST(Log, LineFormat) {
  Log_Entry e;
  e.type = elog_ERROR;
  e.nerr = 42;
  e.time = 1763206207.123;  // 15.11.2025 11:30:07.123
  e.text = "text of the message";
  std::string line;
  e.make_logline(line);
  EXPECT_EQ(line, "15.11.2025 11:30:07.123;E;0000002a;text of the message\r\n");
  e.type = static_cast<eLog_Type>(6);
  e.make_logline(line);
  EXPECT_EQ(line.substr(23), ";?;0000002a;text of the message\r\n");
  EXPECT_STREQ(Log_Entry::eLogTypeS, "?PE?W???I???????D");

  // The file writer's cached stamps give the same lines across second,
  // minute, day and year boundaries, leap days, millisecond rounding (half
  // away from zero), times before 1970, far ones, and at random; error
  // numbers at random in hexadecimal as printf writes them.
  const ScratchDir scratch;
  const std::string dir = scratch.path + "/";
  Log_Config_Data cfg;
  cfg.base = dir + "fmt";
  cfg.autodate = 0;
  std::vector<double> times = {0.0, 59.9996, 60.0, 119.9994, 1763206207.123, -0.5, -61.25, -0.0005, 0.0005,
                               86399.9995, 1767225599.9996, 1709251199.999, 1709251200.0004, 951868799.9995,
                               4102444799.999, 1e12 + 0.25, -1e13, 1e300};
  std::mt19937_64 rng(99);
  for (int i = 0; i < 300; ++i) times.push_back(std::uniform_real_distribution<double>(-2.3e9, 4.2e9)(rng));
  std::vector<std::string> want;
  {
    Log log(cfg);
    log.Start();
    for (double t : times) {
      Log_Entry x;
      x.type = elog_INFO;
      x.time = t;
      x.nerr = static_cast<int>(rng());
      x.Text("at %f", t);
      log.Add(x);
      x.make_logline(line);
      EXPECT_EQ(line.substr(line.find(";I;") + 3, 9), Format("%08x;", static_cast<unsigned>(x.nerr)));
      want.push_back(line.substr(0, line.size() - 2));
    }
  }
  EXPECT_EQ(lines_of(slurp(dir + "fmt.txt")), want);
}

TEST(Log, QueueCountersAndDefaults) {
  const ScratchDir scratch;
  const std::string dir = scratch.path + "/";
  Log_Config_Data cfg;
  cfg.base = dir + "q";
  EXPECT_EQ(cfg.GetEntry("CreatePermissions").Value(), "0400");
  EXPECT_EQ(cfg.GetEntry("FlushCycle").Value(), "50");
  Log log(cfg);
  log.Start();
  EXPECT_NE(log.Name().find(dir + "q20"), std::string::npos);  // AutoDate: base + date
  ::testing::internal::CaptureStderr();
  log.Add(elog_ERROR, 42, "x");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");  // Pmask 0
  EXPECT_EQ(log.ErrCount(), 1u);
  EXPECT_EQ(log.GetStat(), 2u);
  log.Flush();
  EXPECT_NE(slurp(log.Name()).find(";E;0000002a;x\r\n"), std::string::npos);

  for (int i = 0; i < 100; ++i) log.Add(elog_DEBUG, i, "d%d", i);
  EXPECT_EQ(log.size(), 100u);
  EXPECT_EQ(log.ErrCount(), 0u);  // the oldest entry was evicted and uncounted
  EXPECT_EQ(log.DebugCount(), 100u);
  EXPECT_EQ(log.front().text, "d99");
  EXPECT_EQ(log.back().text, "d0");

  Log_Entry odd;
  odd.type = static_cast<eLog_Type>(elog_ERROR | elog_WARN);
  log.Add(odd);
  EXPECT_EQ(log.PanicCount(), 1u);
  for (int i = 0; i < 100; ++i) log.Add(elog_INFO, 0, "i");
  EXPECT_EQ(log.PanicCount(), 1u);  // a combined type is not uncounted when evicted
  EXPECT_EQ(log.GetStat(), static_cast<unsigned>(elog_PANIC | elog_INFO));

  const std::string huge(5000, 'h');
  log.Add(elog_INFO, 0, "%s", huge.c_str());
  EXPECT_EQ(log.front().text.size(), 1023u);
  log.Add(elog_INFO, 1, "%d %s %x %c %5.2f %s %d %d %d %d", 1, "two", 3, '4', 5.0, "six", 7, 8,
          9, 10);
  EXPECT_EQ(log.front().text, "1 two 3 4  5.00 six 7 8 9 10");

  Log other(cfg);
  const size_t before = log.size();
  log += other;  // empty: nothing changes
  EXPECT_EQ(log.size(), before);
  other.Add(elog_WARN, 0, "w");
  log += other;
  log += log;
  EXPECT_EQ(log.size(), 2 * (before + 1));  // the capacity is not applied here
  EXPECT_EQ(log.WarnCount(), 2u);
  log.Clear();
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(log.GetStat(), 0u);

  cfg.maxlength = 0;  // keeps nothing
  log.Add(elog_INFO, 0, "gone");
  EXPECT_TRUE(log.empty());
  cfg.pmask = elog_WARN;
  ::testing::internal::CaptureStderr();
  log.Add(elog_WARN, 3, "to stderr");
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(";W;00000003;to stderr\r\n"),
            std::string::npos);
}

TEST(Log, RotationFlushingAndMissingDirectories) {
  const ScratchDir scratch;
  const std::string dir = scratch.path + "/";
  Log_Config_Data cfg;
  cfg.base = dir + "r";
  cfg.autodate = 0;
  cfg.maxsize = 1000;
  std::ofstream(dir + "r.txt") << std::string(960, 'x');  // closed at the end of the statement
  Log log(cfg);
  log.Start();
  EXPECT_EQ(log.Name(), dir + "r.txt");
  EXPECT_EQ(log.LogSize(), 960u);
  log.Add(elog_INFO, 0, "abc");  // 40 bytes: the file is full, not over
  EXPECT_EQ(log.LogCount(), 1u);
  log.Add(elog_INFO, 0, "abc");  // a longer line than fits: rotate first
  EXPECT_EQ(log.LogCount(), 2u);
  EXPECT_EQ(log.Name(), dir + "r.txt");  // the same name again, its size counting again
  EXPECT_GT(log.LogSize(), 1000u);

  // Numbered files when the application sets fcount; a panic is flushed at once.
  cfg.maxsize = 0;
  log.fcount = 3;
  log.Next();
  EXPECT_EQ(log.Name(), dir + "r03.txt");
  EXPECT_EQ(log.fcount, 4);
  log.Add(elog_INFO, 0, "buffered");
  EXPECT_EQ(slurp(dir + "r03.txt"), "");
  log.Add(elog_PANIC, 0, "now");
  EXPECT_NE(slurp(dir + "r03.txt").find(";P;00000000;now"), std::string::npos);

  cfg.base = dir + "no/such/dir/log";
  log.Next();
  EXPECT_EQ(log.f, nullptr);
  EXPECT_EQ(log.Name(), dir + "no/such/dir/log04.txt");
  log.Add(elog_ERROR, 0, "dropped");  // queued, not written, no crash
  EXPECT_EQ(log.front().text, "dropped");
}

TEST(Log, SteadyStateAddMakesNoAllocation) {
  const ScratchDir scratch;
  const std::string dir = scratch.path + "/";
  Log_Config_Data cfg;
  cfg.base = dir + "a";
  Log log(cfg);
  log.Start();
  for (int i = 0; i < 300; ++i) log.Add(elog_INFO, i, "warming up entry %d with a payload", i);
  const long before = allocations();
  for (int i = 0; i < 1000; ++i) log.Add(elog_INFO, i, "steady entry %d with a payload", i);
  EXPECT_EQ(allocations() - before, 0);
  EXPECT_EQ(log.size(), 100u);
}

// A child writes N entries with StrictSyncing and is killed right after the
// N-th Add: the file(s) must hold exactly those N lines, whole and in order.
static std::vector<std::string> killed_writer(const std::string& dir, int n, unsigned maxsize) {
  const pid_t child = fork();
  if (child == 0) {
    Log_Config_Data cfg;
    cfg.base = dir + "k";
    cfg.autodate = 0;
    cfg.strictsync = 1;
    cfg.maxsize = maxsize;
    Log log(cfg);
    log.fcount = 1;  // numbered files, so rotation keeps every file
    log.Start();
    for (int i = 1; i <= n; ++i) log.Add(elog_INFO, i, "line %d of the killed writer", i);
    kill(getpid(), SIGKILL);
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  std::vector<std::string> lines;
  for (int file = 1; file < 1000; ++file) {
    const std::string name = dir + Format("k%02i.txt", file);
    if (access(name.c_str(), F_OK) != 0) break;
    for (const std::string& l : lines_of(slurp(name))) lines.push_back(l);
  }
  return lines;
}

TEST(Log, StrictSyncingLosesNothingWhenKilled) {
  for (unsigned maxsize : {0u, 400u}) {
    const int n = 57;
    const ScratchDir scratch;
    const std::vector<std::string> lines = killed_writer(scratch.path + "/", n, maxsize);
    ASSERT_EQ(lines.size(), static_cast<size_t>(n)) << "maxsize " << maxsize;
    for (int i = 1; i <= n; ++i) {
      EXPECT_EQ(lines[i - 1].substr(23), Format(";I;%08x;line %d of the killed writer", i, i));
    }
  }
}
