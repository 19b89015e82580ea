// Retention of a Log's files: how many, how old, how large in total; optional
// rotation at local midnight and gzip compression of rotated files.
#ifndef ZQCOMMON_LOGRETENTION_H
#define ZQCOMMON_LOGRETENTION_H

#include <ctime>
#include <string>
#include <vector>

#include "zqcommon/export.h"
#include "zqcommon/log.h"
#include "zqcommon/logretention_config.h"

// Applies a LogRetention_Config_Data to the files of one Log: the files whose
// names are the log's FileBase followed by anything and ending in
// ".Extension" or ".Extension.gz" (FileBase may hold a folder).
//
// Poll() is called by the owner of the Log, in the thread that serialises the
// Log's use, as often as it likes (it costs a comparison when nothing is
// due): it notices a rotation the log made since the last call (by its file
// count), rotates at local midnight when asked to, and then compresses the
// rotated files and removes the oldest files (by modification time, then by
// name) until every limit holds. The file being written is never compressed
// or removed. Apply() does the same at once, for the start-up, so the limits
// hold across restarts.
//
// Keeps references to the Log and the settings (both must outlive it);
// settings changed later take effect at the next rotation. No thread, no
// lock. Failures (a file that cannot be removed or compressed) are counted
// in Failures() and reported once each through the log as warnings.
class ZQ_EXPORT LogRetention {
 public:
  LogRetention(Log& log, const LogRetention_Config_Data& settings);

  // Compress and remove now. `now` is the time used for MaxDays (seconds
  // since 1970; 0 = the current time). Answers the number of files removed.
  int Apply(std::time_t now = 0);
  // Rotation at midnight and, after any rotation, Apply(now). Answers true
  // when something was applied.
  bool Poll(std::time_t now = 0);

  // The log's files as Apply() sees them, oldest first.
  std::vector<std::string> Files() const;
  unsigned int Failures() const { return failures_; }

  // Compresses `path` into `path`.gz (same modification time) and removes
  // `path`; false (and no .gz left behind) when either fails.
  static bool Gzip(const std::string& path);

 private:
  struct File {
    std::string path;
    std::time_t mtime;
    unsigned long long bytes;
  };
  std::vector<File> scan() const;
  void fail(const char* what, const std::string& path);

  Log& log_;
  const LogRetention_Config_Data& cfg_;
  unsigned int seen_rotations_;
  long long day_;  // local day number of the last rotation or start
  unsigned int failures_ = 0;
};

#endif
