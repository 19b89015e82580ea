// Configuration file: line classification, parsing, queries, editing, output.
#include "zqcommon/lib_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "core/atomic_file.h"
#include "core/chartype.h"
#include "config/config_index.h"
#include "zqcommon/bug.h"
#include "zqcommon/functions.h"
#include "zqsecurity/hash.h"

namespace {

constexpr auto npos = std::string::npos;

// Whitespace: space, \f, \t, \v, \n or \r (called for every character of a
// name: no strchr).
bool is_ws(char c) {
  switch (c) {
    case ' ': case '\f': case '\t': case '\v': case '\n': case '\r':
      return true;
    default:
      return false;
  }
}

// The first character from `from` on that is not whitespace, or npos
// (a plain loop: the library's find_first_not_of tests each character against
// the set).
std::string::size_type first_not_ws(const std::string& s, std::string::size_type from = 0) {
  for (auto i = from; i < s.size(); ++i) {
    if (!is_ws(s[i])) return i;
  }
  return npos;
}

// Whether the name of `l` is `name`, exactly or without regard to case.
bool name_is(const LINE& l, const std::string& name, bool ignorecase) {
  if (l.name == LINE::none || l.namelen != name.size()) return false;
  const char* p = l.data.data() + l.name;
  if (name.compare(0, name.size(), p, l.namelen) == 0) return true;  // the same bytes match either way
  if (!ignorecase) return false;
  for (std::string::size_type i = 0; i < name.size(); ++i) {
    if (zqdetail::upper(p[i]) != zqdetail::upper(name[i])) return false;
  }
  return true;
}

// The lines of a file, read in blocks into one buffer and cut exactly as
// Config_File::readln cuts them from a stream: at most kMaxLine characters,
// the line feed taken, trailing CRs dropped; a longer line gives its first
// kMaxLine characters and ends the lines unless only CRs stand before its line
// feed; after the last line feed comes one more, empty line. good() is a
// stream's good() after the line. The buffer is reused block after block, so
// a parse touches the same few pages whatever the file's size.
class FileLines {
 public:
  // A file that cannot be opened has no lines (and good() is false).
  explicit FileLines(const std::string& filename) : fd_(::open(filename.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ >= 0) {
      buffer_.reset(new char[kBlock]);
      p_ = end_ = buffer_.get();
      eof_ = false;
      good_ = true;
    }
  }
  FileLines(const FileLines&) = delete;
  FileLines& operator=(const FileLines&) = delete;
  ~FileLines() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool good() {
    if (after_long_) skip_after_long();
    return good_;
  }

  // The next line, as a range of the buffer valid until the next call.
  std::pair<const char*, size_t> next() {
    if (after_long_) skip_after_long();
    fill(Config_File::kMaxLine + 1);
    const char* const start = p_;
    const size_t left = static_cast<size_t>(end_ - p_);
    const size_t limit = std::min(left, Config_File::kMaxLine + 1);
    auto* feed = limit == 0 ? nullptr : static_cast<char*>(std::memchr(p_, '\n', limit));
    size_t length;
    if (feed != nullptr) {
      length = static_cast<size_t>(feed - p_);
      p_ = feed + 1;
    } else if (left <= Config_File::kMaxLine) {
      length = left;  // the last line, without a line feed (or none at all)
      p_ = end_;
      good_ = false;
    } else {
      length = Config_File::kMaxLine;
      p_ += Config_File::kMaxLine;
      after_long_ = true;  // what follows decides, once the line is taken
    }
    while (length > 0 && start[length - 1] == '\r') --length;
    return {start, length};
  }

 private:
  // The buffer's size: far more than the kMaxLine + 1 bytes a line needs.
  static constexpr size_t kBlock = 64 * 1024;

  // Reads on until at least `want` bytes follow p_ or the file has ended,
  // moving the bytes not yet cut to the front of the buffer first.
  void fill(size_t want) {
    if (eof_ || static_cast<size_t>(end_ - p_) >= want) return;
    const size_t kept = static_cast<size_t>(end_ - p_);
    std::memmove(buffer_.get(), p_, kept);
    p_ = buffer_.get();
    end_ = p_ + kept;
    char* const limit = buffer_.get() + kBlock;
    while (end_ < limit) {
      const ssize_t n = ::read(fd_, end_, static_cast<size_t>(limit - end_));
      if (n > 0) {
        end_ += n;
      } else if (n == 0 || errno != EINTR) {
        eof_ = true;  // the end (or an error, which ends the file as a stream's would)
        break;
      }
    }
  }

  // After the first kMaxLine characters of a longer line: CRs, then its line
  // feed, let the lines go on; anything else (or the end) ends them.
  void skip_after_long() {
    after_long_ = false;
    for (;;) {
      while (p_ < end_ && *p_ == '\r') ++p_;
      if (p_ < end_ || eof_) break;
      fill(1);
    }
    if (p_ < end_ && *p_ == '\n') {
      ++p_;
    } else {
      good_ = false;  // really too long, or the end
    }
  }

  int fd_;
  std::unique_ptr<char[]> buffer_;
  char* p_ = nullptr;
  char* end_ = nullptr;
  bool eof_ = true;
  bool good_ = false;
  bool after_long_ = false;
};

// The parse of Config_File::parse: the magic line when one is expected (read
// into `rmagix`), then every line while the source is good, read and stored
// by store_next with its number.
template <class Good, class Read, class StoreNext>
bool parse_lines(const std::string& magix, std::string& rmagix, const std::string& fname, Good good, Read read,
                 StoreNext store_next) {
  if (!magix.empty()) {
    read(rmagix);
    if (rmagix != magix && rmagix.find(magix + " ") == npos) {
      ZQ_DEBUG(0, "WARNING: No magic (%s) found at beginning of (%s): Skipping!\n", magix.c_str(),
               fname.c_str());
      return false;
    }
  }
  ZQ_DEBUG(9, "libconfig: parsing file %s...\n", fname.c_str());
  for (int number = 1; good(); ++number) store_next(number);
  return true;
}

void classify(LINE& l, int number);

// Stores the line `make` returns under `number` unless that number is taken
// (then `make` is not called); the line stored there. A new section header
// goes into `sections`.
template <class Make>
LINE& store_line(LineTable& table, std::map<std::string, int>& sections, int number, Make make) {
  const auto taken = table.find(number);
  if (taken != table.end()) return taken.line();
  LINE& stored = *table.insert(number, make()).first;
  if (stored.IsSection()) sections.emplace(stored.Name(), number);
  return stored;
}

}  // namespace

// ------------------------------------------------------------- LineTable

LineTable::iterator LineTable::find(int number) {
  if (index_.empty() || index_.back().number < number) return end();  // appending
  auto it = std::lower_bound(index_.begin(), index_.end(), number,
                             [](const Slot& s, int n) { return s.number < n; });
  if (it != index_.end() && it->number != number) it = index_.end();
  return iterator(this, it);
}

LineTable::iterator LineTable::upper_bound(int number) {
  return iterator(this, std::upper_bound(index_.begin(), index_.end(), number,
                                         [](int n, const Slot& s) { return n < s.number; }));
}

std::pair<LINE*, bool> LineTable::insert(int number, LINE&& line) {
  // Parsing appends in ascending order: check the end first.
  auto it = (index_.empty() || index_.back().number < number)
                ? index_.end()
                : std::lower_bound(index_.begin(), index_.end(), number,
                                   [](const Slot& s, int n) { return s.number < n; });
  if (it != index_.end() && it->number == number) return {&lines_[it->index], false};
  lines_.push_back(std::move(line));
  index_.insert(it, Slot{number, static_cast<uint32_t>(lines_.size() - 1)});
  return {&lines_.back(), true};
}

void LineTable::clear() {
  lines_.clear();
  index_.clear();
}

// ------------------------------------------------------------------ LINE

LINE::LINE(const std::string& text, int number) : data(text), line(number) { classify(*this, number); }

namespace {

// Finds the parts of the line text in l.data (repairing it where needed) and
// sets the positions and the type; `number` is for diagnostics.
void classify(LINE& l, int number) {
  auto& data = l.data;
  auto& type = l.type;
  auto& name = l.name;
  auto& namelen = l.namelen;
  auto& eqsign = l.eqsign;
  auto& value = l.value;
  auto& valuelen = l.valuelen;
  auto& comment = l.comment;
  const auto first = first_not_ws(data);
  if (first == npos) {
    data.clear();
    return;
  }
  if (data[first] == '#') return;  // whole-line comment

  std::string::size_type scan_from;
  if (data[first] == '[') {
    type = LINE::SECTION;
    name = first + 1;
    const auto close = data.find(']', name);
    if (close == npos) {
      // The repaired line must stay readable: a line at the reader's limit
      // gives up its last character for the bracket, or writing it back would
      // make a line that cuts the next parse short.
      if (data.size() >= Config_File::kMaxLine && data.size() > name) data.pop_back();
      namelen = data.size() - name;
      data += ']';
      scan_from = data.size();
      ZQ_DEBUG(0,
               "libconfig: inserting missing closing bracket ']' after found Section opening "
               "'[', line #%i:%s\n",
               number, data.c_str());
    } else {
      namelen = close - name;
      scan_from = close + 1;
    }
  } else {
    const auto eq = data.find('=', first);
    if (eq == npos) return;  // a filler without a name
    if (eq == first) {
      ZQ_DEBUG(0, "libconfig: ignoring empty entry after found assignment '=', line #%i:%s\n",
               number, data.c_str());
      return;
    }
    type = LINE::ENTRY;
    name = first;
    eqsign = eq;
    // The name ends before the last blank in front of the '=': "key = v" gives
    // "key", "my key=5" gives "my".
    std::string::size_type last_ws = npos;
    for (auto i = first; i < eq; ++i) {
      if (is_ws(data[i])) last_ws = i;
    }
    namelen = (last_ws == npos ? eq : last_ws) - first;
    const auto v = first_not_ws(data, eq + 1);
    if (v == npos) {
      data.erase(eq + 1);
      value = eq + 1;
      scan_from = npos;
    } else if (data[v] == '#') {
      value = v;
      comment = v + 1;
      scan_from = npos;
    } else {
      value = v;
      scan_from = v;
    }
  }

  if (scan_from != npos) {
    std::string::size_type end = data.size();
    // Before the first quote nothing is quoted: the first '#' there starts
    // the comment. Two memchr scans find both; the loop below walks the
    // characters only from a quote on.
    const char* const from = data.data() + scan_from;
    const size_t rest = data.size() - scan_from;
    const auto* hash = static_cast<const char*>(std::memchr(from, '#', rest));
    const auto* quote = static_cast<const char*>(
        std::memchr(from, '"', hash == nullptr ? rest : static_cast<size_t>(hash - from)));
    if (quote == nullptr) {
      if (hash != nullptr) {
        end = static_cast<std::string::size_type>(hash - data.data());
        comment = end + 1;
      }
      scan_from = data.size();  // the loop has nothing to do
    } else {
      scan_from = static_cast<std::string::size_type>(quote - data.data());
    }
    bool quoted = false;
    for (auto i = scan_from; i < data.size(); ++i) {
      const char c = data[i];
      if (c == '"' && (i == 0 || data[i - 1] != '\\')) {
        quoted = !quoted;
      } else if (c == '#' && !quoted) {
        comment = i + 1;
        end = i;
        break;
      }
    }
    if (type == LINE::ENTRY) {
      while (end > value && is_ws(data[end - 1])) --end;
      valuelen = end - value;
    }
  }

  if (type == LINE::SECTION && namelen == 0) {
    type = LINE::FILLER;
    ZQ_DEBUG(0, "libconfig: ignoring empty section, line #%i:\n", number);
  } else if (type == LINE::ENTRY && namelen == 0) {
    type = LINE::FILLER;
    ZQ_DEBUG(0, "libconfig: ignoring entry without name, line #%i:%s\n", number, data.c_str());
  }
}

}  // namespace

std::string LINE::Name() const {
  if (type == FILLER || name == none) return std::string();
  return data.substr(name, namelen);
}

std::string LINE::Value() const {
  if (type != ENTRY || value == none) return std::string();
  return data.substr(value, valuelen);
}

LINE& LINE::operator=(const std::string& text) {
  if (type != ENTRY || value == none) return *this;
  data.replace(value, valuelen, text);
  if (comment != none) comment = comment + text.size() - valuelen;
  valuelen = text.size();
  return *this;
}

LINE& LINE::operator=(int v) { return *this = Format("%i", v); }
LINE& LINE::operator=(bool v) { return *this = static_cast<int>(v ? 1 : 0); }
LINE& LINE::operator=(long v) { return *this = Format("%li", v); }
LINE& LINE::operator=(double v) { return *this = Format("%f", v); }

comment_string::operator std::string() const {
  if (line.comment == LINE::none || line.comment > line.data.size()) return std::string();
  return line.data.substr(line.comment);
}

comment_string& comment_string::operator=(const std::string& text) {
  const bool had = line.comment != LINE::none && line.comment > 0;
  if (had) line.data.erase(line.comment - 1);  // the old comment with its '#'
  if (text.empty()) {
    line.comment = LINE::none;
    return *this;
  }
  if (had) {
    line.data += "# ";  // the '#' comes back where it was
  } else {
    line.data += " # ";
    line.comment = line.data.size() - 1;
  }
  line.data += text;
  return *this;
}

// --------------------------------------------------------------- SECTION

LINE& SECTION::operator[](const std::string& entry) {
  if (empty()) throw std::underflow_error("Section is empty");
  const bool fold = cfg != nullptr && cfg->ignorecase;
  for (LINE* l : *this) {
    if (name_is(*l, entry, fold)) return *l;
  }
  throw std::invalid_argument("Entry not in section");
}

LINE* SECTION::add_entry(const std::string& entry, const std::string& value,
                         const std::string& comment) {
  std::string text = entry;
  if (!value.empty()) text += " = " + value;
  if (!comment.empty()) text += " # " + comment;
  int number;
  if (empty()) {
    number = ++startline;
  } else {
    number = back()->line + 1;
  }
  ZQ_DEBUG(19, "libconfig: adding entry %s [line %i]\n", entry.c_str(), number);
  return &cfg->store(text, number);
}

LINE* SECTION::add_entry(const std::string& entry, double value, const std::string& comment) {
  return add_entry(entry, Format("%f", value), comment);
}

LINE* SECTION::add_entry(const std::string& entry, int value, const std::string& comment) {
  return add_entry(entry, Format("%i", value), comment);
}

// ----------------------------------------------------------- Config_File

Config_File::Config_File() = default;

Config_File::Config_File(const std::string& filename, const std::string& magic, bool nocase)
    : magix(magic), ignorecase(nocase) {
  parse(filename);
}

Config_File::Config_File(std::istream& in, const std::string& magic, bool nocase)
    : magix(magic), ignorecase(nocase) {
  parse(in);
}

Config_File::~Config_File() = default;

std::unique_ptr<std::istream> Config_File::open(const std::string& filename) {
  if (filename.empty()) return nullptr;
  fname = filename;
  return std::make_unique<std::ifstream>(filename, std::ios::in | std::ios::binary);
}

// The file is read in blocks and cut in memory (a stream's getline per line costs
// more than the rest of the parse); the lines are those of parse(stream).
bool Config_File::parse(const std::string& filename) {
  if (filename.empty()) return false;
  fname = filename;
  FileLines lines(filename);
  // Each line is copied once, from the buffer into its LINE.
  return parse_lines(
      magix, rmagix, fname, [&] { return lines.good(); },
      [&](std::string& text) {
        const auto line = lines.next();
        text.assign(line.first, line.second);
      },
      [&](int number) {
        const auto line = lines.next();
        store_line(data, sections, number, [&] {
          LINE l;
          l.data = std::string(line.first, line.second);  // built at its size, then moved in
          l.line = number;
          classify(l, number);
          return l;
        });
      });
}

std::istream& Config_File::readln(std::istream& in, std::string& text) {
  char buffer[kMaxLine + 1];
  text.clear();
  in.getline(buffer, sizeof buffer);
  std::streamsize n = in.gcount();
  if (n > 0 && !in.fail() && !in.eof()) --n;  // the line feed was extracted
  text.assign(buffer, static_cast<std::string::size_type>(n));
  if (in.fail() && !in.eof() && n == static_cast<std::streamsize>(kMaxLine)) {
    // The limit is on the text: carriage returns that end a line of exactly
    // kMaxLine characters (as written back with CR LF) do not make it too long.
    in.clear();
    while (in.peek() == '\r') in.get();
    const int next = in.peek();
    if (next == '\n') {
      in.get();
    } else if (next != std::char_traits<char>::eof()) {
      in.setstate(std::ios::failbit);  // really too long: the parse ends here
    } else {
      in.get();  // sets eof (and fail) as at the end of any last line
    }
  }
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
  return in;
}

bool Config_File::parse(std::istream& in) {
  std::string text;
  return parse_lines(
      magix, rmagix, fname, [&] { return in.good(); }, [&](std::string& line) { readln(in, line); },
      [&](int number) {
        readln(in, text);
        store(text, number);
      });
}

LINE& Config_File::store(const std::string& text, int number) {
  return store_line(data, sections, number, [&] { return LINE(text, number); });
}

bool Config_File::find_section(const std::string& section, int& header) {
  ZQ_DEBUG(100, "libconfig: searching section >%s<\n", section.c_str());
  // The ordered map's content, hashed.
  const auto& exact = lookup_index().exact_sections;
  auto it = exact.find(section);
  if (it == exact.end() && ignorecase) {
    std::string upper = section;
    toupper(upper);
    it = exact.find(upper);
    if (it == exact.end()) {
      // The first name in byte order that matches without regard to case.
      const auto& folded = lookup_index().folded_sections;
      const auto hit = folded.find(upper);
      if (hit == folded.end()) return false;
      header = hit->second;
      return true;
    }
  }
  if (it == exact.end()) return false;
  header = it->second;
  return true;
}

std::string Config_File::get_entry(const std::string& section, const std::string& name,
                                   const std::string& def, std::string* comment, int* line) {
  ZQ_DEBUG(19, "libconfig: getting section entry %s.%s [case: %s]\n", section.c_str(),
           name.c_str(), ignorecase ? "no" : "yes");
  if (line != nullptr) *line = INT_MIN;
  int header;
  if (!find_section(section, header)) {
    ZQ_DEBUG(99, "libconfig: section not found, returning default value\n");
    return def;
  }
  // The index names the line. A name it does not know, or a line that no
  // longer carries the name (lines can be edited in place), is looked for by
  // the scan of the section.
  const int indexed = lookup_index().find(header, name);
  auto it = indexed == INT_MIN ? data.end() : data.find(indexed);
  if (it == data.end() || !it.line().IsEntry() || !name_is(it.line(), name, ignorecase)) {
    it = data.upper_bound(header);
  }
  for (; it != data.end(); ++it) {
    LINE& l = it.line();
    if (l.IsSection()) break;
    if (!l.IsEntry() || !name_is(l, name, ignorecase)) continue;
    if (comment != nullptr) *comment = l.Comment();
    if (line != nullptr) *line = it.number();
    std::string value = l.Value();
    ZQ_DEBUG(49, "libconfig: section entry %s.%s = %s [line: %i]\n", section.c_str(),
             name.c_str(), value.c_str(), it.number());
    return value;
  }
  ZQ_DEBUG(99, "libconfig: entry not found, returning default value\n");
  return def;
}

SECTION Config_File::get_section(const std::string& section) {
  ZQ_DEBUG(19, "libconfig: getting section [%s]\n", section.c_str());
  int header;
  if (sections.empty() || data.empty() || !find_section(section, header)) {
    throw std::invalid_argument("No section by that name");
  }
  auto it = data.find(header);
  if (it == data.end()) throw std::invalid_argument("INTERNAL: No section by that name");
  SECTION result(this, header);
  for (++it; it != data.end() && !it.line().IsSection(); ++it) {
    if (!it.line().IsEntry()) continue;
    it.line().line = it.number();
    result.push_back(&it.line());
  }
  return result;
}

bool Config_File::has_section(const std::string& section) {
  int header;
  return !sections.empty() && !data.empty() && find_section(section, header);
}

std::vector<std::string> Config_File::get_sections() const {
  std::vector<std::string> names;
  names.reserve(sections.size());
  for (const auto& s : sections) names.push_back(s.first);
  return names;
}

std::vector<std::string> Config_File::get_section_entries(const std::string& section) {
  std::vector<std::string> names;
  int header;
  if (!find_section(section, header)) return names;
  for (auto it = data.upper_bound(header); it != data.end() && !it.line().IsSection(); ++it) {
    if (it.line().IsEntry()) names.push_back(it.line().Name());
  }
  return names;
}

LINE& Config_File::get_line(int number) {
  ZQ_DEBUG(19, "libconfig: getting line [%i]\n", number);
  auto it = data.find(number);
  if (it == data.end()) throw std::invalid_argument("Line not in config file");
  return it.line();
}

std::string Config_File::get_hash(int) {
  ZQSecurity::Hash sha1("sha1");
  std::vector<std::string> digests;
  std::string section, triple;
  for (auto it = data.begin(); it != data.end(); ++it) {
    const LINE& l = it.line();
    if (l.IsSection()) {
      section = l.Name();
    } else if (l.IsEntry()) {
      triple = section;
      triple += '.';
      triple.append(l.data, l.name, l.namelen);
      triple += '=';
      triple += l.Value();
      digests.push_back(sha1.mkHashText(triple.data(), static_cast<unsigned>(triple.size())));
    }
  }
  std::sort(digests.begin(), digests.end());
  std::string joined;
  joined.reserve(digests.size() * 40);
  for (const auto& d : digests) joined += d;
  return sha1.mkHashText(joined.data(), static_cast<unsigned>(joined.size()));
}

SECTION Config_File::add_section(const std::string& name, const int* line) {
  ZQ_DEBUG(19, "libconfig: adding section [%s]\n", name.c_str());
  int header;
  if (line == nullptr) {
    const int n = data.empty() ? 0 : data.last_number() + 1;
    store("", n);
    header = n + 1000;
  } else {
    header = *line;
  }
  store("[" + name + "]", header);
  return get_section(name);
}

void Config_File::writeln(std::ostream& out, const std::string& text) {
  out << text;
  if (text.empty() || (text.back() != '\r' && text.back() != '\n')) out << "\r\n";
}

bool Config_File::write(std::ostream& out, const std::string& header) {
  if (!header.empty()) writeln(out, header);
  for (auto it = data.begin(); it != data.end(); ++it) {
    if (!fname.empty() && it.number() < 1) continue;  // the command line
    writeln(out, it.line().data);
  }
  out.flush();
  return out.good();
}

// The file is replaced as one step: a failed write leaves the original whole.
bool Config_File::write(const std::string& filename, const std::string& header) {
  std::ostringstream out;
  return write(out, header) && zqdetail::write_file_atomically(filename, out.str());
}

void Config_File::clear() {
  ZQ_DEBUG(9, "libconfig: clearing all config entries...\n");
  data.clear();
  sections.clear();
}
