// The command interpreter: registry, substitution, parsing, the polling state
// machine, completion, columns and built-ins. (On a real terminal, as a person
// types, it is run by tests/station/cli-tmux.sh and tests/station/station-tmux.sh, which
// also check that the terminal's modes are restored.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/cli_session.h"

namespace {

int app_cmd(void* arg, int argc, const char** argv) {
  return arg != nullptr ? *static_cast<int*>(arg) + argc - static_cast<int>(std::string(argv[0]).size()) : 7;
}
int sub_cmd(void*, int, const char**) { return 3; }
int deeper_cmd(void*, int, const char**) { return 5; }

}  // namespace

TEST(CLI, RegistryPathsAndPrompt) {
  CliSession s;
  CLI& cli = *s.cli;
  EXPECT_TRUE(cli.Register(app_cmd, nullptr, "net", nullptr, "network commands"));
  EXPECT_FALSE(cli.Register(sub_cmd, nullptr, "net", nullptr, ""));  // duplicate: first stays
  EXPECT_FALSE(cli.Register(nullptr, nullptr, "x", nullptr, ""));
  EXPECT_FALSE(cli.Register(sub_cmd, nullptr, "x", deeper_cmd, ""));  // unknown parent
  EXPECT_TRUE(cli.Register(sub_cmd, nullptr, "show", app_cmd, "show it"));
  EXPECT_TRUE(cli.Register(deeper_cmd, nullptr, "deep", sub_cmd, ""));
  EXPECT_EQ(cli.find_command("net")->cb, app_cmd);
  EXPECT_EQ(cli.find_command("show"), nullptr);  // not at the current level yet
  EXPECT_EQ(cli.path_to_command(cli.find_command_recursive(sub_cmd)), "/net");
  EXPECT_EQ(cli.path_to_command(nullptr), "/");

  EXPECT_EQ(cli.iw_prompt, std::string("CLI:/") + (getuid() == 0 ? "# " : "> "));
  cli.sw_prompt = "%m %x 100%";
  cli.SetAppName("app");
  cli.update_internal();
  EXPECT_EQ(cli.iw_prompt, "app %x 100");

  std::string line = "net";
  EXPECT_TRUE(cli.parse(line));
  EXPECT_EQ(cli.find_command("show")->cb, sub_cmd);  // the sub-level is current now
  line = "quit";  // the quit entry itself is current: the level stays
  cli.parse(line);
  EXPECT_EQ(cli.cmap, &cli.find_command("net")->cmap);
  line = "show";
  cli.parse(line);
  cli.sw_prompt = "%p";
  cli.update_internal();
  EXPECT_EQ(cli.iw_prompt, "/net");
}

TEST(CLI, SubstitutionQuirksAndParsing) {
  CliSession s;
  CLI& cli = *s.cli;
  cli.vars["A"] = "1";
  auto subst = [&](const std::string& text) {
    cli.line = text;
    cli.substitute_vars();
    return cli.line;
  };
  EXPECT_EQ(subst("x $A y"), "x 1y");
  EXPECT_EQ(subst("$HOME"), "OME");
  EXPECT_EQ(subst("a$$b"), "a$b");
  EXPECT_EQ(subst("end$"), "end");
  EXPECT_EQ(subst("$AA!"), "11");  // matching goes on with the same length
  EXPECT_EQ(subst("$VERSION."), "0.1");

  int base = 10;
  cli.Register(app_cmd, &base, "app", nullptr, "");
  std::string line = "  app  x  ";
  EXPECT_TRUE(cli.parse(line));
  EXPECT_EQ(line, "app  x");
  EXPECT_EQ(cli.retcode, 10 + 3 - 3);  // three words: "app", "", "x"
  EXPECT_EQ(cli.vars["cmdline"], "app  x");
  line = "echo";
  cli.parse(line);
  EXPECT_EQ(cli.retcode, 10);  // built-ins leave $? alone
  EXPECT_EQ(cli.vars["_"], "app  x");
  EXPECT_EQ(subst("$?"), "10");

  ::testing::internal::CaptureStderr();
  line = "nosuch a b";
  EXPECT_FALSE(cli.parse(line));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "nosuch: command not found\r\n");

  std::string many = "app";
  for (int i = 0; i < 300; ++i) many += " w";
  cli.parse(many);
  EXPECT_EQ(cli.retcode, 10 + 100 - 3);  // at most 100 words
  line = "   ";
  EXPECT_TRUE(cli.parse(line));
}

TEST(CLI, KeysEchoHistoryAndCompletion) {
  CliSession s;
  CLI& cli = *s.cli;
  const std::string prompt = cli.iw_prompt;
  EXPECT_EQ(s.type(""), prompt);
  EXPECT_EQ(s.type("\x7f"), "");  // backspace on an empty line writes nothing
  EXPECT_EQ(s.type("echo hi\n"), "echo hi\nhi\r\n" + prompt);
  s.type("echo c2\n");
  s.type("echo c3\n");
  s.type("echx\x7fo x\x08y\n");
  EXPECT_EQ(cli.history.front(), "echo y");
  s.type("\x1b[A\x1b[A\x1b[A\x1b[A\x1b[A");
  EXPECT_EQ(cli.line, "echo hi");  // cursor-up stops at the oldest
  s.type("\x1b[B");
  EXPECT_EQ(cli.line, "echo c2");
  EXPECT_EQ(s.type("\x1b[D"), "\x1b[D");  // cursor left passes through
  s.type("\x7f\x7f\x7f\x7f\x7f\x7f\x7f");
  EXPECT_TRUE(cli.line.empty());

  s.type("echo");  // (one candidate completing is tests/station/cli-tmux.sh's)
  const std::string listed = s.type(" x h\t");
  EXPECT_NE(listed.find("help"), std::string::npos);
  EXPECT_NE(listed.find("history"), std::string::npos);
  EXPECT_EQ(cli.line, "echo x h");
  s.type("\n");

  cli.SetHistoryLimit(3);
  for (int i = 0; i < 10; ++i) s.type("echo " + std::to_string(i) + "\n");
  EXPECT_EQ(cli.history.size(), 3u);
  EXPECT_EQ(cli.history.front(), "echo 9");
}

TEST(CLI, ColumnsAndTerminalSize) {
  CliSession s;
  CLI& cli = *s.cli;
  EXPECT_EQ(cli.cols, 80u);  // not a terminal: 80 by 24
  EXPECT_EQ(cli.rows, 24u);
  s.fresh();
  std::vector<std::string> items;
  for (int i = 0; i < 9; ++i) items.push_back("item" + std::to_string(i) + "xyz");
  EXPECT_EQ(cli.print_in_columns(items, 0), 10u);
  const std::string out = s.fresh();
  EXPECT_EQ(out.find("\r\n"), 80u);  // eight items fill a line
  EXPECT_EQ(out.size(), 80u + 2 + 10 + 2);
  EXPECT_EQ(cli.print_in_columns({std::string(79, 'w')}, 0), 80u);  // capped at cols
  EXPECT_EQ(cli.print_in_columns({std::string(90, 'w')}, 0), 0u);  // too wide: one per line
  EXPECT_EQ(cli.print_in_columns({}, 7), 7u);
}

TEST(CLI, BuiltinsAndSessionEnd) {
  CliSession s;
  CLI& cli = *s.cli;
  cli.Register(app_cmd, nullptr, "app", nullptr, "");
  ::testing::internal::CaptureStdout();
  const std::string lists = s.type("help\n");
  const std::string fixed = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(fixed, "Possible commands are (built in):\r\n\r\nOther commands:\r\n\r\n");
  EXPECT_NE(lists.find("echo"), std::string::npos);

  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  s.type("help foo app unset\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Unknown command: foo\r\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "No help available.\r\n\r\nUsage: set [var=value]\r\n\r\n");

  s.type("set x=1=2 y\n");
  EXPECT_EQ(cli.vars["x"], "1=2");
  EXPECT_EQ(cli.vars["y"], "");
  ::testing::internal::CaptureStderr();
  s.type("unset\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "unset: Too few arguments\r\n");
  s.type("unset x nothere\n");
  EXPECT_EQ(cli.vars.count("x"), 0u);

  EXPECT_EQ(s.type("echo -n a b\n"), "echo -n a b\na b" + cli.iw_prompt);
  s.type("history -c\n");
  EXPECT_EQ(s.type("history\n"), "history\nHistory is empty.\r\n" + cli.iw_prompt);

  s.type("exit\n");
  EXPECT_EQ(cli.update(), 4);
}
