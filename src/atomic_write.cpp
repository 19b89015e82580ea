// Atomic replacement of a file: temporary file, fsync, rename, fsync of the folder.
#include "atomic_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zqdetail {

namespace {

bool write_all(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool write_file_atomically(const std::string& path, const std::string& data, mode_t mode, std::string& error) {
  const std::string temp = path + ".tmp." + std::to_string(getpid());
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) {
    error = temp + ": " + std::strerror(errno);
    return false;
  }
  // The mode is exact whatever the umask says.
  bool ok = fchmod(fd, mode) == 0 && write_all(fd, data) && fsync(fd) == 0;
  const int saved = errno;
  ok = ::close(fd) == 0 && ok;
  if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) {
    error = path + ": " + std::strerror(ok ? errno : saved);
    ::unlink(temp.c_str());
    return false;
  }
  const auto slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    ::close(dir);
  }
  return true;
}

}  // namespace zqdetail
