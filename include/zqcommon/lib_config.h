// INI-style configuration text kept line by line, merged with the command line.
#ifndef ZQCOMMON_LIB_CONFIG_H
#define ZQCOMMON_LIB_CONFIG_H

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zqcommon/export.h"

class Config_File;
class LINE;

// The trailing comment of one LINE, as a string-like view: reads as everything
// after the '#' (the blank that usually follows it included), or "" when the
// line has none. Assigning rewrites the comment in the line's text. Valid as
// long as its LINE lives.
class ZQ_EXPORT comment_string {
 public:
  explicit comment_string(LINE& l) : line(l) {}
  operator std::string() const;
  comment_string& operator=(const std::string& text);

 private:
  LINE& line;
};

// One line of a configuration text with the positions of its parts. Positions
// are 32-bit offsets into `data`, or LINE::none. Lines are built
// from text by classification (section header, entry, or filler for comments,
// blanks and malformed lines), repairing what can be repaired.
class ZQ_EXPORT LINE {
 public:
  enum eLineTypes { SECTION = 0, ENTRY = 1, FILLER = 2 };
  typedef uint32_t position;
  static constexpr position none = 0xFFFFFFFFu;

  LINE() = default;
  // Classifies `text`; diagnostics about repairs name line number `number`.
  LINE(const std::string& text, int number);

  bool IsSection() const { return type == SECTION; }
  bool IsEntry() const { return type == ENTRY; }
  bool IsFiller() const { return type == FILLER; }
  int Line() const { return line; }
  // The section or entry name; "" for a filler.
  std::string Name() const;
  // The entry's value (trailing blanks removed, quotes kept); "".
  std::string Value() const;
  operator std::string() const { return Value(); }
  comment_string Comment() { return comment_string(*this); }

  // Replace the value in the text ("%i", "1"/"0", "%li", "%f" for numbers);
  // the comment moves with it.
  LINE& operator=(const std::string& value);
  LINE& operator=(const char* value) { return *this = std::string(value); }
  LINE& operator=(int value);
  LINE& operator=(bool value);
  LINE& operator=(long value);
  LINE& operator=(double value);

  std::string data;
  position name = none;
  position namelen = 0;
  position eqsign = none;
  position value = none;
  position valuelen = 0;
  position comment = none;
  eLineTypes type = FILLER;
  int line = 0;
};

// The entry lines of one section, in line order, as pointers into the owning
// Config_File. Owns nothing: valid while the Config_File lives and is not
// cleared. Entries added through add_entry() are stored in the file but not
// appended to this object.
class ZQ_EXPORT SECTION : public std::vector<LINE*> {
 public:
  SECTION() = default;
  SECTION(Config_File* owner, int header) : cfg(owner), startline(header) {}

  // The first entry of that name (case-insensitively when the file ignores
  // case). Throws std::underflow_error("Section is empty") on an empty
  // section and std::invalid_argument("Entry not in section") when missing.
  LINE& operator[](const std::string& name);
  LINE& get_entry(const std::string& name) { return (*this)[name]; }
  using std::vector<LINE*>::operator[];

  // Adds "name = value # comment" after the section's last entry (or right
  // after its header while it has none) and returns the stored line. When that
  // line number is taken already, nothing is stored and the line there is
  // returned. (On a section that holds entries every call therefore computes
  // the same number; kept as it always behaved.)
  LINE* add_entry(const std::string& name, const std::string& value,
                  const std::string& comment = "");
  LINE* add_entry(const std::string& name, double value, const std::string& comment = "");
  LINE* add_entry(const std::string& name, int value, const std::string& comment = "");

  Config_File* cfg = nullptr;
  int startline = 0;
};

// The lines of a Config_File by line number: ordered iteration, look-up and
// insertion that keeps a line already stored under a number. LINE references
// stay valid until clear(). Lines live in a deque; a sorted index of
// (number, slot) pairs orders them, which costs 8 bytes a line instead of a
// tree node.
class ZQ_EXPORT LineTable {
 public:
  // A line number and the line's index in the table's storage.
  struct Slot {
    int number;
    uint32_t index;
  };
  // Walks the lines in ascending number order.
  class iterator {
   public:
    iterator(LineTable* table, std::vector<Slot>::iterator it) : table_(table), it_(it) {}
    int number() const { return it_->number; }
    LINE& line() const { return table_->lines_[it_->index]; }
    iterator& operator++() {
      ++it_;
      return *this;
    }
    bool operator==(const iterator& o) const { return it_ == o.it_; }
    bool operator!=(const iterator& o) const { return it_ != o.it_; }

   private:
    LineTable* table_;
    std::vector<Slot>::iterator it_;
  };

  iterator begin() { return iterator(this, index_.begin()); }
  iterator end() { return iterator(this, index_.end()); }
  // The line stored under `number`, or end().
  iterator find(int number);
  // The first line numbered above `number`.
  iterator upper_bound(int number);
  // Stores `line` under `number` unless that number is taken; the line stored
  // there and whether it is the new one.
  std::pair<LINE*, bool> insert(int number, LINE&& line);
  int last_number() const { return index_.back().number; }
  bool empty() const { return index_.empty(); }
  size_t size() const { return index_.size(); }
  void clear();

 private:
  std::deque<LINE> lines_;
  std::vector<Slot> index_;  // ascending numbers
};

// An INI-style configuration held in memory line by line, so it can be
// queried, edited and written back with comments and layout in place.
//
// Filled from a file, a stream or a command line (then kept as the section
// "@@Argline" under negative line numbers). Lines longer than 1023 characters
// end the parse after their first 1023 characters. Names are matched
// case-insensitively when `ignorecase` is set (the default).
//
// Failures: get_entry() never throws, it returns the caller's default;
// get_section(), get_line() and SECTION look-ups throw std::invalid_argument
// or std::underflow_error with fixed texts. Diagnostics go to standard error,
// gated by DEBUG_LEVEL. Not thread-safe: read configuration at start-up.
class ZQ_EXPORT Config_File {
 public:
  // The longest line text read; a longer one ends the parse after this many
  // characters.
  static constexpr std::string::size_type kMaxLine = 1023;

  Config_File();
  Config_File(const std::string& filename, const std::string& magix = "", bool ignorecase = true);
  Config_File(std::istream& in, const std::string& magix = "", bool ignorecase = true);
  Config_File(int argc, char** argv, bool ignorecase = true);
  virtual ~Config_File();
  Config_File(const Config_File&) = default;
  Config_File& operator=(const Config_File&) = default;

  // ---- reading
  // A new input stream for `filename` (fname is set), or null for "".
  std::unique_ptr<std::istream> open(const std::string& filename);
  // False for an empty name or a failed magic check; a missing file parses as empty.
  bool parse(const std::string& filename);
  bool parse(std::istream& in);
  // One line of at most kMaxLine characters without its trailing CR/LF (which
  // do not count toward the limit). A longer line leaves the stream failed
  // after its first kMaxLine characters, which ends a parse.
  static std::istream& readln(std::istream& in, std::string& line);

  // ---- command line
  // Replaces a recognised switch (-d, --debug, -h, --help, -f, --cfg,
  // --configfile, -v, --version) by its entry name, in place.
  static std::string& argline_subst(std::string& name);
  // Prints the usage to standard error and answers true when "-h" was given.
  // Throws std::invalid_argument when the object holds no command line.
  bool parse_argline_default(const std::string& extra);
  // Parses the file named by "config_file" on the command line, or `def`.
  bool open_argfile(const std::string& def);
  // The command line's "debuglevel" as atoi() reads it, or `def`.
  int get_debug(int def);

  // ---- queries
  std::string get_entry(const std::string& section, const std::string& name,
                        const std::string& def, std::string* comment = nullptr,
                        int* line = nullptr);
  SECTION get_section(const std::string& section);
  SECTION operator[](const std::string& section) { return get_section(section); }
  bool has_section(const std::string& section);
  // All section names in byte-wise ascending order.
  std::vector<std::string> get_sections() const;
  // The entry names of a section in file order; empty when it is missing.
  std::vector<std::string> get_section_entries(const std::string& section);
  LINE& get_line(int number);
  // SHA-1 over the sorted section.entry=value triples: independent of order,
  // comments and layout. `flag` is ignored.
  std::string get_hash(int flag = 0);

  // ---- editing and output
  SECTION add_section(const std::string& name, const int* line = nullptr);
  // Writes `header` (when not empty) and every line with CR LF endings; the
  // command line is left out when the object was read from a named file.
  bool write(std::ostream& out, const std::string& header = "");
  bool write(const std::string& filename, const std::string& header = "");
  static void writeln(std::ostream& out, const std::string& text);
  void clear();

  size_t Size() const { return data.size(); }
  const std::string& getfilename() const { return fname; }
  const std::string& get_magic() const { return magix; }

 protected:
  friend class SECTION;
  // The header line number of a section, or false when it is not found.
  bool find_section(const std::string& section, int& header);
  // Stores a classified line under `number` unless taken; the line there.
  LINE& store(const std::string& text, int number);

  std::string fname;
  LineTable data;
  std::map<std::string, int> sections;
  std::string magix;
  std::string rmagix;
  bool ignorecase = true;

 private:
  // Hashed index of the entries and the case-folded section names, built on
  // the first look-up and rebuilt when lines are added or cleared, so a
  // look-up costs the same whatever the number of sections or lines. Copies
  // share it read-only.
  struct LookupIndex;
  std::shared_ptr<const LookupIndex> index_;
  const LookupIndex& lookup_index();
};

#endif
