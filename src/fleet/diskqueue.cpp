// The on-disk mirror of a link's waiting records.
#include "diskqueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

namespace zqdetail {

namespace {

FILE* open_private(const std::string& path, const char* mode, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return nullptr;
  FILE* f = fdopen(fd, mode);
  if (f == nullptr) close(fd);
  return f;
}

bool write_record(FILE* f, const QueuedRecord& r, uint64_t& size) {
  const int n = std::fprintf(f, "R %llu %s %s\n", static_cast<unsigned long long>(r.id),
                             r.topic.c_str(), r.payload.c_str());
  if (n < 0) return false;
  size += static_cast<uint64_t>(n);
  return true;
}

}  // namespace

DiskQueue::~DiskQueue() {
  if (f_ != nullptr) std::fclose(f_);
}

bool DiskQueue::Open(const std::string& dir, const std::string& name,
                     std::vector<QueuedRecord>& pending, std::string& error) {
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    error = "cannot create queue folder " + dir + ": " + std::strerror(errno);
    return false;
  }
  path_ = dir + "/" + name + ".queue";
  pending.clear();
  if (FILE* in = open_private(path_, "r", O_RDONLY)) {
    std::set<uint64_t> done;
    std::vector<QueuedRecord> all;
    char* line = nullptr;
    size_t cap = 0;
    ssize_t n;
    int number = 0;
    while ((n = getline(&line, &cap, in)) > 0) {
      ++number;
      std::string text(line, static_cast<size_t>(n));
      if (text.back() != '\n') break;  // a record cut by a crash: the end
      text.pop_back();
      unsigned long long id = 0;
      int used = 0;
      if (std::sscanf(text.c_str(), "A %llu%n", &id, &used) == 1 && used == static_cast<int>(text.size())) {
        done.insert(id);
      } else if (std::sscanf(text.c_str(), "R %llu %n", &id, &used) == 1 && used > 0) {
        const size_t space = text.find(' ', static_cast<size_t>(used));
        if (space == std::string::npos) continue;
        QueuedRecord r;
        r.id = id;
        r.topic = text.substr(static_cast<size_t>(used), space - static_cast<size_t>(used));
        r.payload = text.substr(space + 1);
        all.push_back(std::move(r));
      }
    }
    std::free(line);
    std::fclose(in);
    for (QueuedRecord& r : all) {
      if (done.count(r.id) == 0) pending.push_back(std::move(r));
    }
  }
  std::vector<const QueuedRecord*> live;
  for (const QueuedRecord& r : pending) live.push_back(&r);
  if (!rewrite(live)) {
    error = "cannot write queue file " + path_ + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool DiskQueue::Append(const QueuedRecord& r) {
  return f_ != nullptr && write_record(f_, r, size_) && std::fflush(f_) == 0;
}

bool DiskQueue::Done(uint64_t id) {
  if (f_ == nullptr) return false;
  const int n = std::fprintf(f_, "A %llu\n", static_cast<unsigned long long>(id));
  if (n < 0) return false;
  size_ += static_cast<uint64_t>(n);
  return std::fflush(f_) == 0;
}

bool DiskQueue::rewrite(const std::vector<const QueuedRecord*>& live) {
  const std::string tmp = path_ + ".tmp";
  FILE* out = open_private(tmp, "w", O_WRONLY | O_CREAT | O_TRUNC);
  if (out == nullptr) return false;
  uint64_t size = 0;
  bool ok = true;
  for (const QueuedRecord* r : live) ok = ok && write_record(out, *r, size);
  ok = std::fflush(out) == 0 && ok;
  if (!ok || std::rename(tmp.c_str(), path_.c_str()) != 0) {
    std::fclose(out);
    unlink(tmp.c_str());
    return false;
  }
  if (f_ != nullptr) std::fclose(f_);
  f_ = out;
  size_ = size;
  return true;
}

}  // namespace zqdetail
