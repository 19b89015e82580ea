// The on-disk mirror of a link's waiting records.
#ifndef ZQ_SRC_FLEET_DISKQUEUE_H
#define ZQ_SRC_FLEET_DISKQUEUE_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace zqdetail {

struct QueuedRecord {
  uint64_t id = 0;
  std::string topic;
  std::string payload;  // one line: JSON without raw line breaks
  int mid = -1;         // libmosquitto's message id while in flight
};

// An append-only file of "R id topic payload" and "A id" (acknowledged or
// dropped) lines. Open() streams the file and keeps the newest pending
// records up to `limit` bytes (memory stays bounded whatever the file's
// size); a record whose topic is not under `prefix`/ or has a wildcard, or
// a line longer than the limit, is skipped. MaybeCompact() rewrites the
// file with the live records only (through a temporary file and rename).
// Not locked: the link's mutex guards it.
class DiskQueue {
 public:
  ~DiskQueue();
  // False (`note` says why) when the file cannot be written; `note` also
  // tells of records skipped or dropped at load.
  bool Open(const std::string& dir, const std::string& name, const std::string& prefix, uint64_t limit,
            std::vector<QueuedRecord>& pending, std::string& note);
  bool IsOpen() const { return f_ != nullptr; }
  void Close();
  bool Append(const QueuedRecord& r);
  bool Done(uint64_t id);
  // Rewrites when the file holds more than twice the live bytes (and 64 KiB).
  template <typename Range>
  bool MaybeCompact(const Range& live, uint64_t live_bytes);
  const std::string& Path() const { return path_; }

 private:
  bool rewrite(const std::vector<const QueuedRecord*>& live);
  std::string path_;
  FILE* f_ = nullptr;
  uint64_t size_ = 0;
};

template <typename Range>
bool DiskQueue::MaybeCompact(const Range& live, uint64_t live_bytes) {
  if (f_ == nullptr || size_ < 65536 || size_ < 2 * live_bytes) return true;
  std::vector<const QueuedRecord*> keep;
  for (const QueuedRecord& r : live) keep.push_back(&r);
  return rewrite(keep);
}

}  // namespace zqdetail

#endif
