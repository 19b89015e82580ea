// Log files: typed, time-stamped entries in a bounded queue and in rotated files.
#ifndef ZQCOMMON_LOG_H
#define ZQCOMMON_LOG_H

#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include "zqcommon/ew.h"
#include "zqcommon/export.h"

// Entry types as single bits, so that they combine into masks.
enum eLog_Type {
  elog_NONE = 0,
  elog_PANIC = 1,
  elog_ERROR = 2,
  elog_WARN = 4,
  elog_INFO = 8,
  elog_DEBUG = 16
};

// One log entry. A plain structure.
struct ZQ_EXPORT Log_Entry {
  // The file letter of each type value: "?PE?W???I???????D" (index 1 = P,
  // 2 = E, 4 = W, 8 = I, 16 = D, every other index '?').
  static const char eLogTypeS[18];

  eLog_Type type = elog_DEBUG;
  double time = 0.0;  // seconds since 1970 (UTC), microsecond resolution
  int nerr = 0;       // the application's error number
  std::string text;

  // Formats the text printf-style; results longer than 1023 characters are cut.
  void Text(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Stamps the entry with the current time.
  void Now();
  bool operator<(const Log_Entry& o) const { return time < o.time; }
  bool operator>(const Log_Entry& o) const { return time > o.time; }
  bool operator==(const Log_Entry& o) const {
    return time == o.time && type == o.type && nerr == o.nerr && text == o.text;
  }
  // The file line: "dd.mm.yyyy hh:mm:ss.mmm;E;0000002a;text\r\n" (UTC).
  void make_logline(std::string& out) const;
};

// Everything that governs a Log, loadable from a configuration section:
// MaxFileSize (bytes, 0 = never rotate), MaxMemEntries (queue capacity),
// StrictSyncing (synchronous, unbuffered writes), AutoDate (date and time of
// opening in every file name), FileBase, Extension, FileMask (types written to
// the file), Mask (types queued), Pmask (types echoed to standard error),
// FlushCycle (flush every this many Add calls) and CreatePermissions (mode of
// a new file, 0400 by default: the writing descriptor may still write).
// A MaxMemEntries of 0 keeps no entries; a FlushCycle of 0 or less counts as 1.
class ZQ_EXPORT Log_Config_Data : public zqcommon::Config_Data {
 public:
  Log_Config_Data();
  // Registers the members, sets the defaults and loads `section` from `file`.
  Log_Config_Data(Config_File& file, const std::string& section);

  unsigned int maxsize = 0;
  unsigned int maxlength = 100;
  int strictsync = 0;
  int flushcycle = 50;
  int autodate = 1;
  std::string base = "log";
  std::string ext = "txt";
  int fmask = -1;
  int mask = -1;
  int pmask = 0;
  int create_perm = 0400;

 private:
  void register_members();
};

// A log: entries go into an in-memory queue (newest first, at most
// MaxMemEntries, counted by type), may be echoed to standard error, and are
// appended as lines to a log file that is rotated when MaxFileSize would be
// exceeded. Start() opens the first file; without it entries are only queued
// and echoed.
//
// The Log keeps a pointer to its Log_Config_Data (which must outlive it), so
// changes to the configuration take effect at the next use. No thread and no
// lock: callers that share a Log serialise Add, Next, Clear and +=. Failures
// are silent: a file that cannot be opened leaves the log without a file (its
// lines are dropped) until the next Next(). Once the queue is full, Add()
// makes no heap allocation: the oldest node is reused for the newest entry.
class ZQ_EXPORT Log : public std::list<Log_Entry> {
 public:
  explicit Log(Log_Config_Data& config);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Opens the first file (the same as Next()).
  void Start() { Next(); }
  // Closes the current file and opens the next one.
  void Next();
  // Records one entry (the entry may be modified).
  void Add(Log_Entry& e);
  // Records a new entry stamped now, its text formatted printf-style (cut at
  // 1023 characters).
  void Add(eLog_Type type, int nerr, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void Flush();
  // Empties the queue and its counters; the file is not touched.
  void Clear();
  // Appends copies of the other log's entries and adds its counters; the
  // capacity is not applied here, so the queue may grow beyond it.
  Log& operator+=(const Log& other);

  unsigned int ErrCount() const { return ecount; }
  unsigned int WarnCount() const { return wcount; }
  unsigned int InfoCount() const { return icount; }
  unsigned int DebugCount() const { return dcount; }
  unsigned int PanicCount() const { return pcount; }
  // The types present in the queue as a mask of eLog_Type bits.
  unsigned int GetStat() const;
  // Bytes in the current file: those there at opening plus those written
  // (and those of whole lines waiting for the flush cycle).
  unsigned int LogSize() const { return cfsize + static_cast<unsigned int>(pending_size_); }
  // Lines lost because the file could not take them (a full disk, an I/O
  // error). A line reaches the file whole or not at all: after a short
  // write the file is cut back to the end of its last whole line. Lines for
  // a file that could not be opened (after Start() or Next()) count too.
  unsigned long long WriteFailures() const { return lost_; }
  // Whether a file is open to take the lines now.
  bool FileOpen() const { return f != nullptr; }
  unsigned int LogCount() const { return lcount; }
  const std::string& Name() const { return fname; }

  FILE* f = nullptr;
  unsigned int cfsize = 0;
  int fcount = 0;
  unsigned int lcount = 0;
  int flushcycle = 0;
  Log_Config_Data* cfg;
  int ecount = 0, wcount = 0, icount = 0, dcount = 0, pcount = 0;
  std::string fname;
  // Off by default. When set, every line echoed to standard error starts
  // with the priority journald reads ("<2>" panic, "<3>" error, "<4>"
  // warning, "<6>" info, "<7>" debug): for a service whose standard error
  // is the journal ($JOURNAL_STREAM set).
  bool journal_prefix = false;

 private:
  // Formats file lines, reusing the "dd.mm.yyyy hh:mm:ss." part while the
  // second does not change.
  struct LineFormatter {
    long long second = -(1LL << 62);  // no second yet
    char prefix[64] = {};
    size_t prefix_len = 0;
    // Writes the line's head, "dd.mm.yyyy hh:mm:ss.mmm;E;0000002a;", to out,
    // which has room for the longest one (kHeadRoom in log.cpp); returns its
    // length.
    size_t head(double time, eLog_Type type, int nerr, char* out);
    // The whole line, the same bytes as Log_Entry::make_logline(). The log
    // itself formats in place with head(); this stays in the recorded
    // binary interface.
    void format(const Log_Entry& e, std::string& out);
  };
  void count(eLog_Type type, int delta);
  // The queue's front entry for a new entry of `type`, counted: once the
  // queue is full, the oldest node moved to the front, else a new node.
  Log_Entry& enqueue(eLog_Type type);
  // Whether the line of an entry of `type` goes to standard error and to
  // the file; counts the line as lost when its file could not be opened.
  void route(eLog_Type type, bool& echo, bool& to_file);
  // Room for n more bytes after the waiting lines: lines are formatted there
  // in place and kept by emit() without another copy.
  char* line_room(size_t n);
  // Ends the line at `line` (n bytes, room for two more) with CR LF, echoes
  // it and appends it to the waiting lines, rotating and flushing as due.
  void emit(char* line, size_t n, eLog_Type type, bool echo, bool to_file);

  LineFormatter formatter_;
  void write_pending();

  std::vector<char> pending_;  // whole lines not yet written, then room for the next line
  size_t pending_size_ = 0;    // bytes of whole lines, up to the file buffer's size
  unsigned int pending_lines_ = 0;
  unsigned long long lost_ = 0;
};

#endif
