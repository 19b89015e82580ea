// Log files: queue, line format, rotation and flushing.
#include "zqcommon/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "chartype.h"
#include "journal_priority.h"
#include "details/format.h"
#include "zqcommon/functions.h"

const char Log_Entry::eLogTypeS[18] = "?PE?W???I???????D";

namespace {

constexpr size_t kTextLimit = 1024;  // formatting buffer; texts keep 1023 characters
constexpr size_t kFileBuffer = 64 * 1024;

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

void vformat_text(std::string& text, const char* format, va_list args) {
  char buffer[kTextLimit];
  const int n = zqdetail::vformat(buffer, sizeof buffer, format, args);  // vsnprintf's bytes
  if (n < 0) {
    text.clear();
    return;
  }
  text.assign(buffer, std::min(static_cast<size_t>(n), sizeof buffer - 1));
}

}  // namespace

// ------------------------------------------------------------- Log_Entry

void Log_Entry::Text(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vformat_text(text, format, args);
  va_end(args);
}

void Log_Entry::Now() { time = GetUTC(); }

void Log_Entry::make_logline(std::string& out) const {
  out = mktimestr(time);
  char tail[32];
  std::snprintf(tail, sizeof tail, ";%c;%08x;", type_letter(type), static_cast<unsigned>(nerr));
  out += tail;
  out += text;
  out += "\r\n";
}

// The same line as make_logline(), with the date and time up to the second
// formatted once per second and the milliseconds in integer arithmetic. The
// time is rounded to whole milliseconds first, half away from zero, as
// mktimestr() does: x - trunc(x) is exact for these magnitudes, so the
// comparison with one half decides exactly as std::round would.
void Log::LineFormatter::format(const Log_Entry& e, std::string& out) {
  const double x = e.time * 1000.0;
  if (!(x > -1e15 && x < 1e15)) {  // beyond the fast path's range (or not a number): the long way
    e.make_logline(out);
    return;
  }
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
  char head[16];
  head[0] = static_cast<char>('0' + ms / 100);
  head[1] = static_cast<char>('0' + ms / 10 % 10);
  head[2] = static_cast<char>('0' + ms % 10);
  head[3] = ';';
  head[4] = type_letter(e.type);
  head[5] = ';';
  const auto nerr = static_cast<unsigned>(e.nerr);
  for (int i = 0; i < 8; ++i) head[6 + i] = zqdetail::kHexDigits[(nerr >> (28 - 4 * i)) & 15u];
  head[14] = ';';
  // One copy per part into a line whose capacity stays from line to line.
  constexpr size_t kHead = 15;
  out.resize(prefix_len + kHead + e.text.size() + 2);
  char* p = &out[0];
  std::memcpy(p, prefix, prefix_len);
  std::memcpy(p + prefix_len, head, kHead);
  std::memcpy(p + prefix_len + kHead, e.text.data(), e.text.size());
  std::memcpy(p + out.size() - 2, "\r\n", 2);
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
  pending_.reserve(kFileBuffer);
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

void Log::Add(Log_Entry& e) {
  ++flushcycle;
  if ((e.type & cfg->mask) != 0 && cfg->maxlength > 0) {
    if (size() >= cfg->maxlength) {
      // Reuse the oldest node for the newest entry: no allocation.
      const eLog_Type old = back().type;
      if (old == elog_PANIC || old == elog_ERROR || old == elog_WARN || old == elog_INFO ||
          old == elog_DEBUG) {
        count(old, -1);
      }
      splice(begin(), *this, std::prev(end()));
      front() = e;
    } else {
      push_front(e);
    }
    count(e.type, +1);
  }
  const bool echo = (e.type & cfg->pmask) != 0;
  // A line meant for a file that could not be opened is a lost line.
  const bool for_file = !fname.empty() && (e.type & cfg->fmask) != 0;
  const bool to_file = f != nullptr && for_file;
  if (for_file && !to_file) ++lost_;
  if (!echo && !to_file) return;
  formatter_.format(e, line_);
  if (echo && journal_prefix) std::fputs(zqdetail::journal_priority(e.type), stderr);
  if (echo) std::fwrite(line_.data(), 1, line_.size(), stderr);
  if (!to_file) return;
  if (cfg->maxsize != 0 && cfsize + pending_.size() + line_.size() > cfg->maxsize) Next();
  if (f == nullptr) {
    ++lost_;
    return;
  }
  if (pending_.size() + line_.size() > kFileBuffer) write_pending();
  pending_ += line_;
  ++pending_lines_;
  const int cycle = cfg->flushcycle > 0 ? cfg->flushcycle : 1;
  if (flushcycle % cycle == 0 || e.type == elog_PANIC || cfg->strictsync) {
    write_pending();
    flushcycle = 0;
  }
}

void Log::Add(eLog_Type type, int nerr, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vformat_text(scratch_.text, format, args);
  va_end(args);
  scratch_.type = type;
  scratch_.nerr = nerr;
  scratch_.Now();
  Add(scratch_);
}

void Log::Flush() {
  if (f != nullptr) write_pending();
}

// Writes the waiting lines. What a short write left of a torn line is cut
// off again, and every line that did not arrive whole is counted as lost.
void Log::write_pending() {
  if (pending_.empty()) return;
  const int fd = f != nullptr ? fileno(f) : -1;
  size_t done = 0;
  while (fd >= 0 && done < pending_.size()) {
    const ssize_t n = ::write(fd, pending_.data() + done, pending_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done < pending_.size()) {
    const size_t whole = done == 0 ? 0 : pending_.rfind('\n', done - 1) + 1;  // npos + 1 == 0
    if (whole < done && fd >= 0 && ftruncate(fd, static_cast<off_t>(cfsize + whole)) != 0) {
      // The torn tail stays; the count below still tells the truth.
    }
    unsigned int kept = 0;
    for (size_t i = 0; i < whole; ++i) kept += pending_[i] == '\n';
    lost_ += pending_lines_ - kept;
    done = whole;
  }
  cfsize += static_cast<unsigned int>(done);
  pending_.clear();
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
