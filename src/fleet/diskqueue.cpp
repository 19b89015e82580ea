// The on-disk mirror of a link's waiting records.
#include "diskqueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

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

// One line of at most `max` bytes, without its '\n': 1; 0 at the end of the
// file; -1 for a longer line (skipped whole); -2 for a last line without
// its '\n' (cut by a crash).
int read_line(FILE* in, std::string& line, uint64_t max) {
  line.clear();
  bool over = false;
  int c;
  while ((c = getc_unlocked(in)) != EOF) {
    if (c == '\n') return over ? -1 : 1;
    if (line.size() < max) {
      line += static_cast<char>(c);
    } else {
      over = true;
    }
  }
  return line.empty() && !over ? 0 : -2;
}

}  // namespace

DiskQueue::~DiskQueue() {
  if (f_ != nullptr) std::fclose(f_);
}

void DiskQueue::Close() {
  if (f_ != nullptr) std::fclose(f_);
  f_ = nullptr;
}

bool DiskQueue::Open(const std::string& dir, const std::string& name, const std::string& prefix, uint64_t limit,
                     std::vector<QueuedRecord>& pending, std::string& note) {
  path_ = dir + "/" + name + ".queue";
  pending.clear();
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    note = "cannot create queue folder " + dir + ": " + std::strerror(errno);
    return false;
  }
  if (FILE* in = open_private(path_, "r", O_RDONLY)) {
    std::map<uint64_t, QueuedRecord> live;  // by id: the file's order
    uint64_t bytes = 0, skipped = 0, dropped = 0;
    std::string text;
    int got;
    while ((got = read_line(in, text, limit + 64)) != 0) {
      if (got < 0) {  // too long: skipped; cut by a crash: the end
        ++skipped;
        if (got == -2) break;
        continue;
      }
      unsigned long long id = 0;
      int used = 0;
      if (std::sscanf(text.c_str(), "A %llu%n", &id, &used) == 1 && used == static_cast<int>(text.size())) {
        const auto it = live.find(id);
        if (it != live.end()) {
          bytes -= it->second.topic.size() + it->second.payload.size();
          live.erase(it);
        }
        continue;
      }
      used = 0;
      const bool head = std::sscanf(text.c_str(), "R %llu %n", &id, &used) == 1 && used > 0;
      const size_t space = head ? text.find(' ', static_cast<size_t>(used)) : std::string::npos;
      if (space == std::string::npos) {
        ++skipped;
        continue;
      }
      QueuedRecord r;
      r.id = id;
      r.topic = text.substr(static_cast<size_t>(used), space - static_cast<size_t>(used));
      r.payload = text.substr(space + 1);
      if (r.topic.size() <= prefix.size() + 1 || r.topic.compare(0, prefix.size(), prefix) != 0 ||
          r.topic[prefix.size()] != '/' || r.topic.find_first_of("+#") != std::string::npos ||
          r.payload.empty() || live.count(id) != 0) {
        ++skipped;
        continue;
      }
      bytes += r.topic.size() + r.payload.size();
      live.emplace(id, std::move(r));
      while (bytes > limit) {
        bytes -= live.begin()->second.topic.size() + live.begin()->second.payload.size();
        live.erase(live.begin());
        ++dropped;
      }
    }
    std::fclose(in);
    for (auto& e : live) pending.push_back(std::move(e.second));
    if (skipped + dropped > 0) {
      note = "queue file " + path_ + ": " + std::to_string(skipped) + " unusable line(s) skipped, " +
             std::to_string(dropped) + " record(s) over MQTT.QueueLimit dropped";
    }
  }
  std::vector<const QueuedRecord*> keep;
  for (const QueuedRecord& r : pending) keep.push_back(&r);
  if (!rewrite(keep)) {
    note = "cannot write queue file " + path_ + ": " + std::strerror(errno);
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
