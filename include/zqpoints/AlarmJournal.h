// The alarm journal: every alarm transition and operator action on disk.
#ifndef ZQPOINTS_ALARMJOURNAL_H
#define ZQPOINTS_ALARMJOURNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "zqcommon/export.h"
#include "zqpoints/PointTable.h"

struct sqlite3;
struct sqlite3_stmt;

namespace zqpoints {

// One journal row as read back.
struct JournalEntry {
  int64_t id = 0;
  int64_t time_us = 0;  // UTC microseconds since the epoch
  std::string point, action, from, to, condition, severity, user, comment;
  double value = 0;
};

// An SQLite database in WAL mode (libzqpoints; the rest of the points
// subsystem is in libzqcommon and needs no SQLite). Each Append is one
// transaction: a process killed at any moment leaves the journal readable
// with every append that returned true (synchronous=NORMAL: a power loss
// may cost the last appends, never the database). The journal keeps the
// newest `max_rows` rows; older ones are deleted in batches. One thread uses
// an object; several processes may read the file while one writes.
class ZQ_EXPORT AlarmJournal {
 public:
  AlarmJournal();
  ~AlarmJournal();
  AlarmJournal(const AlarmJournal&) = delete;
  AlarmJournal& operator=(const AlarmJournal&) = delete;

  // Opens or creates the journal; false with `error` naming the file.
  bool Open(const std::string& path, int64_t max_rows, std::string& error);
  void Close();
  bool is_open() const { return db_ != nullptr; }
  // Records one event of point `point_name`; false when the write failed.
  bool Append(const AlarmEvent& event, const char* point_name);
  // Rows with since_us <= time < until_us, oldest first, at most `limit`
  // (the newest `limit` of them when there are more).
  std::vector<JournalEntry> Query(int64_t since_us, int64_t until_us, size_t limit = 1000);
  // Rows kept; -1 on failure.
  int64_t Count();
  const std::string& last_error() const { return error_; }

 private:
  bool exec(const char* sql);
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  int64_t max_rows_ = 0;
  int64_t appended_ = 0;
  std::string error_;
};

}  // namespace zqpoints

#endif
