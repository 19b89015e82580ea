// LogRetention on real files in a scratch folder, with a fixed clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zqcommon/logretention.h>

#include "support/scratch_dir.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::time_t kNow = 1700000000;

class LogRetentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logcfg_.base = dir_ + "/app";
    logcfg_.ext = "log";
    logcfg_.create_perm = 0600;
    logcfg_.autodate = 0;
  }

  // A file of `bytes` bytes last written `days_ago` days before kNow.
  void make(const std::string& name, size_t bytes, int days_ago) {
    std::ofstream(dir_ + "/" + name) << std::string(bytes, 'x');
    const struct timespec t[2] = {{kNow - days_ago * 86400L, 0}, {kNow - days_ago * 86400L, 0}};
    utimensat(AT_FDCWD, (dir_ + "/" + name).c_str(), t, 0);
  }
  std::vector<std::string> names(const LogRetention& r) {
    std::vector<std::string> out;
    for (const std::string& p : r.Files()) out.push_back(p.substr(dir_.size() + 1));
    return out;
  }

  ScratchDir scratch_;
  const std::string dir_ = scratch_.path;
  Log_Config_Data logcfg_;
  LogRetention_Config_Data settings_;
};

TEST_F(LogRetentionTest, LimitsRemoveTheOldestFilesAndNeverTheCurrentOne) {
  struct Case { int files, days; unsigned int bytes; std::vector<std::string> kept; } cases[] = {
      {0, 0, 0, {"app-a.log", "app-b.log.gz", "app-c.log", "app.log"}},  // all off: nothing goes
      {2, 0, 0, {"app-c.log", "app.log"}},
      {0, 5, 0, {"app-c.log", "app.log"}},   // b is exactly 5 days old: older than 5 days goes
      {0, 6, 0, {"app-b.log.gz", "app-c.log", "app.log"}},
      {0, 0, 200, {"app-c.log", "app.log"}},  // 300 + the 68-byte line; 168 left
      {1, 0, 0, {"app.log"}},
      {0, 1, 10, {"app.log"}},  // the current file stays even beyond every limit
  };
  for (const Case& c : cases) {
    make("app-a.log", 100, 9);
    make("app-b.log.gz", 100, 5);
    make("app-c.log", 100, 2);
    make("other.log", 100, 30);   // another base: never touched
    make("app-d.txt", 100, 30);   // another extension: never touched
    Log log(logcfg_);
    log.Start();  // app.log, written now
    log.Add(elog_INFO, 0, "%s", std::string(30, 'y').c_str());
    log.Flush();
    settings_.max_files = c.files;
    settings_.max_days = c.days;
    settings_.max_bytes = c.bytes;
    LogRetention r(log, settings_);
    r.Apply(kNow + 3600);
    EXPECT_EQ(names(r), c.kept) << c.files << " files, " << c.days << " days, " << c.bytes << " bytes";
    EXPECT_EQ(access((dir_ + "/other.log").c_str(), F_OK) + access((dir_ + "/app-d.txt").c_str(), F_OK), 0);
    EXPECT_EQ(r.Failures(), 0u);
    ASSERT_EQ(std::system(("rm -f " + dir_ + "/*").c_str()), 0);
  }
}

TEST_F(LogRetentionTest, RotationsAreNoticedCompressedAndLimitedAcrossRestarts) {
  settings_.compress = 1;
  settings_.max_files = 3;
  for (int run = 0; run < 2; ++run) {  // the second run is a restart on the same files
    Log log(logcfg_);
    log.fcount = 1 + run * 10;  // numbered files: app01.log, app02.log, ...
    log.Start();
    LogRetention r(log, settings_);
    r.Apply(kNow);
    for (int i = 0; i < 4; ++i) {
      log.Add(elog_INFO, i, "run %d file %d", run, i);
      log.Flush();
      EXPECT_FALSE(r.Poll(kNow)) << "nothing rotated";
      log.Next();
      EXPECT_TRUE(r.Poll(kNow));
      EXPECT_LE(r.Files().size(), 3u);
      EXPECT_EQ(r.Files().back(), log.Name()) << "the current file is the newest and stays plain";
    }
  }
  // Every rotated file was gzipped and reads back as the text written.
  LogRetention_Config_Data none;
  Log probe(logcfg_);
  const std::vector<std::string> files = LogRetention(probe, none).Files();
  ASSERT_EQ(files.size(), 3u);
  for (size_t i = 0; i + 1 < files.size(); ++i) {
    ASSERT_EQ(files[i].substr(files[i].size() - 3), ".gz") << files[i];
    gzFile gz = gzopen(files[i].c_str(), "rb");
    ASSERT_NE(gz, nullptr);
    char text[256] = {};
    gzread(gz, text, sizeof text - 1);
    gzclose(gz);
    EXPECT_NE(std::string(text).find(";I;0000000"), std::string::npos) << text;
    EXPECT_NE(std::string(text).find("run 1 file"), std::string::npos) << "the oldest went first";
  }
  EXPECT_FALSE(LogRetention::Gzip(dir_ + "/missing.log"));
}

TEST_F(LogRetentionTest, MidnightStartsANewFileOncePerLocalDay) {
  settings_.midnight = 1;
  Log log(logcfg_);
  log.Start();
  LogRetention r(log, settings_);
  const unsigned int opened = log.LogCount();
  const std::time_t tomorrow = std::time(nullptr) + 86400;
  EXPECT_FALSE(r.Poll());
  EXPECT_TRUE(r.Poll(tomorrow));
  EXPECT_FALSE(r.Poll(tomorrow + 1));
  EXPECT_EQ(log.LogCount(), opened + 1);
}

}  // namespace
