// The interpreter's line editor: key sequences and the line and cursor they
// leave, history and its search, completion, layout of wide lines, messages
// above the prompt, the history file and hostile input.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/cli_session.h"
#include "support/scratch_dir.h"

// (The common keys, as a network client sends them, are tests/station/cli_keys.py's
// cases; these are the other forms and the edges.)
TEST(CLIEditor, KeySequencesLeaveLineAndCursor) {
  const struct { const char* keys; const char* line; size_t cursor; } kCases[] = {
      {"abc\x1b[7~X\x1b[8~Y", "XabcY", 5},                    // rxvt forms
      {"abc\x02\x04", "ab", 2},                               // Ctrl-D deletes under the cursor
      {"abc\x02\x02\x06Z", "abZc", 3},                        // Ctrl-B, Ctrl-F
      {"abc\x1b[C\x06\x1b[C", "abc", 3},                      // Right stops at the end
      {"abc\x01\x1b[D\x02\x7f", "abc", 0},                    // Left and Backspace stop at 0
      {"abc def\x02\x02\x02\x15", "def", 0},                  // Ctrl-U
      {"one two  \x17", "one ", 4},                           // Ctrl-W over blanks
      {"ab\x14", "ba", 2},                                    // Ctrl-T at the end
      {"abc\x02\x14", "acb", 3},                              // Ctrl-T in the middle
      {"one two three\x1b" "b\x1b" "bX", "one Xtwo three", 5},  // Alt-B
      {"one two\x01\x1b" "fX", "oneX two", 4},                // Alt-F
      {"one two\x1b[1;5DX", "one Xtwo", 5},                   // Ctrl-Left
      {"\xe2\x82\xac" "x\x02\x02Y", "Y\xe2\x82\xac" "x", 1},  // three bytes
      {"\xf0\x9f\x99\x82\x02Z\x06\x7f", "Z", 1},              // four bytes
      {"a\x1b[99~\x1bzb\x1b[5;9;9Q", "ab", 2},                // unknown sequences dropped
      {"a\x1b[11111111111111111111111111111111~b", "ab", 2},  // an overlong one too
      {"a\x1b\x01X", "Xa", 1},                                // ESC then a control key
      {"a\tb\x07\x0e\x10", "ab", 2},                          // Tab without candidates, stray controls
  };
  for (const auto& c : kCases) {
    CliSession e(true);
    e.type(c.keys);
    EXPECT_EQ(e.ed->Line(), c.line) << c.keys;
    EXPECT_EQ(e.ed->Cursor(), c.cursor) << c.keys;
  }
}

TEST(CLIEditor, HistoryAndSearch) {
  const struct { const char* keys; const char* line; } kCases[] = {
      {"\x1b[A\x1b[A\x1b[A\x1b[A\x1b[A", "echo one"},  // stops at the oldest
      {"draft\x1b[A\x1b[B", "draft"},                  // Down returns to the typed line
      {"\x10\x10\x0e", "echo three"},                  // Ctrl-P, Ctrl-N
      {"\x12o\x12\x12\x13", "echo two"},               // Ctrl-R again: older; Ctrl-S: newer
      {"\x12zz", ""},                                  // no match: the line stays
      {"x\x12tw\x07", "x"},                            // Ctrl-G restores the line
      {"\x12twX", "echo two"},                         // a failing query keeps the last match
  };
  for (const auto& c : kCases) {
    CliSession e(true);
    e.type("echo one\recho two\r\necho three\n");
    ASSERT_EQ(e.cli->history.size(), 3u);
    e.type(c.keys);
    EXPECT_EQ(e.ed->Line(), c.line) << c.keys;
  }
  CliSession e(true);
  e.type("echo one\recho two\r");
  e.type("\x12on\x1b[CX");  // a movement ends the search and moves
  EXPECT_EQ(e.ed->Line(), "echo oXne");

  // A history entry that is not valid UTF-8 (put there by the program, or by
  // the specified editing model) is recalled and found without its stray bytes.
  CliSession raw(true);
  raw.cli->history.push_front("ha\xe1\xc3\xadS\x80z");
  raw.type("\x1b[A");
  EXPECT_EQ(raw.ed->Line(), "ha\xc3\xadSz");
  raw.type("\x03\x12z");
  EXPECT_EQ(raw.ed->Line(), "ha\xc3\xadSz");
  EXPECT_LE(raw.ed->Cursor(), raw.ed->Line().size());
}

TEST(CLIEditor, CompletionCompletesTheCommonPrefixThenLists) {
  CliSession e(true);
  e.cli->Register([](void*, int, const char**) { return 0; }, nullptr, "config", nullptr, "config set K V: x");
  e.ed->SetCompleter("config", [](const std::vector<std::string>& before, const std::string&) {
    if (before.size() == 1) return std::vector<std::string>{"set", "show", "save"};
    if (before.size() > 3) return std::vector<std::string>();
    if (before.size() == 3) return std::vector<std::string>{"\xc3\xa9t\xc3\xa9", "\xc3\xa8l"};
    return std::vector<std::string>{"Station.Low", "Station.High", "Server.Port"};
  });
  const struct { const char* keys; const char* line; } kCases[] = {
      {"config sh\t", "config show "},
      {"config set Station.L\t", "config set Station.Low "},
      {"config set x \t", "config set x "},      // never half a character in common
      {"config set x \xc3\xa9\t", "config set x \xc3\xa9t\xc3\xa9 "},
      {"config set x y \t", "config set x y "},
  };
  for (const auto& c : kCases) {
    e.type(std::string("\x03") + c.keys);
    EXPECT_EQ(e.ed->Line(), c.line) << c.keys;
  }
  const std::string listed = e.type("\x03" "config s\t");
  EXPECT_NE(listed.find("save"), std::string::npos);
  EXPECT_NE(listed.find("show"), std::string::npos);
  EXPECT_EQ(e.ed->Line(), "config s");
}

TEST(CLIEditor, WideLinesAndMessagesRedrawPromptLineAndCursor) {
  CliSession e(true);
  e.ed->SetColumns(10);
  ASSERT_EQ(e.cli->iw_prompt.size(), 7u);  // "CLI:/> " or "CLI:/# "
  e.type("0123456789012");  // 20 cells: the cursor sits at the start of row 2
  std::string s = e.type("\x01");  // Home: up two rows, redraw, back up two rows, 7 columns in
  EXPECT_EQ(s.rfind("\x1b[2A\r\x1b[7C"), s.size() - 9) << s;
  e.ed->Message("sensor_high: ERROR");
  s = e.fresh();
  // From the prompt's row: cleared, the message, the prompt and line again,
  // and the cursor back after the prompt.
  EXPECT_EQ(s.find("\r\x1b[J"), 0u) << s;
  EXPECT_NE(s.find("sensor_high: ERROR\r\n\r" + e.cli->iw_prompt + "0123456789012"), std::string::npos) << s;
  EXPECT_EQ(s.rfind("\x1b[2A\r\x1b[7C"), s.size() - 9) << s;
  EXPECT_EQ(e.ed->Line(), "0123456789012");
  EXPECT_EQ(e.ed->Cursor(), 0u);
  s = e.type("\x05");  // ends exactly at the margin: the cursor goes to the next row
  EXPECT_EQ(s.substr(s.size() - 3), "\r\n\r") << s;
}

TEST(CLIEditor, HelpShowsUsageAndWhatEachLevelMayDoAndOnlyWhatTheSessionMayRun) {
  CliSession e(true);
  auto nop = [](void*, int, const char**) { return 0; };
  e.cli->Register(nop, nullptr, "io", nullptr, "io [get|set BIT]: the digital I/O");
  e.cli->Register(nop, nullptr, "config", nullptr, "config: settings");
  for (auto rule : {std::make_pair("io", 1), {"io  set", 2}, {"config", 2}}) e.cli->SetCommandLevel(rule.first, rule.second);
  e.cli->SetSessionLevel(1);
  e.ed->SetLevelNames({{1, "viewer"}, {2, "operator"}});
  const std::string list = e.type("help\r");
  EXPECT_NE(list.find("  io       the digital I/O\r\n"), std::string::npos) << list;
  EXPECT_NE(list.find("  history  history [-c]\r\n"), std::string::npos);
  // Extra blanks, in a rule or in a line, do not get past it.
  EXPECT_NE(e.type("io  set 1\r").find("io: not permitted for this session"), std::string::npos);
  e.type("con\t\x03");  // nor completed
  EXPECT_EQ(e.screen().find("config"), std::string::npos);  // beyond the session's level
  // (The rows derived from the rules, and a command beyond the level being
  // unknown to help, are checked over the network by tests/station/cli_keys.py.)
  e.cli->SetSessionLevel(2);
  e.ed->SetLevelTexts("io", {{"viewer", "io, io get"}});  // given rows replace the derived ones
  const std::string rows = e.type("help config io\r");
  EXPECT_NE(rows.find("  viewer    none of it\r\n  operator  all of it\r\nusage: io [get|set BIT]\r\n"
                            "  the digital I/O\r\n  viewer  io, io get\r\n"),
            std::string::npos) << rows;
  EXPECT_NE(e.type("nosuch\r").find("nosuch: command not found"), std::string::npos);  // the session's stream
}

TEST(CLIEditor, HistoryFileIsPrivateBoundedReloadedAndReplacedWhole) {
  ScratchDir dir;
  const std::string path = dir / "history";
  struct stat st {};
  {
    CliSession e(true);
    ASSERT_TRUE(e.ed->SetHistoryFile(path, 3, 0));
    e.type("echo 1\recho 2\recho 3\recho 4\r");
  }
  EXPECT_EQ(slurp(path), "echo 2\necho 3\necho 4\n");
  CliSession e(true);
  ASSERT_TRUE(e.ed->SetHistoryFile(path, 2, 0));
  e.type("\x1b[A\x1b[A\x1b[A");
  EXPECT_EQ(e.ed->Line(), "echo 3");  // only the newest two were loaded
  // A write that cannot complete (the size limit here, a full disk
  // elsewhere) keeps the old file whole; a written file is private whatever
  // the old file's mode and the umask.
  e.type("\x03" "echo " + std::string(5000, 'x') + "\r");
  chmod(path.c_str(), 0644);
  const mode_t mask = umask(0);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit small{1000, old.rlim_max};
  const auto action = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_FALSE(e.ed->SaveHistory());
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, action);
  EXPECT_EQ(slurp(path), "echo 2\necho 3\necho 4\n");
  EXPECT_TRUE(e.ed->SaveHistory());
  umask(mask);
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  CliSession folder(true);
  EXPECT_FALSE(folder.ed->SetHistoryFile(dir.path, 2, 0));  // a folder is no history
  EXPECT_FALSE(folder.ed->SaveHistory());
}

TEST(CLIEditor, HostileInputKeepsTheLineConsistent) {
  CliSession e(true);
  std::string burst(100000, 'x');
  burst[50000] = '\x01';
  e.type(burst);
  EXPECT_EQ(e.ed->Line().size(), CLI_Editor::kMaxLine);
  e.type("\x03");
  e.ed->SetColumns(1);
  e.type("\xc3\xa9\xc3\xa9\x1b[D\x7f\x04");
  EXPECT_EQ(e.ed->Line(), "");
  e.type("\x04");  // Ctrl-D on an empty terminal line is nothing (it ends a network session)
  EXPECT_EQ(e.cli->status & CLI::kEnded, 0);
}

// Opt-in bounds for untrusted peers: a burst of cursor keys costs one redraw,
// a Tab lists a bounded number of candidates, and a filtered line never runs.
TEST(CLIEditor, OutputBoundsAndLineFilter) {
  const std::string line = "echo " + std::string(3000, 'x');
  std::string burst;
  for (int i = 0; i < 1000; ++i) burst += "\x01\x05";
  CliSession plain(true), bounded(true);
  bounded.ed->SetOutputBounds(true, 2);
  plain.type(line);
  bounded.type(line);
  const size_t every_key = plain.type(burst).size(), once = bounded.type(burst).size();
  EXPECT_GT(every_key, 1000 * line.size());
  EXPECT_LT(once, 3 * line.size()) << "one redraw for the burst";
  EXPECT_EQ(bounded.ed->Line(), plain.ed->Line());
  EXPECT_EQ(bounded.ed->Cursor(), plain.ed->Cursor());

  bounded.ed->SetCompleter("echo", [](const std::vector<std::string>&, const std::string&) {
    return std::vector<std::string>{"a1", "a2", "a3", "a4", "a5"};
  });
  const std::string listed = bounded.type("\x03" "echo a\t");
  EXPECT_NE(listed.find("a2"), std::string::npos);
  EXPECT_EQ(listed.find("a3"), std::string::npos);
  EXPECT_NE(listed.find("... 3 more"), std::string::npos);

  int ran = 0;
  bounded.cli->Register([](void* n, int, const char**) { return ++*static_cast<int*>(n), 0; }, &ran, "secret",
                        nullptr, "secret: counts");
  std::vector<std::string> hooked;
  bounded.ed->SetLineHook([&hooked](const std::string& text) { hooked.push_back(text); });
  bounded.ed->SetLineFilter([](const std::string& text) { return text != "secret"; });
  bounded.type("\x03" "secret\rsecret x\r");
  EXPECT_EQ(ran, 1) << "only the line the filter let through";
  EXPECT_EQ(hooked, std::vector<std::string>{"secret x"});
  for (const std::string& h : bounded.cli->history) EXPECT_NE(h, "secret");
}
