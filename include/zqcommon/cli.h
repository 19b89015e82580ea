// An interactive command interpreter on a terminal or the streams of a connection.
#ifndef ZQCOMMON_CLI_H
#define ZQCOMMON_CLI_H

#include <termios.h>

#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zqcommon/export.h"

class CLI_Editor;

// A command: its registration argument, the word count and the words (the
// first is the command word). The result becomes $? unless the command is a
// built-in.
typedef int (*CLI_func)(void* arg, int argc, const char** argv);

// A small command interpreter driven by polling. The application registers
// commands (optionally as sub-commands of others), then calls update()
// whenever input is readable (or it returned 11): each call shows the prompt,
// handles one key, or runs the finished line. Keys are edited on a terminal
// put into non-canonical mode without echo by the constructor and restored by
// the destructor; on other descriptors (pipes, sockets) nothing is changed.
//
// Built-ins at the root: help, set, unset, echo, history, quit, exit.
// Variables are substituted with the long-standing rules ($NAME, $$, $?).
// The history keeps the newest entries (1000 by default). One thread drives
// an interpreter; nothing is locked; update() never waits for input.
class ZQ_EXPORT CLI {
 public:
  struct CLI_cmd_map_entry;
  typedef std::map<std::string, CLI_cmd_map_entry*> cmd_map;

  // One command: its function, argument, help text and sub-commands.
  struct CLI_cmd_map_entry {
    CLI_func cb = nullptr;
    void* arg = nullptr;
    std::string cmd_help;
    cmd_map cmap;                     // sub-commands
    cmd_map* parent_map = nullptr;    // the map holding this entry; null at the root
    bool internal = false;            // a built-in
    const std::string* name = nullptr;  // the key inside the map holding it
  };

  // Status bits of the polling state machine.
  enum { kPrompt = 1, kReading = 2, kExecute = 4, kEscape = 8, kEnded = 16 };

  // A null stream (fopen() failing) gives an ended session: update() returns 4.
  CLI(FILE* in, FILE* out, FILE* err, unsigned int unused = 0);
  ~CLI();
  CLI(const CLI&) = delete;
  CLI& operator=(const CLI&) = delete;

  // Registers `cb` as `name` under the command whose function is `parent`
  // (null: at the root). False without a function, with an unknown parent,
  // or when the name exists at that level (the first stays).
  bool Register(CLI_func cb, void* arg, const std::string& name, CLI_func parent,
                const std::string& help);
  CLI_cmd_map_entry* register_core(CLI_func cb, void* arg, const std::string& name,
                                   CLI_func parent, const std::string& help);
  // By name: the root first (built-ins included), then the current level.
  CLI_cmd_map_entry* find_command(const std::string& name);
  CLI_cmd_map_entry* find_command(CLI_func cb, cmd_map* map);
  CLI_cmd_map_entry* find_command_recursive(CLI_func cb);
  // "/" for a root command, "/net/sub" for a command inside net's sub-level.
  std::string path_to_command(CLI_cmd_map_entry* entry);
  void SetAppName(const std::string& name) { appname = name; }
  // Keeps at most `n` history entries (the newest).
  void SetHistoryLimit(size_t n);
  // Optional bounds for a session with an untrusted peer (0: none, the
  // default). A line longer than `line_bytes` after substitution is refused
  // with one line on the error stream (parse() returns false); `set` refuses
  // what would take the variables and the history beyond `session_bytes`,
  // and the oldest history entries are dropped to stay within it.
  void SetLimits(size_t line_bytes, size_t session_bytes);
  // The bytes held by the variables (names and values) and the history.
  size_t SessionBytes() const;
  // Whether `more` bytes still fit within the session bound.
  bool FitsSession(size_t more) const;

  // Runs one line: variables substituted, words split at single blanks (at
  // most 100), the command called. False for an unknown command. An
  // exception from the command is answered with one line on the error
  // stream and the command counts as failed (result 1).
  bool parse(std::string& text);
  void substitute_vars();
  void update_internal();

  // One step: 4 when the session has ended, 11 to be called again at once,
  // 0 when nothing is to be done until new input arrives.
  int update();
  // Calls update() for as long as it has work without new input (keys read
  // ahead, a finished line to run, the prompt to show after it); for an
  // event loop that calls it whenever the input is readable. 4 when the
  // session has ended, else 0.
  int update_all();
  char get_char();
  void expand();
  unsigned int print_in_columns(const std::vector<std::string>& items, unsigned int width);
  void get_winsize();
  // Switches on the line editor of cli_editor.h (an opt-in: without it the
  // keys are handled as described above) and returns it; on a terminal it
  // also turns off flow control and signal keys, so Ctrl-S and Ctrl-C reach
  // it. Calling it again returns the same editor.
  CLI_Editor* EnableEditing();
  // The line editor, or null when editing is off.
  CLI_Editor* Editor() const { return editor_.get(); }

  // Opt-in: the streams that the built-ins (help, set, unset) and the
  // "command not found" line treat as standard output and standard error, so
  // that each session's texts reach only its own peer. Null (the default)
  // stands for the process's stdout and stderr. The streams stay the caller's.
  void SetStandardStreams(FILE* out, FILE* err);
  FILE* StdOut() const;
  FILE* StdErr() const;
  // Opt-in access levels (the application's numbers, higher may do more): a
  // line whose leading words are `words` ("io", "io set") needs `level`; the
  // rule with the most matching words counts, and a command without any rule
  // needs none. Once a rule exists, parse() refuses a line the session's
  // level does not reach, with one line on StdErr(), and sets $? to 1; the
  // built-in help's list then leaves out the commands it does not reach.
  void SetCommandLevel(const std::string& words, int level);
  void SetSessionLevel(int level) { session_level_ = level; }
  int SessionLevel() const { return session_level_; }
  // The level `words` need (0 without a rule).
  int RequiredLevel(const std::vector<std::string>& words) const;
  // Whether the session's level reaches what `words` need; true while no
  // rule exists.
  bool Permitted(const std::vector<std::string>& words) const;

  // The built-ins.
  static int cmd_help(void* cli, int argc, const char** argv);
  static int cmd_set(void* cli, int argc, const char** argv);
  static int cmd_unset(void* cli, int argc, const char** argv);
  static int cmd_echo(void* cli, int argc, const char** argv);
  static int cmd_history(void* cli, int argc, const char** argv);
  static int cmd_quit(void* cli, int argc, const char** argv);

  FILE* _stdin;
  termios old_termio{};
  termios new_termio{};
  unsigned int cols = 80, rows = 24;
  FILE* _stdout;
  FILE* _stderr;
  std::list<std::string> history;
  unsigned int hpos = 0;
  std::string sw_prompt = "%m:%p%# ";
  std::string iw_prompt;
  std::string line;
  int retcode = 0;
  CLI_cmd_map_entry* curr_cmd = nullptr;
  cmd_map _cmap;
  cmd_map* cmap = &_cmap;
  std::map<std::string, std::string> vars;
  int status = kPrompt;
  std::string appname = "CLI";

 private:
  void redraw();
  void echo_byte(char c);
  void remember(const std::string& text);
  CLI_cmd_map_entry* owner_of(cmd_map* map, cmd_map* within);

  FILE* std_out_ = nullptr;
  FILE* std_err_ = nullptr;
  std::map<std::string, int> levels_;
  int session_level_ = 0;
  bool termio_saved_ = false;
  bool overflow_ = false;     // the last substitution went beyond line_limit_
  size_t line_limit_ = 0;
  size_t session_limit_ = 0;
  size_t history_limit_ = 1000;
  std::vector<std::unique_ptr<CLI_cmd_map_entry>> entries_;
  friend class CLI_Editor;
  std::unique_ptr<CLI_Editor> editor_;  // destroyed first: it may save the history
};

#endif
