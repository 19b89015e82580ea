// Log files: queue, line format, rotation and flushing.
#include "zqcommon/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "core/chartype.h"
#include "log/journal_priority.h"
#include "core/format.h"
#include "zqcommon/functions.h"

const char Log_Entry::eLogTypeS[18] = "?PE?W???I???????D";

namespace {

constexpr size_t kTextLimit = 1024;  // formatting buffer; texts keep 1023 characters
constexpr size_t kFileBuffer = 64 * 1024;
constexpr size_t kHeadRoom = 160;     // a time stamp of at most 127 characters and ";E;0000002a;"
constexpr size_t kLineRoom = kHeadRoom + kTextLimit + 2;  // a formatted text's line and CR LF

char type_letter(eLog_Type type) {
  switch (type) {
    case elog_PANIC:
    case elog_ERROR:
    case elog_WARN:
    case elog_INFO:
    case elog_DEBUG: return Log_Entry::eLogTypeS[type];
    default: return '?';
  }
}

// Formats into text[0..kTextLimit) and returns the length kept: vsnprintf's
// bytes, cut at 1023 characters, none on a formatting error. `args` and
// `again` are both started on the arguments (see zqdetail::vformat).
size_t format_text(char* text, const char* format, va_list* args, va_list* again) {
  const int n = zqdetail::vformat(text, kTextLimit, format, args, again);
  return n < 0 ? 0 : std::min(static_cast<size_t>(n), kTextLimit - 1);
}

// "000" to "999", looked up rather than divided out for every line.
struct Milliseconds {
  char digits[1000][3];
  constexpr Milliseconds() : digits() {
    for (int i = 0; i < 1000; ++i) {
      digits[i][0] = static_cast<char>('0' + i / 100);
      digits[i][1] = static_cast<char>('0' + i / 10 % 10);
      digits[i][2] = static_cast<char>('0' + i % 10);
    }
  }
};
constexpr Milliseconds kMilliseconds;

// ";E;0000002a;": the part of the head after the time stamp.
size_t head_tail(eLog_Type type, int nerr, char* out) {
  out[0] = ';';
  out[1] = type_letter(type);
  out[2] = ';';
  // The eight nibbles spread to one a byte, the first one lowest, and turned
  // into '0'..'9' and 'a'..'f' all at once.
  uint64_t x = static_cast<unsigned>(nerr);
  x = (x | x << 16) & 0x0000ffff0000ffffULL;
  x = (x | x << 8) & 0x00ff00ff00ff00ffULL;
  x = (x | x << 4) & 0x0f0f0f0f0f0f0f0fULL;
  x = __builtin_bswap64(x);
  const uint64_t letters = ((x + 0x0606060606060606ULL) >> 4) & 0x0101010101010101ULL;
  x += 0x3030303030303030ULL + letters * ('a' - '0' - 10);
  std::memcpy(out + 3, &x, 8);
  out[11] = ';';
  return 12;
}

// The head with the time stamp from mktimestr(), for any time.
size_t stamped_head(double time, eLog_Type type, int nerr, char* out) {
  const std::string stamp = mktimestr(time);  // at most 127 characters
  std::memcpy(out, stamp.data(), stamp.size());
  return stamp.size() + head_tail(type, nerr, out + stamp.size());
}

}  // namespace

// ------------------------------------------------------------- Log_Entry

void Log_Entry::Text(const char* format, ...) {
  char buffer[kTextLimit];
  va_list args, again;
  va_start(args, format);
  va_start(again, format);
  const size_t n = format_text(buffer, format, &args, &again);
  va_end(again);
  va_end(args);
  text.assign(buffer, n);
}

void Log_Entry::Now() { time = GetUTC(); }

void Log_Entry::make_logline(std::string& out) const {
  char head[kHeadRoom];
  out.assign(head, stamped_head(time, type, nerr, head));
  out += text;
  out += "\r\n";
}

// The same head as make_logline(), with the date and time up to the second
// formatted once per second and the milliseconds in integer arithmetic. The
// time is rounded to whole milliseconds first, half away from zero, as
// mktimestr() does: x - trunc(x) is exact for these magnitudes, so the
// comparison with one half decides exactly as std::round would.
size_t Log::LineFormatter::head(double time, eLog_Type type, int nerr, char* out) {
  static_assert(sizeof prefix + 15 <= kHeadRoom, "the prefix is copied whole");
  const double x = time * 1000.0;
  if (!(x > -1e15 && x < 1e15)) return stamped_head(time, type, nerr, out);  // beyond the fast range, or NaN
  long long ms = static_cast<long long>(x);
  const double rest = x - static_cast<double>(ms);
  ms += rest >= 0.5 ? 1 : rest <= -0.5 ? -1 : 0;
  long long this_second = ms / 1000;
  ms %= 1000;
  if (ms < 0) {
    ms += 1000;
    --this_second;
  }
  if (this_second != second) {
    const std::string stamp = mktimestr(static_cast<double>(this_second));  // "dd.mm.yyyy hh:mm:ss.000"
    prefix_len = std::min(stamp.size() - 3, sizeof prefix);
    std::memcpy(prefix, stamp.data(), prefix_len);
    second = this_second;
  }
  std::memcpy(out, prefix, sizeof prefix);  // a constant size: no call; out has the room
  char* p = out + prefix_len;
  std::memcpy(p, kMilliseconds.digits[ms], 3);
  return prefix_len + 3 + head_tail(type, nerr, p + 3);
}

void Log::LineFormatter::format(const Log_Entry& e, std::string& out) {
  char line_head[kHeadRoom];
  out.assign(line_head, head(e.time, e.type, e.nerr, line_head));
  out += e.text;
  out += "\r\n";
}

// ------------------------------------------------------- Log_Config_Data

Log_Config_Data::Log_Config_Data() { register_members(); }

Log_Config_Data::Log_Config_Data(Config_File& file, const std::string& section) {
  register_members();
  Load(file, section);
}

void Log_Config_Data::register_members() {
  using zqcommon::Config_Data_INIT;
  const auto& full = Config_Data_INIT.FULL;
  // MaxFileSize is an unsigned int registered as int (same object representation).
  Register("MaxFileSize", *reinterpret_cast<int*>(&maxsize), full, "", "", zqcommon::cfg_STORAGE);
  Register("MaxMemEntries", maxlength, full);
  Register("StrictSyncing", strictsync, full);
  Register("AutoDate", autodate, full);
  Register("FileBase", base, full);
  Register("Extension", ext, full);
  Register("FileMask", fmask, full);
  Register("Mask", mask, full);
  Register("Pmask", pmask, full);
  Register("FlushCycle", flushcycle, full);
  Register("CreatePermissions", create_perm, full, "", "", zqcommon::cfg_OCTAL);
}

// ------------------------------------------------------------------- Log

Log::Log(Log_Config_Data& config) : cfg(&config) {}

Log::~Log() {
  if (f != nullptr) {
    write_pending();
    std::fclose(f);
  }
}

void Log::Next() {
  if (f != nullptr) {
    write_pending();
    std::fclose(f);
    f = nullptr;
  }
  cfsize = 0;
  char name[1024];
  if (cfg->autodate != 0) {
    int year, month, day, hour, minute;
    double second;
    split_unix_time(GetUTC(), year, month, day, hour, minute, second);
    std::snprintf(name, sizeof name, "%s%04i%02i%02i-%02i%02i%02i.%s", cfg->base.c_str(), year,
                  month, day, hour, minute, static_cast<int>(second), cfg->ext.c_str());
  } else if (fcount == 0) {
    std::snprintf(name, sizeof name, "%s.%s", cfg->base.c_str(), cfg->ext.c_str());
  } else {
    std::snprintf(name, sizeof name, "%s%02i.%s", cfg->base.c_str(), fcount, cfg->ext.c_str());
    ++fcount;
  }
  fname = name;
  ++lcount;
  // Never through a symbolic link; a new name is created, never taken over.
  const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | (cfg->strictsync ? O_SYNC : 0);
  int fd = ::open(name, flags | O_CREAT | O_EXCL, static_cast<mode_t>(cfg->create_perm));
  if (fd < 0 && errno == EEXIST) fd = ::open(name, flags);
  if (fd < 0) return;
  f = fdopen(fd, "a");
  if (f == nullptr) {
    ::close(fd);
    return;
  }
  // Whole lines collect in pending_ and reach the descriptor in one write
  // at the flush cycle (at every line with strict syncing); the stream
  // itself buffers nothing.
  std::setvbuf(f, nullptr, _IONBF, 0);
  struct stat st {};
  if (fstat(fd, &st) == 0) cfsize += static_cast<unsigned int>(st.st_size);
}

void Log::count(eLog_Type type, int delta) {
  switch (type) {
    case elog_WARN: wcount += delta; break;
    case elog_ERROR: ecount += delta; break;
    case elog_INFO: icount += delta; break;
    case elog_DEBUG: dcount += delta; break;
    default: pcount += delta; break;  // panic, and any combination of bits
  }
}

Log_Entry& Log::enqueue(eLog_Type type) {
  if (size() >= cfg->maxlength) {
    // Reuse the oldest node for the newest entry: no allocation.
    const eLog_Type old = back().type;
    if (old == elog_PANIC || old == elog_ERROR || old == elog_WARN || old == elog_INFO || old == elog_DEBUG) {
      count(old, -1);
    }
    splice(begin(), *this, std::prev(end()));
  } else {
    emplace_front();
  }
  count(type, +1);
  return front();
}

void Log::route(eLog_Type type, bool& echo, bool& to_file) {
  echo = (type & cfg->pmask) != 0;
  // A line meant for a file that could not be opened is a lost line.
  const bool for_file = !fname.empty() && (type & cfg->fmask) != 0;
  to_file = f != nullptr && for_file;
  if (for_file && !to_file) ++lost_;
}

char* Log::line_room(size_t n) {
  if (pending_.size() < pending_size_ + n) pending_.resize(std::max(kFileBuffer + kLineRoom, pending_size_ + n));
  return pending_.data() + pending_size_;
}

void Log::emit(char* line, size_t n, eLog_Type type, bool echo, bool to_file) {
  std::memcpy(line + n, "\r\n", 2);
  n += 2;
  if (echo && journal_prefix) std::fputs(zqdetail::journal_priority(type), stderr);
  if (echo) std::fwrite(line, 1, n, stderr);
  if (!to_file) return;
  // Next() and write_pending() empty the waiting lines and leave the line
  // where it is; it then moves to the front.
  if (cfg->maxsize != 0 && cfsize + pending_size_ + n > cfg->maxsize) Next();
  if (f == nullptr) {
    ++lost_;
    return;
  }
  if (pending_size_ + n > kFileBuffer) write_pending();
  char* const at = pending_.data() + pending_size_;
  if (at != line) std::memmove(at, line, n);
  pending_size_ += n;
  ++pending_lines_;
  const int cycle = cfg->flushcycle > 0 ? cfg->flushcycle : 1;
  // Between 1 and the cycle the count is no multiple of it: no division then.
  const bool due = (flushcycle <= 0 || flushcycle >= cycle) && flushcycle % cycle == 0;
  if (due || type == elog_PANIC || cfg->strictsync) {
    write_pending();
    flushcycle = 0;
  }
}

void Log::Add(Log_Entry& e) {
  ++flushcycle;
  if ((e.type & cfg->mask) != 0 && cfg->maxlength > 0) enqueue(e.type) = e;
  bool echo, to_file;
  route(e.type, echo, to_file);
  if (!echo && !to_file) return;
  char* const line = line_room(kHeadRoom + e.text.size() + 2);
  const size_t head = formatter_.head(e.time, e.type, e.nerr, line);
  std::memcpy(line + head, e.text.data(), e.text.size());
  emit(line, head + e.text.size(), e.type, echo, to_file);
}

// The same as building the entry and passing it to Add(Log_Entry&), with the
// text formatted once, in place in the line, and copied from there into the
// queue.
void Log::Add(eLog_Type type, int nerr, const char* format, ...) {
  ++flushcycle;
  const double time = GetUTC();
  bool echo, to_file;
  route(type, echo, to_file);
  char* const line = line_room(kLineRoom);
  const size_t head = echo || to_file ? formatter_.head(time, type, nerr, line) : 0;
  va_list args, again;
  va_start(args, format);
  va_start(again, format);
  const size_t n = format_text(line + head, format, &args, &again);
  va_end(again);
  va_end(args);
  if ((type & cfg->mask) != 0 && cfg->maxlength > 0) {
    Log_Entry& e = enqueue(type);
    e.type = type;
    e.time = time;
    e.nerr = nerr;
    e.text.assign(line + head, n);
  }
  if (echo || to_file) emit(line, head + n, type, echo, to_file);
}

void Log::Flush() {
  if (f != nullptr) write_pending();
}

// Writes the waiting lines. What a short write left of a torn line is cut
// off again, and every line that did not arrive whole is counted as lost.
void Log::write_pending() {
  if (pending_size_ == 0) return;
  const char* const data = pending_.data();
  const int fd = f != nullptr ? fileno(f) : -1;
  size_t done = 0;
  while (fd >= 0 && done < pending_size_) {
    const ssize_t n = ::write(fd, data + done, pending_size_ - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done < pending_size_) {
    const void* last = done == 0 ? nullptr : memrchr(data, '\n', done);
    const size_t whole = last == nullptr ? 0 : static_cast<const char*>(last) - data + 1;
    if (whole < done && fd >= 0 && ftruncate(fd, static_cast<off_t>(cfsize + whole)) != 0) {
      // The torn tail stays; the count below still tells the truth.
    }
    const auto kept = static_cast<unsigned int>(std::count(data, data + whole, '\n'));
    lost_ += pending_lines_ - kept;
    done = whole;
  }
  cfsize += static_cast<unsigned int>(done);
  pending_size_ = 0;
  pending_lines_ = 0;
}

void Log::Clear() {
  clear();
  ecount = wcount = icount = dcount = pcount = 0;
}

Log& Log::operator+=(const Log& other) {
  if (other.empty()) return *this;
  ecount += other.ecount;
  wcount += other.wcount;
  icount += other.icount;
  dcount += other.dcount;
  pcount += other.pcount;
  if (&other == this) {
    std::list<Log_Entry> copy(other.begin(), other.end());  // never append to what is read
    splice(end(), copy);
  } else {
    insert(end(), other.begin(), other.end());
  }
  return *this;
}

unsigned int Log::GetStat() const {
  unsigned int stat = 0;
  if (pcount != 0) stat |= elog_PANIC;
  if (ecount != 0) stat |= elog_ERROR;
  if (wcount != 0) stat |= elog_WARN;
  if (icount != 0) stat |= elog_INFO;
  if (dcount != 0) stat |= elog_DEBUG;
  return stat;
}
