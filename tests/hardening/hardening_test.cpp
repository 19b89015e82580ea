// Hostile input against the interpreter, the settings checks, file saves and
// the log: bounded work, refused values, no file reached through a link,
// nothing torn or lost unnoticed when the disk is full.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <random>
#include <stdexcept>

#include "support/cli_session.h"
#include "support/scratch_dir.h"
#include "support/substitution_reference.h"
#include "zqcommon/cli.h"
#include "zqcommon/ew.h"
#include "zqcommon/lib_config.h"
#include "zqcommon/log.h"
#include "zqcommon/setting_check.h"

namespace {

// Runs `body` in a child whose files may not grow beyond `limit` bytes (the
// way a full disk answers); the child's exit code.
template <typename F>
int with_file_limit(rlim_t limit, F body) {
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit r{limit, limit};
    setrlimit(RLIMIT_FSIZE, &r);
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(Hardening, SubstitutionMatchesThePlainRule) {
  CliSession q;
  q.cli->vars = {{"a", "1"}, {"ab", "XY"}, {"b", ""}, {"$a", "D"}, {"abc", "3"}, {"z", "zz"}, {"?", "q"}};
  std::mt19937 rng(7);
  const std::string alphabet = "ab$c? z";
  for (int round = 0; round < 3000; ++round) {
    std::string line;
    for (size_t n = rng() % 24; n > 0; --n) line += alphabet[rng() % alphabet.size()];
    q.cli->line = line;
    q.cli->substitute_vars();
    ASSERT_EQ(q.cli->line, reference_substitution(line, q.cli->vars, q.cli->retcode)) << line;
  }
}

TEST(Hardening, InterpreterBoundsAndFailures) {
  CliSession q;
  q.cli->SetLimits(128 * 1024, 1024 * 1024);
  int (*thrower)(void*, int, const char**) = [](void*, int, const char**) -> int {
    throw std::runtime_error("Is a directory");
  };
  q.cli->Register(thrower, nullptr, "boom", nullptr, "");
  std::string line = "set a=" + std::string(100000, 'x');
  EXPECT_TRUE(q.cli->parse(line));
  std::string amplify = "set b=";
  for (int i = 0; i < 1000; ++i) amplify += "$a";
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(q.cli->parse(amplify));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 0.5);
  EXPECT_EQ(q.cli->vars.count("b"), 0u);
  for (int i = 0; i < 12; ++i) {  // each fits the line, not all the session
    std::string more = "set v" + std::to_string(i) + "=$a";
    q.cli->parse(more);
  }
  EXPECT_LE(q.cli->SessionBytes(), 1024u * 1024u);
  std::string boom = "boom /";
  EXPECT_TRUE(q.cli->parse(boom));
  EXPECT_EQ(q.cli->retcode, 1);
  const std::string said = q.screen();
  EXPECT_NE(said.find("line refused: longer than 131072 bytes"), std::string::npos);
  EXPECT_NE(said.find("set: refused"), std::string::npos);
  EXPECT_NE(said.find("boom: failed: Is a directory\r\n"), std::string::npos);

  CLI orphan(nullptr, nullptr, nullptr);  // fopen() failed for want of descriptors
  EXPECT_EQ(orphan.update(), 4);
}

TEST(Hardening, SettingChecksRefuseWithTheRange) {
  zqcommon::Setting_Check rules;
  rules.Integer("Server.ListenPort", 0, 65535).Size("Log.MaxFileSize", 0, 0xFFFFFFFFLL)
      .Octal("Log.CreatePermissions", 0, 0777).Real("Station.Setpoint", -10, 10).Text("Log.FileBase", 8);
  const struct { const char* path; const char* value; bool ok; } cases[] = {
      {"server.listenport", "7600", true}, {"Server.ListenPort", "-5", false}, {"Server.ListenPort", "", false},
      {"Log.MaxFileSize", "1M", true}, {"Log.MaxFileSize", "4G", false}, {"Log.MaxFileSize", "1Q", false},
      {"Log.CreatePermissions", "0640", true}, {"Log.CreatePermissions", "0800", false},
      {"Station.Setpoint", "2.5", true}, {"Station.Setpoint", "nan", false}, {"Station.Setpoint", "11", false},
      {"Log.FileBase", "station", true}, {"Log.FileBase", "a\x1b[2J", false}, {"Log.FileBase", "/root/.bash", false},
      {"Other.Key", "anything", true},
  };
  for (const auto& c : cases) {
    std::string why;
    EXPECT_EQ(rules.Check(c.path, c.value, &why), c.ok) << c.path << "=" << c.value;
    EXPECT_TRUE(c.ok || why.find(c.path[0] == 'S' ? c.path : "") != std::string::npos) << why;
  }
  std::string why;
  rules.Check("Server.ListenPort", "-5", &why);
  EXPECT_EQ(why, "Server.ListenPort: '-5' is not an integer in 0..65535");
  EXPECT_EQ(rules.Allowed("server.listenport"), "an integer in 0..65535");
  EXPECT_EQ(rules.Allowed("Log.FileBase"), "at most 8 characters");
  EXPECT_EQ(rules.Allowed("Other.Key"), "");
}

TEST(Hardening, SavesAreWholeOrNotAtAll) {
  ScratchDir dir;
  const std::string path = dir.path + "/station.cfg";
  const std::string original = "[Server]\nListenPort = 7600\n";
  std::ofstream(path) << original;
  chmod(path.c_str(), 0640);
  Config_File cfg(path);
  SECTION pad = cfg.add_section("Padding");
  for (int i = 0; i < 8; ++i) pad.add_entry("Filler" + std::to_string(i), std::string(1000, 'p'));
  // The disk takes 4 KB, the new content is larger: the old file stays.
  EXPECT_EQ(with_file_limit(4096, [&] { return cfg.write(path) ? 1 : 0; }), 0);
  EXPECT_EQ(slurp(path), original);
  EXPECT_TRUE(cfg.write(path));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_NE(slurp(path).find("Filler"), std::string::npos);
  const std::string link = dir.path + "/link.cfg";
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  EXPECT_TRUE(cfg.write(link));
  EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << "the link stays a link";
  EXPECT_EQ(std::system(("test $(ls -A " + dir.path + " | wc -l) -eq 2").c_str()), 0);  // no temporary left
}

TEST(Hardening, LogCountsLostLinesAndNeverFollowsALink) {
  ScratchDir dir;
  Log_Config_Data cfg;
  cfg.base = dir.path + "/run";
  cfg.ext = "log";
  cfg.autodate = 0;
  cfg.flushcycle = 1;
  // 3 lines of 60 bytes fit in 200 bytes; the 4th is cut back, the rest lost.
  EXPECT_EQ(with_file_limit(200, [&] {
              Log log(cfg);
              log.Start();
              for (int i = 0; i < 10; ++i) log.Add(elog_INFO, i, "%023d", i);
              return static_cast<int>(log.WriteFailures() * 16 + log.LogSize() / 60);
            }),
            7 * 16 + 3);
  const std::string written = slurp(cfg.base + ".log");
  EXPECT_TRUE(written.size() == 180 && written.back() == '\n') << written;

  const std::string victim = dir.path + "/victim";
  std::ofstream(victim) << "keep\n";
  cfg.base = dir.path + "/linked";
  ASSERT_EQ(symlink(victim.c_str(), (cfg.base + ".log").c_str()), 0);
  Log log(cfg);
  log.Start();
  log.Add(elog_INFO, 0, "must not land in the victim");
  log.Flush();
  EXPECT_EQ(log.f, nullptr);
  EXPECT_EQ(slurp(victim), "keep\n");
  EXPECT_EQ(log.WriteFailures(), 1u);  // the line had no file to go to
  ASSERT_EQ(unlink((cfg.base + ".log").c_str()), 0);
  log.Next();  // writing resumes once the file can be made
  log.Add(elog_INFO, 0, "lands");
  EXPECT_TRUE(log.FileOpen());
  EXPECT_NE(slurp(cfg.base + ".log").find("lands"), std::string::npos);
  EXPECT_EQ(log.WriteFailures(), 1u);
}
