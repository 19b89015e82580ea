// Full line editing for the command interpreter, switched on per interpreter.
#ifndef ZQCOMMON_CLI_EDITOR_H
#define ZQCOMMON_CLI_EDITOR_H

#include <zqcommon/export.h>

#include <cstddef>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

class CLI;

// The line editor a CLI hands its keys to once CLI::EnableEditing() was
// called. It reads the same input the interpreter reads (its descriptor, or
// bytes given with Feed() for sessions whose stream the application reads
// itself, such as TLS connections), handles one key per CLI::update() step
// and never waits for input.
//
// Keys: printable text (UTF-8, one character per code point) is inserted at
// the cursor; Left/Right, Ctrl-B/F, Home/End (Ctrl-A/E and the terminals'
// escape forms), Alt-B/F word moves, Backspace, Delete, Ctrl-D, Ctrl-K/U/W
// (kept for Ctrl-Y), Ctrl-T, Ctrl-L, Up/Down and Ctrl-P/N through the
// history, Ctrl-R/S incremental search, Tab completion, Ctrl-C clears the
// line; Ctrl-D on an empty line ends the session when SetEndOnEof(true).
// Lines longer than 4095 bytes are refused with a bell; invalid UTF-8 bytes,
// unknown or cut escape sequences are dropped.
//
// Owned by its CLI and driven by the thread that drives it; nothing is
// locked. Output goes to the CLI's output stream.
class ZQ_EXPORT CLI_Editor {
 public:
  // The candidates for `partial`, the word being completed, given the words
  // before it on the line (the command word first). Candidates need not
  // start with `partial`: the editor keeps those that do.
  typedef std::function<std::vector<std::string>(const std::vector<std::string>& before,
                                                 const std::string& partial)>
      Completer;
  // What each privilege level may do with a command, for `help COMMAND`:
  // (level name, text) in the order shown.
  typedef std::vector<std::pair<std::string, std::string>> LevelTexts;

  static constexpr size_t kMaxLine = 4095;

  explicit CLI_Editor(CLI& cli);
  ~CLI_Editor();
  CLI_Editor(const CLI_Editor&) = delete;
  CLI_Editor& operator=(const CLI_Editor&) = delete;

  // Ctrl-D on an empty line ends the session (for network sessions).
  void SetEndOnEof(bool on) { end_on_eof_ = on; }
  // The width used to lay out lines; 0 (the default) asks the terminal and
  // falls back to 80 columns.
  void SetColumns(unsigned int columns) { columns_ = columns; }
  // Keys from a stream the interpreter does not read itself; they are taken
  // before the descriptor's.
  void Feed(const char* data, size_t n);

  // Keeps the history in `path` (at most `limit` entries, the newest): loads
  // it now, writes it every `every_s` seconds after a change (0: only on
  // SaveHistory() and destruction). The file is created with mode 0600 and
  // replaced atomically. False (with the reason in `error`) when an existing
  // file cannot be read; the file is then left alone and never written.
  bool SetHistoryFile(const std::string& path, size_t limit, unsigned int every_s, std::string* error = nullptr);
  // Writes the history file now; false when it cannot (no file set, or a
  // write failure).
  bool SaveHistory();

  // Registers the completer for the arguments of the root command `command`
  // (replacing an earlier one).
  void SetCompleter(const std::string& command, Completer completer);
  // The texts `help COMMAND` shows for each privilege level; they replace
  // the rows derived from the level names below.
  void SetLevelTexts(const std::string& command, LevelTexts texts);
  // Names of the interpreter's access levels (CLI::SetCommandLevel), by
  // number. With them, `help COMMAND` for a command the rules mention shows
  // one row per named level, lowest first, derived from those rules: "all
  // of it", "all but" the words the level does not reach, or "none of it".
  // Whatever the names, `help` lists only the commands the session's level
  // reaches and answers for any other as for an unknown command.
  void SetLevelNames(std::map<int, std::string> names) { level_names_ = std::move(names); }

  // Called with every finished line before it runs (for an audit log).
  void SetLineHook(std::function<void(const std::string&)> hook) { line_hook_ = std::move(hook); }
  // Opt-in: called with every finished line before the line hook; when it
  // answers false the line is neither run, nor passed to the hook, nor kept
  // in the history (a password typed where a command was expected).
  void SetLineFilter(std::function<bool(const std::string&)> filter) { line_filter_ = std::move(filter); }

  // Opt-in bounds for a peer that may not be trusted (off by default):
  // with `batch_redraw`, keys that only move the cursor or change the line
  // while more keys wait in Feed()'s buffer leave the redraw to the last of
  // them, so a burst of keys costs one line's redraw instead of one per
  // key; `list_limit` (0: all) caps the candidates a Tab lists below the
  // line, the rest counted in one line "... N more".
  void SetOutputBounds(bool batch_redraw, size_t list_limit) {
    batch_redraw_ = batch_redraw;
    list_limit_ = list_limit;
  }

  // Prints `text` (one or more lines) above the prompt, then redraws the
  // prompt, the line being edited and its cursor.
  void Message(const std::string& text);

  // The line being edited and the cursor (a byte offset at a character
  // boundary).
  const std::string& Line() const { return buf_; }
  size_t Cursor() const { return pos_; }

  // One step of CLI::update() in editing mode (same results).
  int Update();
  // The `help` built-in in editing mode.
  int Help(int argc, const char** argv);

 private:
  bool next_byte(unsigned char& c);
  void key(unsigned char c);
  void escape_done(char final, const std::string& params);
  void control(unsigned char c);
  void insert(const std::string& text);
  void erase(size_t from, size_t to, bool keep);
  void move_to(size_t p);
  void set_line(const std::string& text);
  void history_step(int direction);
  void search_key(unsigned char c);
  void search(int direction, bool skip_current);
  void complete();
  void enter();
  void refresh();
  void draw();
  void clear_rows();
  void out(const std::string& text);
  unsigned int width() const;
  std::string shown_prompt() const;
  void maybe_save();

  CLI& cli_;
  std::string buf_;           // the line, valid UTF-8
  size_t pos_ = 0;            // cursor, a byte offset
  std::string yank_;          // the last killed text
  std::string pending_;       // keys given with Feed()
  size_t pending_pos_ = 0;    // the next of them
  bool input_ended_ = false;  // the descriptor reached its end
  bool rang_ = false;         // the bell told of a full line
  std::string utf8_;          // a character being received
  size_t utf8_need_ = 0;      // its missing continuation bytes
  int esc_ = 0;               // 0 none, 1 after ESC, 2 in "ESC [", 3 after "ESC O"
  std::string esc_params_;
  bool after_cr_ = false;     // a LF right after a CR is the same Enter
  long hidx_ = -1;            // history entry shown, -1: the line being typed
  std::string typed_;         // the line being typed while the history is shown
  bool searching_ = false;
  int search_dir_ = 1;        // 1 older, -1 newer
  std::string query_;
  std::string search_saved_;
  long search_idx_ = -1;
  bool search_failed_ = false;
  unsigned int rows_up_ = 0;  // rows between the prompt's first row and the cursor
  unsigned int last_cols_ = 0;
  bool shown_ = false;        // the prompt is on the screen
  bool end_on_eof_ = false;
  unsigned int columns_ = 0;
  std::map<std::string, Completer> completers_;
  std::function<void(const std::string&)> line_hook_;
  std::function<bool(const std::string&)> line_filter_;
  bool batch_redraw_ = false;
  bool redraw_due_ = false;   // a redraw left to the last key of a burst
  size_t list_limit_ = 0;
  std::map<std::string, LevelTexts> levels_;
  std::map<int, std::string> level_names_;
  std::string history_path_;
  size_t history_limit_ = 0;
  unsigned int save_every_ = 0;
  bool history_dirty_ = false;
  std::time_t last_save_ = 0;
};

#endif
