// Command interpreter: registry, prompt, substitution, parsing and line editing.
#include "zqcommon/cli.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "zqcommon/cli_editor.h"
#include "zqcommon/functions.h"

namespace {
constexpr size_t kMaxWords = 100;
}

namespace zqdetail {

// The shortest name in `names` (sorted) of at least `min` characters that
// `text` holds at `at`, within the text; null when there is none. Names that
// share the first d characters of the text form one range of the sorted list,
// the one of exactly d characters first; each character narrows that range
// by a binary search on the names' character d.
const std::string* shortest_name_at(const std::vector<const std::string*>& names,
                                    const std::string& text, size_t at, size_t min) {
  auto lo = names.begin(), hi = names.end();
  for (size_t d = 0; lo != hi; ++d) {
    if (d >= min && d > 0 && (*lo)->size() == d) return *lo;
    if (at + d >= text.size()) return nullptr;
    if ((*lo)->size() == d) ++lo;  // shorter than wanted: past it
    const auto c = static_cast<unsigned char>(text[at + d]);
    auto char_at = [d](const std::string* s) { return static_cast<unsigned char>((*s)[d]); };
    lo = std::lower_bound(lo, hi, c, [&](const std::string* s, unsigned char v) { return char_at(s) < v; });
    hi = std::upper_bound(lo, hi, c, [&](unsigned char v, const std::string* s) { return v < char_at(s); });
  }
  return nullptr;
}

}  // namespace zqdetail

CLI::CLI(FILE* in, FILE* out, FILE* err, unsigned int) : _stdin(in), _stdout(out), _stderr(err) {
  // Without its streams (fopen() failing when descriptors run out) the
  // session is ended from the start: update() answers 4 and touches nothing.
  if (_stdin == nullptr || _stdout == nullptr || _stderr == nullptr) status = kEnded;
  if (_stdin != nullptr && tcgetattr(fileno(_stdin), &old_termio) == 0) {
    termio_saved_ = true;
    new_termio = old_termio;
    new_termio.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    tcsetattr(fileno(_stdin), TCSANOW, &new_termio);
  }
  update_internal();
  static const struct {
    const char* name;
    CLI_func cb;
    const char* help;
  } kBuiltins[] = {
      {"help", cmd_help, "Usage: help [command]"},
      {"set", cmd_set, "Usage: set [var=value]"},
      {"unset", cmd_unset, "Usage: set [var=value]"},
      {"echo", cmd_echo, "Usage: echo [-n] [expression]"},
      {"history", cmd_history, "Usage: history [-c]"},
      {"quit", cmd_quit, "Will quit current command."},
      {"exit", cmd_quit, "Will end the CLI session."},
  };
  for (const auto& b : kBuiltins) {
    if (CLI_cmd_map_entry* e = register_core(b.cb, this, b.name, nullptr, b.help)) e->internal = true;
  }
  vars["VERSION"] = "0.1";
  vars["_"] = "";
  vars["cmdline"] = "";
}

CLI::~CLI() {
  editor_.reset();
  if (termio_saved_) tcsetattr(fileno(_stdin), TCSANOW, &old_termio);
}

// ------------------------------------------------------------- registry

bool CLI::Register(CLI_func cb, void* arg, const std::string& name, CLI_func parent,
                   const std::string& help) {
  return register_core(cb, arg, name, parent, help) != nullptr;
}

CLI::CLI_cmd_map_entry* CLI::register_core(CLI_func cb, void* arg, const std::string& name,
                                           CLI_func parent, const std::string& help) {
  if (cb == nullptr) return nullptr;
  cmd_map* target = &_cmap;
  if (parent != nullptr) {
    CLI_cmd_map_entry* p = find_command_recursive(parent);
    if (p == nullptr) return nullptr;
    target = &p->cmap;
  }
  if (target->count(name) != 0) return nullptr;
  auto entry = std::make_unique<CLI_cmd_map_entry>();
  entry->cb = cb;
  entry->arg = arg;
  entry->cmd_help = help;
  entry->parent_map = target == &_cmap ? nullptr : target;
  auto it = target->emplace(name, entry.get()).first;
  entry->name = &it->first;
  entries_.push_back(std::move(entry));
  return it->second;
}

CLI::CLI_cmd_map_entry* CLI::find_command(const std::string& name) {
  auto it = _cmap.find(name);
  if (it != _cmap.end()) return it->second;
  if (cmap != &_cmap && !cmap->empty()) {
    it = cmap->find(name);
    if (it != cmap->end()) return it->second;
  }
  return nullptr;
}

CLI::CLI_cmd_map_entry* CLI::find_command(CLI_func cb, cmd_map* map) {
  if (map == nullptr) return nullptr;
  for (auto& item : *map) {
    if (item.second->cb == cb) return item.second;
  }
  return nullptr;
}

CLI::CLI_cmd_map_entry* CLI::find_command_recursive(CLI_func cb) {
  auto search = [this, cb](cmd_map* map) -> CLI_cmd_map_entry* {
    for (auto& item : *map) {
      if (item.second->cb == cb) return item.second;
      if (CLI_cmd_map_entry* child = find_command(cb, &item.second->cmap)) return child;
    }
    return nullptr;
  };
  if (CLI_cmd_map_entry* e = search(&_cmap)) return e;
  if (cmap != &_cmap && !cmap->empty()) return search(cmap);
  return nullptr;
}

// The entry whose sub-level is `map`, searched from `within` downwards.
CLI::CLI_cmd_map_entry* CLI::owner_of(cmd_map* map, cmd_map* within) {
  for (auto& item : *within) {
    if (&item.second->cmap == map) return item.second;
    if (CLI_cmd_map_entry* e = owner_of(map, &item.second->cmap)) return e;
  }
  return nullptr;
}

std::string CLI::path_to_command(CLI_cmd_map_entry* entry) {
  if (entry == nullptr || entry->parent_map == nullptr) return "/";
  CLI_cmd_map_entry* owner = owner_of(entry->parent_map, &_cmap);
  if (owner == nullptr) return "/";
  const std::string above = path_to_command(owner);
  return (above == "/" ? above : above + "/") + *owner->name;
}

void CLI::SetHistoryLimit(size_t n) {
  history_limit_ = n;
  while (history.size() > history_limit_) history.pop_back();
}

void CLI::remember(const std::string& text) {
  if (history_limit_ == 0) return;
  history.push_front(text);
  while (history.size() > history_limit_) history.pop_back();
  if (session_limit_ == 0) return;
  size_t total = SessionBytes();
  while (total > session_limit_ && history.size() > 1) {  // the oldest go first
    total -= history.back().size();
    history.pop_back();
  }
}

void CLI::SetLimits(size_t line_bytes, size_t session_bytes) {
  line_limit_ = line_bytes;
  session_limit_ = session_bytes;
}

size_t CLI::SessionBytes() const {
  size_t total = 0;
  for (const auto& v : vars) total += v.first.size() + v.second.size();
  for (const auto& h : history) total += h.size();
  return total;
}

bool CLI::FitsSession(size_t more) const {
  return session_limit_ == 0 || SessionBytes() + more <= session_limit_;
}

// ------------------------------------------------------- prompt and lines

void CLI::update_internal() {
  iw_prompt.clear();
  for (std::string::size_type i = 0; i < sw_prompt.size(); ++i) {
    const char c = sw_prompt[i];
    if (c != '%') {
      iw_prompt += c;
      continue;
    }
    if (i + 1 >= sw_prompt.size()) break;  // a '%' at the very end is dropped
    const char e = sw_prompt[++i];
    switch (e) {
      case 'm': iw_prompt += appname; break;
      case 'p': iw_prompt += path_to_command(curr_cmd); break;
      case '#': iw_prompt += getuid() == 0 ? '#' : '>'; break;
      default:
        iw_prompt += '%';
        iw_prompt += e;
    }
  }
  get_winsize();
}

// The long-standing substitution rules, quirks included: the shortest prefix
// naming a variable wins, matching goes on with the same length after a
// substitution, and the character after the last name (or, for an unknown
// name, after the '$') is dropped. The names are searched by narrowing a
// sorted range one character at a time, so each '$' costs the length of the
// longest name it could match, not the rest of the line.
void CLI::substitute_vars() {
  overflow_ = false;
  const std::string::size_type len = line.size();
  if (line.find('$') == std::string::npos) {
    overflow_ = line_limit_ != 0 && len > line_limit_;
    return;
  }
  std::vector<const std::string*> names;
  names.reserve(vars.size());
  for (const auto& v : vars) names.push_back(&v.first);
  std::string out;
  std::string::size_type i = 0;
  auto full = [&out, this] { return line_limit_ != 0 && out.size() > line_limit_; };
  while (i < len && !full()) {
    if (line[i] != '$') {
      const auto next = std::min(line.find('$', i), len);
      out.append(line, i, next - i);
      i = next;
      continue;
    }
    if (i + 1 >= len) break;
    if (line[i + 1] == '$') {
      out += '$';
      i += 2;
      continue;
    }
    if (line[i + 1] == '?') {
      out += std::to_string(retcode);
      i += 2;
      continue;
    }
    std::string::size_type p = i + 1, n = 1;
    while (!full()) {
      const std::string* name = zqdetail::shortest_name_at(names, line, p, n);
      if (name == nullptr) break;
      out += vars.find(*name)->second;
      p += n = name->size();
    }
    i = p + 1;
  }
  overflow_ = full();
  line = out;
}

bool CLI::parse(std::string& text) {
  chop(text);
  line = text;
  substitute_vars();
  if (overflow_) {
    std::fprintf(_stderr, "line refused: longer than %zu bytes after substitution\r\n", line_limit_);
    line.clear();
    text.clear();
    return false;
  }
  trim(line);
  text = line;
  if (line.empty()) return true;
  vars["_"] = vars["cmdline"];
  vars["cmdline"] = line;
  remember(line);

  std::vector<std::string> words;
  std::string::size_type start = 0;
  while (words.size() < kMaxWords) {
    const auto blank = line.find(' ', start);
    if (blank == std::string::npos || words.size() + 1 == kMaxWords) {
      words.push_back(line.substr(start));
      break;
    }
    words.push_back(line.substr(start, blank - start));
    start = blank + 1;
  }
  std::vector<const char*> argv;
  for (const auto& w : words) argv.push_back(w.c_str());
  argv.push_back(nullptr);

  CLI_cmd_map_entry* e = find_command(words[0]);
  if (e == nullptr) {
    std::fprintf(StdErr(), "%s: command not found\r\n", words[0].c_str());
    return false;
  }
  if (!Permitted(words)) {
    std::fprintf(StdErr(), "%s: not permitted for this session\r\n", words[0].c_str());
    retcode = 1;
    return true;
  }
  if (!e->cmap.empty()) cmap = &e->cmap;
  curr_cmd = e;
  int r = 1;
  // A command that throws answers with one line; the session goes on.
  try {
    r = e->cb(e->arg, static_cast<int>(words.size()), argv.data());
  } catch (const std::exception& x) {
    std::fprintf(_stderr, "%s: failed: %s\r\n", words[0].c_str(), x.what());
  } catch (...) {
    std::fprintf(_stderr, "%s: failed\r\n", words[0].c_str());
  }
  if (!e->internal) retcode = r;
  return true;
}

// ------------------------------------------------------------ line editing

char CLI::get_char() {
  char c = 0;
  if (::read(fileno(_stdin), &c, 1) != 1) return 0;
  return c;
}

void CLI::echo_byte(char c) {
  const ssize_t ignored = ::write(fileno(_stdout), &c, 1);
  (void)ignored;
}

void CLI::redraw() {
  std::fprintf(_stdout, "\r%s%s\x1b[K", iw_prompt.c_str(), line.c_str());
  std::fflush(_stdout);
}

int CLI::update_all() {
  int r;
  while ((r = update()) == 11 || (r == 0 && (status & (kPrompt | kExecute)))) {
  }
  return r;
}

int CLI::update() {
  if (status & kEnded) return 4;
  if (editor_) return editor_->Update();
  update_internal();
  int result = 0;
  if (status & kPrompt) {
    std::fputs(iw_prompt.c_str(), _stdout);
    std::fflush(_stdout);
    status &= ~kPrompt;
    status |= kReading;
    hpos = 0;
    line.clear();
  } else if (status & kEscape) {
    if (get_char() == '[') {
      const char key = get_char();
      if (key == 'A') {
        if (!history.empty()) {
          if (hpos == 0 && !line.empty()) remember(line);
          ++hpos;
          if (hpos >= history.size()) hpos = static_cast<unsigned int>(history.size() - 1);
          line = *std::next(history.begin(), hpos);
          redraw();
        }
      } else if (key == 'B') {
        if (hpos != 0) {
          --hpos;
          line = *std::next(history.begin(), hpos);
          redraw();
        }
      } else {
        char seq[3] = {'\x1b', '[', key};
        if (key == '1') seq[2] = get_char();
        const ssize_t ignored = ::write(fileno(_stdout), seq, 3);
        (void)ignored;
      }
    }
    status &= ~kEscape;
  } else if (status & kReading) {
    const char c = get_char();
    switch (c) {
      case 12:
        std::fprintf(_stdout, "\f%s%s", iw_prompt.c_str(), line.c_str());
        std::fflush(_stdout);
        break;
      case 27:
        status |= kEscape;
        result = 11;
        break;
      case 9:
        expand();
        redraw();
        break;
      case 8:
      case 127:
        if (!line.empty()) {
          line.pop_back();
          echo_byte(c);
        }
        break;
      case 10:
      case 13:
        status |= kExecute;
        status &= ~kReading;
        result = 11;
        echo_byte(c);
        line += c;
        break;
      default:
        echo_byte(c);
        line += c;
    }
  } else if (status & kExecute) {
    std::string text = line;
    parse(text);
    status &= ~kExecute;
    status |= kPrompt;
  }
  if (result == 0) {
    pollfd p{fileno(_stdin), POLLIN | POLLPRI, 0};
    if (poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLPRI))) result = 11;
  }
  return result;
}

void CLI::expand() {
  std::string word;
  const auto blank = line.rfind(' ');
  if (blank == std::string::npos) {
    word = line;
    line.clear();
  } else {
    word = line.substr(blank + 1);
    line.erase(blank + 1);
  }
  std::vector<std::string> candidates;
  for (auto& item : _cmap) {
    if (item.second->internal && item.first.compare(0, word.size(), word) == 0) {
      candidates.push_back(item.first);
    }
  }
  for (auto& item : *cmap) {
    if (!item.second->internal && item.first.compare(0, word.size(), word) == 0) {
      candidates.push_back(item.first);
    }
  }
  if (candidates.size() == 1) {
    line += candidates.front();
    return;
  }
  std::fputs("\r\n", _stdout);
  print_in_columns(candidates, 0);
  line += word;
}

unsigned int CLI::print_in_columns(const std::vector<std::string>& items, unsigned int width) {
  if (items.empty()) return width;
  if (width == 0) {
    for (const auto& item : items) {
      if (item.size() <= cols && item.size() > width) width = static_cast<unsigned int>(item.size());
    }
    if (width == 0) {
      for (const auto& item : items) std::fprintf(_stdout, "%s\r\n", item.c_str());
      return 0;
    }
    width += 2;
    while (width < cols && cols % width != 0) ++width;
    if (width > cols) width = cols;  // a wider column never divides the line
  }
  unsigned int total = 0;
  for (const auto& item : items) {
    std::fprintf(_stdout, "%-*s", static_cast<int>(width), item.c_str());
    total += width;
    if (total >= cols) {
      std::fputs("\r\n", _stdout);
      total = 0;
    }
  }
  if (total != 0) std::fputs("\r\n", _stdout);
  return width;
}

CLI_Editor* CLI::EnableEditing() {
  if (!editor_) {
    editor_ = std::make_unique<CLI_Editor>(*this);
    // An editing session's texts all go to its own streams.
    if (std_out_ == nullptr) std_out_ = _stdout;
    if (std_err_ == nullptr) std_err_ = _stderr;
    if (termio_saved_) {
      new_termio.c_iflag &= static_cast<tcflag_t>(~IXON);
      new_termio.c_lflag &= static_cast<tcflag_t>(~ISIG);
      tcsetattr(fileno(_stdin), TCSANOW, &new_termio);
    }
  }
  return editor_.get();
}

void CLI::get_winsize() {
  winsize ws{};
  if (_stdout != nullptr && ioctl(fileno(_stdout), TIOCGWINSZ, &ws) == 0 && ws.ws_col != 0) {
    rows = ws.ws_row;
    cols = ws.ws_col;
  } else {
    rows = 24;
    cols = 80;
  }
}
