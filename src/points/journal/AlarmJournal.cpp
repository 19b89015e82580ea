#include "zqpoints/AlarmJournal.h"

#include <sqlite3.h>

namespace zqpoints {

namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS alarm_journal ("
    " id INTEGER PRIMARY KEY, time_us INTEGER NOT NULL, point TEXT NOT NULL,"
    " action TEXT NOT NULL, state_from TEXT NOT NULL, state_to TEXT NOT NULL,"
    " condition TEXT NOT NULL, severity TEXT NOT NULL, value REAL, user TEXT NOT NULL,"
    " comment TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS alarm_journal_time ON alarm_journal(time_us);";

// Deleting old rows costs a scan: done once per this many appends.
constexpr int64_t kTrimEvery = 256;

std::string column_text(sqlite3_stmt* s, int i) {
  const unsigned char* t = sqlite3_column_text(s, i);
  return t ? reinterpret_cast<const char*>(t) : "";
}

}  // namespace

AlarmJournal::AlarmJournal() = default;
AlarmJournal::~AlarmJournal() { Close(); }

void AlarmJournal::Close() {
  if (insert_) sqlite3_finalize(insert_);
  insert_ = nullptr;
  if (db_) sqlite3_close(db_);
  db_ = nullptr;
}

bool AlarmJournal::exec(const char* sql) {
  char* msg = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &msg) == SQLITE_OK) return true;
  error_ = msg ? msg : sqlite3_errmsg(db_);
  sqlite3_free(msg);
  return false;
}

bool AlarmJournal::Open(const std::string& path, int64_t max_rows, std::string& error) {
  Close();
  max_rows_ = max_rows > 0 ? max_rows : 1;
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    error = "alarm journal " + path + ": " + (db_ ? sqlite3_errmsg(db_) : "cannot open");
    Close();
    return false;
  }
  sqlite3_busy_timeout(db_, 2000);
  const bool ok = exec("PRAGMA journal_mode=WAL;") && exec("PRAGMA synchronous=NORMAL;") &&
                  exec(kSchema) &&
                  sqlite3_prepare_v2(db_,
                                     "INSERT INTO alarm_journal (time_us, point, action, "
                                     "state_from, state_to, condition, severity, value, user, "
                                     "comment) VALUES (?,?,?,?,?,?,?,?,?,?)",
                                     -1, &insert_, nullptr) == SQLITE_OK;
  if (!ok) {
    if (error_.empty()) error_ = sqlite3_errmsg(db_);
    error = "alarm journal " + path + ": " + error_;
    Close();
    return false;
  }
  return true;
}

bool AlarmJournal::Append(const AlarmEvent& e, const char* point_name) {
  if (!insert_) return false;
  sqlite3_stmt* s = insert_;
  sqlite3_bind_int64(s, 1, e.time_us);
  sqlite3_bind_text(s, 2, point_name, -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 3, e.action, -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 4, to_string(e.from), -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 5, to_string(e.to), -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 6, to_string(e.condition), -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 7, to_string(e.severity), -1, SQLITE_STATIC);
  sqlite3_bind_double(s, 8, e.value);
  sqlite3_bind_text(s, 9, e.user, -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 10, e.comment, -1, SQLITE_STATIC);
  const int rc = sqlite3_step(s);
  sqlite3_reset(s);
  sqlite3_clear_bindings(s);
  if (rc != SQLITE_DONE) {
    error_ = sqlite3_errmsg(db_);
    return false;
  }
  if (++appended_ % kTrimEvery == 0) {
    const std::string trim = "DELETE FROM alarm_journal WHERE id <= (SELECT MAX(id) FROM "
                             "alarm_journal) - " + std::to_string(max_rows_) + ";";
    exec(trim.c_str());
  }
  return true;
}

std::vector<JournalEntry> AlarmJournal::Query(int64_t since_us, int64_t until_us, size_t limit) {
  std::vector<JournalEntry> rows;
  sqlite3_stmt* s = nullptr;
  if (!db_ || sqlite3_prepare_v2(db_,
                                 "SELECT * FROM (SELECT id, time_us, point, action, state_from, "
                                 "state_to, condition, severity, value, user, comment FROM "
                                 "alarm_journal WHERE time_us >= ? AND time_us < ? ORDER BY id "
                                 "DESC LIMIT ?) ORDER BY id",
                                 -1, &s, nullptr) != SQLITE_OK) {
    if (db_) error_ = sqlite3_errmsg(db_);
    return rows;
  }
  sqlite3_bind_int64(s, 1, since_us);
  sqlite3_bind_int64(s, 2, until_us);
  sqlite3_bind_int64(s, 3, static_cast<sqlite3_int64>(limit));
  while (sqlite3_step(s) == SQLITE_ROW) {
    JournalEntry r;
    r.id = sqlite3_column_int64(s, 0);
    r.time_us = sqlite3_column_int64(s, 1);
    r.point = column_text(s, 2);
    r.action = column_text(s, 3);
    r.from = column_text(s, 4);
    r.to = column_text(s, 5);
    r.condition = column_text(s, 6);
    r.severity = column_text(s, 7);
    r.value = sqlite3_column_double(s, 8);
    r.user = column_text(s, 9);
    r.comment = column_text(s, 10);
    rows.push_back(std::move(r));
  }
  sqlite3_finalize(s);
  return rows;
}

int64_t AlarmJournal::Count() {
  sqlite3_stmt* s = nullptr;
  if (!db_ || sqlite3_prepare_v2(db_, "SELECT COUNT(*) FROM alarm_journal", -1, &s, nullptr) !=
                  SQLITE_OK)
    return -1;
  const int64_t n = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : -1;
  sqlite3_finalize(s);
  return n;
}

}  // namespace zqpoints
