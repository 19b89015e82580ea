// Replacing a file's content as one step: temporary file, fsync, rename.
#include "core/atomic_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace zqdetail {

namespace {

bool write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool write_file_atomically(const std::string& path, const std::string& content, mode_t new_mode,
                           bool exact_mode) {
  std::string target = path;
  struct stat link {};
  if (lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real != nullptr) {
      target = real;
      std::free(real);
    }
  }
  struct stat existing {};
  if (stat(target.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode)) {
    // A device or a FIFO (/dev/null, a pipe) cannot be replaced: written in place.
    const int fd = ::open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    const bool ok = write_all(fd, content.data(), content.size());
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return ok;
  }
  const auto slash = target.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
  const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  std::string temp = folder + "/." + base + ".XXXXXX";
  std::vector<char> name(temp.begin(), temp.end());
  name.push_back('\0');
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return false;
  temp = name.data();
  struct stat original {};
  bool ok;
  if (exact_mode) {
    ok = fchmod(fd, new_mode) == 0;
  } else if (stat(target.c_str(), &original) == 0) {
    ok = fchmod(fd, original.st_mode & 07777) == 0;
    if (ok && geteuid() == 0) ok = fchown(fd, original.st_uid, original.st_gid) == 0;
  } else {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ok = fchmod(fd, new_mode & ~mask) == 0;
  }
  ok = ok && write_all(fd, content.data(), content.size()) && fsync(fd) == 0;
  const int saved = errno;
  if (::close(fd) != 0 && ok) ok = false;
  if (ok && ::rename(temp.c_str(), target.c_str()) == 0) {
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
      fsync(dir);  // the rename itself reaches the disk
      ::close(dir);
    }
    return true;
  }
  const int failure = ok ? errno : saved;
  ::unlink(temp.c_str());
  errno = failure;
  return false;
}

}  // namespace zqdetail
