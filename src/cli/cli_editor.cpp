// The interpreter's opt-in line editor: keys, history search, completion,
// layout of lines wider than the terminal, messages above the prompt, help
// with usage and levels, and the history file.
#include "zqcommon/cli_editor.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "core/atomic_file.h"
#include "zqcommon/cli.h"

namespace {

constexpr size_t kMaxEscape = 16;    // longer sequences are not keys: dropped
constexpr size_t kMaxMessage = 65536;

bool continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Characters (code points) in valid UTF-8: one terminal column each.
size_t cells(const std::string& s, size_t from = 0, size_t to = std::string::npos) {
  to = std::min(to, s.size());
  size_t n = 0;
  for (size_t i = from; i < to; ++i) n += !continuation(static_cast<unsigned char>(s[i]));
  return n;
}

// `s` as the editor may hold it: well-formed UTF-8 only (a byte that does
// not begin a complete character of C2..F4 lead and continuation bytes is
// dropped) and at most `max` bytes. Text from outside the keys (history
// entries, completions) passes here, so the line keeps the typed line's rule.
std::string editable(const std::string& s, size_t max) {
  std::string r;
  r.reserve(std::min(s.size(), max));
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const size_t n = c < 0x80 ? 1 : c > 0xF4 ? 0 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
    bool ok = n != 0 && i + n <= s.size();
    for (size_t k = 1; ok && k < n; ++k) ok = continuation(static_cast<unsigned char>(s[i + k]));
    if (!ok) {
      ++i;
      continue;
    }
    if (r.size() + n > max) break;
    r.append(s, i, n);
    i += n;
  }
  return r;
}

size_t prev_char(const std::string& s, size_t p) {
  if (p == 0) return 0;
  do --p;
  while (p > 0 && continuation(static_cast<unsigned char>(s[p])));
  return p;
}

size_t next_char(const std::string& s, size_t p) {
  if (p >= s.size()) return s.size();
  do ++p;
  while (p < s.size() && continuation(static_cast<unsigned char>(s[p])));
  return p;
}

// Letters, digits and every non-ASCII character make words for Alt-B/F.
bool word_byte(unsigned char c) { return c >= 0x80 || std::isalnum(c) != 0; }

std::string csi(unsigned int n, char what) { return "\x1b[" + std::to_string(n) + what; }

std::string crlf_lines(const std::string& text) {
  std::string s;
  for (char c : text.substr(0, kMaxMessage)) {
    if (c == '\n') s += '\r';
    if (c != '\r') s += c;
  }
  return s;
}

// A help text "NAME ARGS: what it does" (or "Usage: NAME ARGS") as its
// usage and its description.
std::pair<std::string, std::string> split_help(const std::string& name, const std::string& help) {
  if (help.compare(0, 7, "Usage: ") == 0) return {help.substr(7), ""};
  const size_t colon = help.find(": ");
  if (colon != std::string::npos && help.compare(0, name.size(), name) == 0 &&
      (help.size() == name.size() || help[name.size()] == ' ' || help[name.size()] == ':')) {
    return {help.substr(0, colon), help.substr(colon + 2)};
  }
  return {name, help};
}

// `text` in lines of at most `cols` columns, the first after `first` and the
// others indented as far, broken at blanks.
std::string wrapped(const std::string& first, const std::string& text, size_t cols) {
  const size_t indent = first.size();
  const size_t room = cols > indent + 20 ? cols - indent - 1 : 0;
  std::string s = first;
  size_t at = 0;
  while (room != 0 && text.size() - at > room) {
    size_t cut = text.rfind(' ', at + room);
    if (cut == std::string::npos || cut <= at) cut = at + room;
    s += text.substr(at, cut - at) + "\r\n" + std::string(indent, ' ');
    at = cut < text.size() && text[cut] == ' ' ? cut + 1 : cut;
  }
  return s + text.substr(at) + "\r\n";
}

// What each named level may do with `command` under the access rules
// (leading words -> level): no rows when no rule mentions the command.
CLI_Editor::LevelTexts derived_levels(const std::map<std::string, int>& rules, const std::string& command,
                                      const std::map<int, std::string>& names) {
  std::vector<std::pair<std::string, int>> mine;  // the rules for the command's words
  for (auto it = rules.lower_bound(command); it != rules.end() && it->first.compare(0, command.size(), command) == 0;
       ++it) {
    if (it->first.size() == command.size() || it->first[command.size()] == ' ') mine.push_back(*it);
  }
  CLI_Editor::LevelTexts rows;
  if (mine.empty()) return rows;
  const int base = mine.front().first == command ? mine.front().second : 0;
  for (const auto& name : names) {
    std::string denied;
    for (const auto& rule : mine) {
      if (rule.second > name.first && rule.first != command) denied += (denied.empty() ? "" : ", ") + rule.first;
    }
    rows.emplace_back(name.second, base > name.first ? "none of it"
                                   : denied.empty()  ? "all of it"
                                                     : "all but " + denied);
  }
  return rows;
}

}  // namespace

CLI_Editor::CLI_Editor(CLI& cli) : cli_(cli) {}

CLI_Editor::~CLI_Editor() {
  if (history_dirty_) SaveHistory();
}

void CLI_Editor::Feed(const char* data, size_t n) {
  if (pending_pos_ == pending_.size()) {
    pending_.clear();
    pending_pos_ = 0;
  }
  pending_.append(data, n);
}

// ------------------------------------------------------------- output

void CLI_Editor::out(const std::string& text) {
  if (redraw_due_) draw();  // what follows assumes the line is on the screen
  std::fwrite(text.data(), 1, text.size(), cli_._stdout);
  std::fflush(cli_._stdout);
}

unsigned int CLI_Editor::width() const {
  const unsigned int c = columns_ != 0 ? columns_ : cli_.cols;
  return c != 0 ? c : 80;
}

std::string CLI_Editor::shown_prompt() const {
  if (!searching_) return cli_.iw_prompt;
  return std::string(search_failed_ ? "(failing " : "(") + (search_dir_ > 0 ? "reverse" : "forward") +
         "-i-search)`" + query_ + "': ";
}

// Back to the prompt's first row, cleared to the end of the screen.
void CLI_Editor::clear_rows() {
  std::string s;
  if (rows_up_ != 0) s += csi(rows_up_, 'A');
  s += "\r\x1b[J";
  out(s);
  rows_up_ = 0;
}

// Redraws the line now, or (batch redraw) once the keys waiting are taken.
void CLI_Editor::refresh() {
  rang_ = false;
  if (batch_redraw_ && pending_pos_ < pending_.size()) {
    redraw_due_ = true;
    return;
  }
  draw();
}

// Draws the prompt and the whole line, then puts the cursor in its place.
// Every character takes one column; when the text ends exactly at the right
// margin the cursor is moved to the next row, so the row count stays exact.
void CLI_Editor::draw() {
  redraw_due_ = false;
  const unsigned int cols = width();
  last_cols_ = cols;
  const std::string prompt = shown_prompt();
  std::string s;
  if (rows_up_ != 0) s += csi(rows_up_, 'A');
  s += '\r';
  s += prompt;
  s += buf_;
  s += "\x1b[J";
  const size_t plen = cells(prompt);
  const size_t total = plen + cells(buf_);
  const size_t cursor = plen + cells(buf_, 0, pos_);
  if (cursor == total && total % cols != 0) {  // already in place
    rows_up_ = static_cast<unsigned int>(cursor / cols);
    out(s);
    return;
  }
  if (total % cols == 0) s += "\r\n";
  const size_t end_row = total / cols, cursor_row = cursor / cols;
  if (end_row > cursor_row) s += csi(static_cast<unsigned int>(end_row - cursor_row), 'A');
  s += '\r';
  if (cursor % cols != 0) s += csi(static_cast<unsigned int>(cursor % cols), 'C');
  rows_up_ = static_cast<unsigned int>(cursor_row);
  out(s);
}

void CLI_Editor::Message(const std::string& text) {
  std::fflush(cli_._stdout);
  if (!shown_) {
    out(crlf_lines(text) + "\r\n");
    return;
  }
  clear_rows();
  out(crlf_lines(text) + "\r\n");
  refresh();
}

// -------------------------------------------------------------- the steps

bool CLI_Editor::next_byte(unsigned char& c) {
  if (pending_pos_ < pending_.size()) {
    c = static_cast<unsigned char>(pending_[pending_pos_++]);
    return true;
  }
  const int fd = fileno(cli_._stdin);
  pollfd p{fd, POLLIN, 0};
  if (input_ended_ || fd < 0 || poll(&p, 1, 0) <= 0 || !(p.revents & POLLIN)) return false;
  // What is there is read ahead (the keys are all the editor's) and taken
  // one key per step.
  char chunk[512];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  input_ended_ = n == 0;  // end of input: the descriptor is not asked again
  if (n <= 0) return false;
  Feed(chunk + 1, static_cast<size_t>(n - 1));
  c = static_cast<unsigned char>(chunk[0]);
  return true;
}

int CLI_Editor::Update() {
  cli_.update_internal();
  maybe_save();
  if (shown_ && width() != last_cols_ && (cli_.status & CLI::kReading)) {
    // The terminal re-flowed the rows: find the cursor's row anew.
    const size_t cursor = cells(shown_prompt()) + cells(buf_, 0, pos_);
    rows_up_ = static_cast<unsigned int>(cursor / width());
    refresh();
  }
  if (cli_.status & CLI::kPrompt) {
    cli_.status = CLI::kReading;
    buf_.clear();
    pos_ = 0;
    hidx_ = -1;
    rows_up_ = 0;
    refresh();
    shown_ = true;
  } else if (cli_.status & CLI::kReading) {
    unsigned char c;
    if (next_byte(c)) key(c);
    if (redraw_due_ && pending_pos_ >= pending_.size()) draw();
  } else if (cli_.status & CLI::kExecute) {
    std::string text = buf_;
    if (line_filter_ && !text.empty() && !line_filter_(text)) text.clear();
    if (line_hook_ && !text.empty()) line_hook_(text);
    if (!text.empty() || buf_.empty()) cli_.parse(text);
    std::fflush(cli_._stdout);
    std::fflush(cli_._stderr);
    if (!history_path_.empty()) history_dirty_ = true;
    cli_.status = (cli_.status & CLI::kEnded) | CLI::kPrompt;
  }
  if (cli_.status & CLI::kEnded) return 4;
  if (cli_.status & CLI::kExecute) return 11;
  if (pending_pos_ < pending_.size()) return 11;
  const int fd = fileno(cli_._stdin);
  pollfd p{fd, POLLIN | POLLPRI, 0};
  if (!input_ended_ && fd >= 0 && poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLPRI))) return 11;
  return 0;
}

// One byte of input: escape sequences and UTF-8 are assembled first.
void CLI_Editor::key(unsigned char c) {
  const bool was_cr = after_cr_;
  after_cr_ = false;
  if (esc_ == 1) {
    if (c == '[') {
      esc_ = 2;
      esc_params_.clear();
      return;
    }
    if (c == 'O') {
      esc_ = 3;
      return;
    }
    esc_ = 0;
    if (c == 'b' || c == 'B' || c == 'f' || c == 'F' || c == 'd' || c == 'D') {
      escape_done(static_cast<char>(c | 0x20), "alt");
      return;
    }
    if (c >= 0x20 && c != 0x7F) return;  // an unknown Alt key
    // A cut sequence: the control key after it counts on its own.
  } else if (esc_ == 2) {
    if (c >= 0x40 && c <= 0x7E) {
      esc_ = 0;
      escape_done(static_cast<char>(c), esc_params_);
      return;
    }
    if (c >= 0x20 && c < 0x40) {
      // An overlong sequence is dropped up to its final byte.
      if (esc_params_.size() < kMaxEscape) esc_params_ += static_cast<char>(c);
      else esc_params_.assign(kMaxEscape + 1, '?');
      return;
    }
    esc_ = 0;  // cut: dropped, a control key counts on its own
    if (c >= 0x20) return;
  } else if (esc_ == 3) {
    esc_ = 0;
    if (c >= 0x40 && c <= 0x7E) {
      escape_done(static_cast<char>(c), "");
      return;
    }
    if (c >= 0x20) return;
  }
  if (c >= 0x80) {
    // UTF-8: a lead byte C2..F4 and its continuation bytes make one
    // character; anything out of order is dropped.
    if (continuation(c) && utf8_need_ != 0) {
      utf8_ += static_cast<char>(c);
      if (--utf8_need_ == 0) {
        const std::string ch = utf8_;
        utf8_.clear();
        if (searching_) {
          query_ += ch;
          search(search_dir_, false);
          refresh();
        } else {
          insert(ch);
        }
      }
      return;
    }
    utf8_.clear();
    utf8_need_ = 0;
    if (c >= 0xC2 && c <= 0xF4) {
      utf8_ = static_cast<char>(c);
      utf8_need_ = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
    }
    return;
  }
  if (utf8_need_ != 0) {
    utf8_.clear();
    utf8_need_ = 0;
  }
  if (c == '\n' && was_cr) return;
  if (c == 27) {
    esc_ = 1;
    return;
  }
  if (searching_) {
    search_key(c);
    return;
  }
  if (c >= 0x20 && c != 0x7F) {
    insert(std::string(1, static_cast<char>(c)));
    return;
  }
  if (c == '\r') after_cr_ = true;
  control(c);
}

void CLI_Editor::escape_done(char final, const std::string& params) {
  if (searching_) {
    // Any movement ends the search with its match in the line.
    searching_ = false;
    hidx_ = search_idx_;
    refresh();
  }
  if (params.size() > kMaxEscape) return;
  if (params == "alt") {
    if (final == 'b' || final == 'f' || final == 'd') {
      size_t p = pos_;
      if (final == 'b') {
        while (p > 0 && !word_byte(static_cast<unsigned char>(buf_[p - 1]))) --p;
        while (p > 0 && word_byte(static_cast<unsigned char>(buf_[p - 1]))) --p;
        p = prev_char(buf_, next_char(buf_, p));  // a character boundary
        if (p > pos_) p = pos_;
        move_to(p);
        return;
      }
      while (p < buf_.size() && !word_byte(static_cast<unsigned char>(buf_[p]))) ++p;
      while (p < buf_.size() && word_byte(static_cast<unsigned char>(buf_[p]))) ++p;
      if (final == 'f') move_to(p);
      else erase(pos_, p, true);
    }
    return;
  }
  // "1;5" and the like: a modifier; Ctrl or Alt with an arrow moves by words.
  const std::string first = params.substr(0, params.find(';'));
  const bool modified = params.find(';') != std::string::npos;
  switch (final) {
    case 'A': history_step(1); return;
    case 'B': history_step(-1); return;
    case 'C': modified ? escape_done('f', "alt") : move_to(next_char(buf_, pos_)); return;
    case 'D': modified ? escape_done('b', "alt") : move_to(prev_char(buf_, pos_)); return;
    case 'H': move_to(0); return;
    case 'F': move_to(buf_.size()); return;
    case '~':
      if (first == "1" || first == "7") move_to(0);
      else if (first == "4" || first == "8") move_to(buf_.size());
      else if (first == "3") erase(pos_, next_char(buf_, pos_), false);
      return;
    default: return;
  }
}

void CLI_Editor::control(unsigned char c) {
  switch (c) {
    case 1: move_to(0); break;                                 // Ctrl-A
    case 2: move_to(prev_char(buf_, pos_)); break;             // Ctrl-B
    case 3:                                                    // Ctrl-C
      set_line("");
      hidx_ = -1;
      break;
    case 4:                                                    // Ctrl-D
      if (!buf_.empty()) {
        erase(pos_, next_char(buf_, pos_), false);
      } else if (end_on_eof_) {
        out("\r\n");
        shown_ = false;
        cli_.status |= CLI::kEnded;
      }
      break;
    case 5: move_to(buf_.size()); break;                       // Ctrl-E
    case 6: move_to(next_char(buf_, pos_)); break;             // Ctrl-F
    case 8:
    case 127: erase(prev_char(buf_, pos_), pos_, false); break;
    case 9: complete(); break;
    case 10:
    case 13: enter(); break;
    case 11: erase(pos_, buf_.size(), true); break;            // Ctrl-K
    case 12:                                                   // Ctrl-L
      out("\x1b[H\x1b[2J");
      rows_up_ = 0;
      refresh();
      break;
    case 14: history_step(-1); break;                          // Ctrl-N
    case 16: history_step(1); break;                           // Ctrl-P
    case 18:                                                   // Ctrl-R, Ctrl-S
    case 19:
      searching_ = true;
      search_dir_ = c == 18 ? 1 : -1;
      query_.clear();
      search_saved_ = buf_;
      search_idx_ = hidx_;
      search_failed_ = false;
      refresh();
      break;
    case 20: {                                                 // Ctrl-T
      if (pos_ == 0 || buf_.size() < 2) break;
      size_t at = pos_ == buf_.size() ? prev_char(buf_, pos_) : pos_;
      if (at == 0) break;
      const size_t before = prev_char(buf_, at), after = next_char(buf_, at);
      const std::string a = buf_.substr(before, at - before), b = buf_.substr(at, after - at);
      buf_.replace(before, after - before, b + a);
      pos_ = after;
      refresh();
      break;
    }
    case 21: erase(0, pos_, true); break;                      // Ctrl-U
    case 23: {                                                 // Ctrl-W
      size_t p = pos_;
      while (p > 0 && buf_[p - 1] == ' ') --p;
      while (p > 0 && buf_[p - 1] != ' ') --p;
      erase(p, pos_, true);
      break;
    }
    case 25: insert(yank_); break;                             // Ctrl-Y
    default: break;                                            // other controls: ignored
  }
}

// ----------------------------------------------------------- line changes

void CLI_Editor::insert(const std::string& typed) {
  const std::string text = editable(typed, kMaxLine);
  if (text.empty()) return;
  if (buf_.size() + text.size() > kMaxLine) {
    if (!rang_) out("\a");  // once for a run of refused keys
    rang_ = true;
    return;
  }
  rang_ = false;
  const bool at_end = pos_ == buf_.size();
  buf_.insert(pos_, text);
  pos_ += text.size();
  const size_t total = cells(cli_.iw_prompt) + cells(buf_);
  if (at_end && total % width() != 0 && !redraw_due_) {
    // Typing at the end of the line: the text itself is all that changes.
    out(text);
    rows_up_ = static_cast<unsigned int>(total / width());
    return;
  }
  refresh();
}

void CLI_Editor::erase(size_t from, size_t to, bool keep) {
  if (from >= to) return;
  if (keep) yank_ = buf_.substr(from, to - from);
  buf_.erase(from, to - from);
  pos_ = from;
  refresh();
}

void CLI_Editor::move_to(size_t p) {
  if (p == pos_) return;
  pos_ = p;
  refresh();
}

void CLI_Editor::set_line(const std::string& text) {
  buf_ = editable(text, kMaxLine);
  pos_ = buf_.size();
  refresh();
}

// Up (1) to older entries, down (-1) back to the line being typed.
void CLI_Editor::history_step(int direction) {
  const long n = static_cast<long>(cli_.history.size());
  const long to = hidx_ + direction;
  if (to < -1 || to >= n) return;
  if (hidx_ == -1) typed_ = buf_;
  hidx_ = to;
  set_line(to == -1 ? typed_ : *std::next(cli_.history.begin(), to));
}

void CLI_Editor::search(int direction, bool skip_current) {
  const long n = static_cast<long>(cli_.history.size());
  long i = search_idx_;
  if (i < 0 && direction < 0) {
    search_failed_ = true;
    return;
  }
  if (i < 0) i = 0;
  else if (skip_current) i += direction;
  for (; i >= 0 && i < n; i += direction) {
    const std::string& entry = *std::next(cli_.history.begin(), i);
    const size_t at = entry.find(query_);
    if (at != std::string::npos) {
      search_idx_ = i;
      buf_ = editable(entry, kMaxLine);
      pos_ = std::min(at, buf_.size());  // dropped bytes may have moved it: a character boundary
      while (pos_ > 0 && pos_ < buf_.size() && continuation(static_cast<unsigned char>(buf_[pos_]))) --pos_;
      search_failed_ = false;
      return;
    }
  }
  search_failed_ = true;
}

void CLI_Editor::search_key(unsigned char c) {
  if (c == 0) return;
  switch (c) {
    case 18:
    case 19:
      search_dir_ = c == 18 ? 1 : -1;
      search(search_dir_, true);
      refresh();
      return;
    case 8:
    case 127:
      if (!query_.empty()) query_.erase(prev_char(query_, query_.size()));
      search_idx_ = hidx_;
      buf_ = search_saved_;
      pos_ = buf_.size();
      search_failed_ = false;
      if (!query_.empty()) search(search_dir_, false);
      refresh();
      return;
    case 3:
    case 7:  // Ctrl-C, Ctrl-G: back to the line as it was
      searching_ = false;
      buf_ = search_saved_;
      pos_ = buf_.size();
      refresh();
      return;
    default:
      break;
  }
  if (c >= 0x20 && c != 0x7F) {
    query_ += static_cast<char>(c);
    search(search_dir_, false);
    refresh();
    return;
  }
  // Any other key ends the search with its match and then counts as itself.
  searching_ = false;
  hidx_ = search_idx_;
  refresh();
  if (c == '\r') after_cr_ = true;
  control(c);
}

void CLI_Editor::enter() {
  pos_ = buf_.size();
  refresh();
  out("\r\n");
  shown_ = false;
  rows_up_ = 0;
  cli_.status = (cli_.status & ~CLI::kReading) | CLI::kExecute;
}

// ------------------------------------------------------------ completion

void CLI_Editor::SetCompleter(const std::string& command, Completer completer) {
  completers_[command] = std::move(completer);
}

void CLI_Editor::complete() {
  size_t start = pos_;
  while (start > 0 && buf_[start - 1] != ' ') --start;
  const std::string partial = buf_.substr(start, pos_ - start);
  std::vector<std::string> before;
  for (size_t i = 0; i < start;) {
    const size_t blank = std::min(buf_.find(' ', i), start);
    if (blank > i) before.push_back(buf_.substr(i, blank - i));
    i = blank + 1;
  }
  std::vector<std::string> all;
  if (before.empty()) {
    // The commands the session may run, as help lists them.
    for (auto& item : cli_._cmap) if (item.second->internal && cli_.Permitted({item.first})) all.push_back(item.first);
    for (auto& item : *cli_.cmap) if (!item.second->internal && cli_.Permitted({item.first})) all.push_back(item.first);
  } else {
    auto it = completers_.find(before.front());
    if (it != completers_.end() && it->second) {
      all = it->second(before, partial);
    } else if (CLI::CLI_cmd_map_entry* e = cli_.find_command(before.front())) {
      if (before.size() == 1) for (auto& item : e->cmap) all.push_back(item.first);
    }
  }
  std::vector<std::string> found;
  for (auto& a : all) {
    if (a.compare(0, partial.size(), partial) == 0) found.push_back(a);
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  if (found.empty()) {
    out("\a");
    return;
  }
  size_t common = found.front().size();
  for (auto& f : found) {
    size_t i = 0;
    while (i < common && i < f.size() && f[i] == found.front()[i]) ++i;
    common = i;
  }
  while (common > partial.size() && common < found.front().size() &&
         continuation(static_cast<unsigned char>(found.front()[common]))) {
    --common;  // never half a character
  }
  if (found.size() == 1) {
    const std::string& f = found.front();
    const bool folder = !f.empty() && f.back() == '/';
    insert(f.substr(partial.size()) + (folder ? "" : " "));
    return;
  }
  if (common > partial.size()) {
    insert(found.front().substr(partial.size(), common - partial.size()));
    return;
  }
  // Nothing to add: the candidates below the line, then the line again.
  const size_t total = cells(cli_.iw_prompt) + cells(buf_);
  const size_t down = total / width() - rows_up_;
  out((down != 0 ? csi(static_cast<unsigned int>(down), 'B') : std::string()) + "\r\n");
  const size_t more = list_limit_ != 0 && found.size() > list_limit_ ? found.size() - list_limit_ : 0;
  found.resize(found.size() - more);
  cli_.print_in_columns(found, 0);
  if (more != 0) std::fprintf(cli_._stdout, "... %zu more\r\n", more);
  std::fflush(cli_._stdout);
  rows_up_ = 0;
  refresh();
}

// ---------------------------------------------------------------- help

void CLI_Editor::SetLevelTexts(const std::string& command, LevelTexts texts) {
  levels_[command] = std::move(texts);
}

int CLI_Editor::Help(int argc, const char** argv) {
  FILE* o = cli_._stdout;
  if (argc <= 1) {
    std::vector<std::pair<std::string, std::string>> rows;
    // Built-ins first, then the commands of the current level.
    for (int pass = 0; pass < 2; ++pass) {
      for (auto& item : pass == 0 ? cli_._cmap : *cli_.cmap) {
        if (item.second->internal != (pass == 0) || !cli_.Permitted({item.first})) continue;
        const auto h = split_help(item.first, item.second->cmd_help);
        rows.emplace_back(item.first, h.second.empty() ? h.first : h.second);
      }
    }
    size_t w = 0;
    for (auto& r : rows) w = std::max(w, r.first.size());
    std::string text;
    for (auto& r : rows) text += wrapped("  " + r.first + std::string(w + 2 - r.first.size(), ' '), r.second, width());
    text += "help COMMAND explains one command.\r\n";
    std::fputs(text.c_str(), o);
    std::fflush(o);
    return 0;
  }
  int result = 0;
  for (int i = 1; i < argc; ++i) {
    CLI::CLI_cmd_map_entry* e = cli_.find_command(argv[i]);
    if (e == nullptr || !cli_.Permitted({argv[i]})) {  // what the session cannot run is not shown
      std::fprintf(cli_._stderr, "Unknown command: %s\r\n", argv[i]);
      std::fflush(cli_._stderr);
      result = 1;
      continue;
    }
    const auto h = split_help(argv[i], e->cmd_help);
    std::string text = wrapped("usage: ", h.first, width());
    if (!h.second.empty()) text += wrapped("  ", h.second, width());
    if (!e->cmap.empty()) {
      std::string subs;
      for (auto& item : e->cmap) subs += " " + item.first;
      text += wrapped("  sub-commands:", subs, width());
    }
    auto lv = levels_.find(argv[i]);
    const LevelTexts rows = lv != levels_.end() ? lv->second : derived_levels(cli_.levels_, argv[i], level_names_);
    size_t w = 0;
    for (auto& l : rows) w = std::max(w, l.first.size());
    for (auto& l : rows) text += wrapped("  " + l.first + std::string(w + 2 - l.first.size(), ' '), l.second, width());
    std::fputs(text.c_str(), o);
  }
  std::fflush(o);
  return result;
}

// ------------------------------------------------------------ history file

bool CLI_Editor::SetHistoryFile(const std::string& path, size_t limit, unsigned int every_s,
                                std::string* error) {
  history_path_.clear();
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    if (error != nullptr) *error = path + ": not a regular file";
    return false;
  }
  errno = 0;
  std::ifstream in(path);
  if (!in && errno != ENOENT) {
    if (error != nullptr) *error = path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) {
    if (!l.empty() && l.back() == '\r') l.pop_back();
    if (!l.empty()) lines.push_back(l);
  }
  if (in.bad()) {
    if (error != nullptr) *error = path + ": read error";
    return false;
  }
  if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<long>(limit));
  for (auto& l : lines) cli_.remember(l);
  history_path_ = path;
  history_limit_ = limit;
  save_every_ = every_s;
  last_save_ = std::time(nullptr);
  return true;
}

bool CLI_Editor::SaveHistory() {
  if (history_path_.empty()) return false;
  // Oldest first, the newest `history_limit_` entries.
  const size_t n = std::min(history_limit_, cli_.history.size());
  std::string text;
  auto it = std::next(cli_.history.begin(), static_cast<long>(n));
  while (it != cli_.history.begin()) text += *--it + "\n";
  // Replaced as a whole (a crash or a full disk leaves the old file), and
  // private whatever the umask and the old file's mode.
  const bool ok = zqdetail::write_file_atomically(history_path_, text, 0600, true);
  history_dirty_ = !ok;
  last_save_ = std::time(nullptr);
  return ok;
}

void CLI_Editor::maybe_save() {
  if (history_dirty_ && save_every_ != 0 && std::time(nullptr) - last_save_ >= save_every_) SaveHistory();
}
