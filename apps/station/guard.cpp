// What the station does to stay whole with hostile clients: checked
// settings, settings only the operator may change, files read only from the
// data folder, and client text made harmless before it is logged.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zqcommon/functions.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "station.h"

namespace station {

const zqcommon::Setting_Check& setting_rules() {
  static const zqcommon::Setting_Check rules = [] {
    zqcommon::Setting_Check r;
    r.Integer("Station.PeriodUs", 100, 1000000)
        .Real("Station.LowLimit", -1e9, 1e9)
        .Real("Station.HighLimit", -1e9, 1e9)
        .Real("Station.Setpoint", -1e9, 1e9)
        .Text("Station.Promotion", 200)
        .Text("Station.DumpPath", PATH_MAX)
        .Integer("Station.TraceDepth", 1, 1000000)
        .Integer("Station.FitPoints", 20, 100000)
        .Text("Station.DataDir", PATH_MAX)
        .Size("Station.MaxFileBytes", 1, 1LL << 30)
        .Integer("Station.LogLossReportS", 1, 86400)
        .Choice("Station.RealTime", {"required", "preferred"})
        .Text("Station.LocalConfig", PATH_MAX)
        .Choice("Station.OverrunPolicy", {"off", "count", "warn", "safe"})
        .Integer("Station.OverrunLimit", 1, OverrunGuard::kMaxLimit)
        .Integer("Station.OverrunWindowMs", 1, 3600000)
        .Integer("Server.ListenPort", 0, 65535)
        .Integer("Server.MaxConnections", 1, 100000)
        .Text("Server.Interface", 64)
        .Text("Server.ACL", PATH_MAX)
        .Size("Log.MaxFileSize", 0, 0xFFFFFFFFLL)
        .Integer("Log.MaxMemEntries", 0, 1000000)
        .Integer("Log.StrictSyncing", 0, 1)
        .Integer("Log.AutoDate", 0, 1)
        .Text("Log.FileBase", PATH_MAX)
        .Text("Log.Extension", 32)
        .Integer("Log.FileMask", -1, INT_MAX)
        .Integer("Log.Mask", -1, INT_MAX)
        .Integer("Log.Pmask", -1, INT_MAX)
        .Integer("Log.FlushCycle", 0, 1000000)
        .Octal("Log.CreatePermissions", 0, 0777)
        .Integer("Login.FirstDelay", 0, 3600000)
        .Integer("Login.MaxDelay", 0, 3600000)
        .Integer("Login.MaxFailures", 1, 1000)
        .Integer("Login.Window", 0, 86400000)
        .Integer("Login.Lockout", 0, 86400000)
        .Integer("Access.IdleTimeout", 0, 86400)
        .Integer("Access.HandshakeTimeout", 1, 600)
        .Integer("Login.AddressMaxFailures", 0, 1000000)
        .Integer("Access.LoginTimeout", 0, 86400)
        .Integer("Access.MaxNotLoggedIn", 0, 100000)
        .Integer("Access.CheckThreads", 1, 16)
        .Integer("Network.ListenBacklog", 1, 65535)
        .Integer("Network.MaxPerAddress", 0, 1000000)
        .Integer("Network.LineTimeoutS", 0, 86400)
        .Text("Network.Interface6", 64)
        .Integer("LogRetention.MaxFiles", 0, 100000)
        .Integer("LogRetention.MaxDays", 0, 100000)
        .Size("LogRetention.MaxTotalSize", 0, 0xFFFFFFFFLL)
        .Integer("LogRetention.Midnight", 0, 1)
        .Integer("LogRetention.Compress", 0, 1);
    return r;
  }();
  return rules;
}

// Settings that name files, folders, addresses or ports, and the log's
// masks: they change only in the file or at the station's own terminal.
bool operator_only(const std::string& path) {
  const auto dot = path.find('.');
  const std::string section = path.substr(0, dot);
  if ((section ^= "Log") || (section ^= "LogRetention") || (section ^= "Server")) return true;
  // Who may log in and how the channel is secured: not from the network either.
  if ((section ^= "TLS") || (section ^= "Login") || (section ^= "Access")) return true;
  // Where the station listens and whom it reports to.
  if ((section ^= "Network") || (section ^= "MQTT") || (section ^= "Metrics") || (section ^= "Web")) return true;
  for (const char* key : {"Station.DumpPath", "Station.DataDir", "Station.MaxFileBytes", "Station.UsersFile",
                          "Station.LogLossReportS", "Station.LocalConfig"}) {
    if (path ^= key) return true;
  }
  return false;
}

namespace {

// The path a descriptor was opened as, resolved ("" when unknown).
std::string fd_path(int fd) {
  char buf[PATH_MAX + 1];
  const ssize_t n = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), buf, PATH_MAX);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

std::string real_path(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> r(::realpath(path.c_str(), nullptr), &std::free);
  return r ? std::string(r.get()) : std::string();
}

bool inside(const std::string& path, const std::string& folder) {
  if (folder == "/") return !path.empty();
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

}  // namespace

bool read_file(const Session& s, const std::string& name, std::string& data, std::string& why) {
  const StationSettings& cfg = s.station->settings;
  std::string path = name;
  std::string folder;
  if (s.network) {
    folder = real_path(cfg.DataDir.empty() ? "." : cfg.DataDir);
    if (folder.empty()) {
      why = "the data folder " + cfg.DataDir + " is missing";
      return false;
    }
    if (path.empty() || path[0] != '/') path = folder + "/" + path;
    const std::string resolved = real_path(path);
    if (resolved.empty()) {
      why = "no such file";
      return false;
    }
    if (!inside(resolved, folder)) {
      why = "outside the data folder";
      return false;
    }
  }
  // Not through a link at the end, never waiting on a FIFO or a device.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    why = errno == ELOOP ? "a symbolic link" : std::string(std::strerror(errno));
    return false;
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = "not a regular file";
    return false;
  }
  if (s.network && !inside(fd_path(fd), folder)) {  // a link swapped in meanwhile
    why = "outside the data folder";
    return false;
  }
  const auto cap = static_cast<unsigned long long>(cfg.MaxFileBytes);
  if (static_cast<unsigned long long>(st.st_size) > cap) {
    why = Format("larger than %llu bytes", cap);
    return false;
  }
  data.clear();
  data.reserve(static_cast<size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      why = std::strerror(errno);
      return false;
    }
    if (n == 0) return true;
    if (data.size() + static_cast<size_t>(n) > cap) {  // grew while being read
      why = Format("larger than %llu bytes", cap);
      return false;
    }
    data.append(buf, static_cast<size_t>(n));
  }
}

void report_log_losses(Station& st, double now) {
  // A file that could not be created (its folder gone or read-only) is
  // tried again every second, so writing resumes once the folder is back;
  // so is a file deleted under the station, whose lines would reach no name.
  if (!st.log.Name().empty() && now - st.log_reopen_tried >= 1.0) {
    st.log_reopen_tried = now;
    struct stat file {};
    const bool deleted = st.log.FileOpen() && fstat(fileno(st.log.f), &file) == 0 && file.st_nlink == 0;
    if (!st.log.FileOpen() || deleted) {
      st.log.Next();
      if (st.log.FileOpen()) st.log.Add(elog_INFO, 0, "the log file %s is written again", st.log.Name().c_str());
    }
  }
  if (now - st.log_lost_checked < st.settings.LogLossReportS) return;
  st.log_lost_checked = now;
  const unsigned long long lost = st.log.WriteFailures();
  if (lost == st.log_lost_told) return;
  st.log.Add(elog_WARN, 0, "the log file could not take %llu lines since the last report (%llu in all)",
             lost - st.log_lost_told, lost);
  st.log.Flush();
  if (st.log.WriteFailures() == lost) st.log_lost_told = lost;  // told only once it arrived
}

std::string escape_controls(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || u == '\\') {
      out += Format("\\x%02x", u);
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace station
