// Retention of a Log's files: compression, removal by count, age and size,
// rotation at local midnight.
#include "zqcommon/logretention.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

bool ends_with(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Days since an arbitrary origin in local time, so that a change of the
// value marks a local midnight.
long long local_day(std::time_t t) {
  struct tm parts {};
  localtime_r(&t, &parts);
  return static_cast<long long>(parts.tm_year) * 400 + parts.tm_yday;
}

std::time_t or_now(std::time_t t) { return t != 0 ? t : std::time(nullptr); }

}  // namespace

LogRetention_Config_Data::LogRetention_Config_Data() {
  const auto& full = zqcommon::Config_Data_INIT.FULL;
  Register("MaxFiles", max_files, full, "", "log files kept, 0 any number");
  Register("MaxDays", max_days, full, "d", "days a log file is kept, 0 for ever");
  Register("MaxTotalSize", max_bytes, full, "B", "bytes of all log files, 0 no limit",
           zqcommon::cfg_STORAGE);
  Register("Midnight", midnight, full, "", "1: a new log file at local midnight");
  Register("Compress", compress, full, "", "1: rotated log files are gzipped");
}

LogRetention::LogRetention(Log& log, const LogRetention_Config_Data& settings)
    : log_(log), cfg_(settings), seen_rotations_(log.lcount), day_(local_day(std::time(nullptr))) {}

std::vector<LogRetention::File> LogRetention::scan() const {
  const std::string& base = log_.cfg->base;
  const auto slash = base.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : base.substr(0, slash + 1);
  const std::string prefix = base.substr(dir.size());
  const std::string ext = "." + log_.cfg->ext;
  std::vector<File> files;
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (d == nullptr) return files;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0 || name.size() <= prefix.size()) continue;
    if (!ends_with(name, ext) && !ends_with(name, ext + ".gz")) continue;
    struct stat st {};
    const std::string path = dir + name;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    files.push_back(File{path, st.st_mtime, static_cast<unsigned long long>(st.st_size)});
  }
  closedir(d);
  std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
    return a.mtime != b.mtime ? a.mtime < b.mtime : a.path < b.path;
  });
  return files;
}

std::vector<std::string> LogRetention::Files() const {
  std::vector<std::string> names;
  for (const File& f : scan()) names.push_back(f.path);
  return names;
}

void LogRetention::fail(const char* what, const std::string& path) {
  ++failures_;
  log_.Add(elog_WARN, 0, "log retention: cannot %s %s: %s", what, path.c_str(), std::strerror(errno));
}

int LogRetention::Apply(std::time_t now) {
  now = or_now(now);
  if (cfg_.compress != 0) {
    for (const File& f : scan()) {
      if (f.path != log_.fname && !ends_with(f.path, ".gz") && !Gzip(f.path)) fail("compress", f.path);
    }
  }
  if (cfg_.max_files <= 0 && cfg_.max_days <= 0 && cfg_.max_bytes == 0) return 0;
  std::vector<File> files = scan();
  size_t count = files.size();
  unsigned long long bytes = 0;
  for (const File& f : files) bytes += f.bytes;
  const std::time_t oldest = now - static_cast<std::time_t>(cfg_.max_days) * 86400;
  int removed = 0;
  for (const File& f : files) {
    const bool too_many = cfg_.max_files > 0 && count > static_cast<size_t>(cfg_.max_files);
    const bool too_old = cfg_.max_days > 0 && f.mtime < oldest;
    const bool too_big = cfg_.max_bytes != 0 && bytes > cfg_.max_bytes;
    if (!(too_many || too_old || too_big) || f.path == log_.fname) continue;
    if (unlink(f.path.c_str()) != 0) {
      fail("remove", f.path);
      continue;
    }
    --count;
    bytes -= f.bytes;
    ++removed;
  }
  return removed;
}

bool LogRetention::Poll(std::time_t now) {
  now = or_now(now);
  if (cfg_.midnight != 0) {
    const long long today = local_day(now);
    if (today != day_) {
      day_ = today;
      log_.Next();
    }
  }
  if (log_.lcount == seen_rotations_) return false;
  seen_rotations_ = log_.lcount;
  Apply(now);
  return true;
}

bool LogRetention::Gzip(const std::string& path) {
  struct stat st {};
  const int in = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0 || fstat(in, &st) != 0) {
    if (in >= 0) close(in);
    return false;
  }
  const std::string target = path + ".gz";
  const int out = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 0777);
  gzFile gz = out < 0 ? nullptr : gzdopen(out, "wb");
  if (gz == nullptr && out >= 0) close(out);
  bool ok = gz != nullptr;
  char buffer[64 * 1024];
  while (ok) {
    const ssize_t n = read(in, buffer, sizeof buffer);
    if (n == 0) break;
    ok = n > 0 && gzwrite(gz, buffer, static_cast<unsigned>(n)) == static_cast<int>(n);
  }
  close(in);
  if (gz != nullptr) ok = gzclose(gz) == Z_OK && ok;
  if (ok) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ok = utimensat(AT_FDCWD, target.c_str(), times, 0) == 0 && unlink(path.c_str()) == 0;
  }
  if (!ok && out >= 0) {
    const int saved = errno;
    unlink(target.c_str());
    errno = saved;
  }
  return ok;
}
