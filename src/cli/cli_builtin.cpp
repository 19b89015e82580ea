// The interpreter's built-in commands. Which stream each writes to is part of
// their behaviour: echo, history and help's lists use the interpreter's output;
// help's fixed texts and set's listing use the process's standard output;
// help's and unset's errors use the process's standard error (or the streams
// given to SetStandardStreams).
#include <cstdio>
#include <cstring>

#include "zqcommon/cli.h"
#include "zqcommon/cli_editor.h"

int CLI::cmd_help(void* object, int argc, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (cli->Editor() != nullptr) return cli->Editor()->Help(argc, argv);
  if (argc <= 1) {
    std::fputs("Possible commands are (built in):\r\n", cli->StdOut());
    std::fflush(cli->StdOut());
    std::vector<std::string> builtins, others;
    // With access levels, the list shows only what the session may run.
    for (auto& item : cli->_cmap) {
      if (item.second->internal && cli->Permitted({item.first})) builtins.push_back(item.first);
    }
    const unsigned int width = cli->print_in_columns(builtins, 0);
    for (auto& item : *cli->cmap) {
      if (!item.second->internal && cli->Permitted({item.first})) others.push_back(item.first);
    }
    if (!others.empty()) {
      std::fflush(cli->_stdout);
      std::fputs("\r\nOther commands:\r\n", cli->StdOut());
      std::fflush(cli->StdOut());
      cli->print_in_columns(others, width);
    }
    std::fflush(cli->_stdout);
    std::fputs("\r\n", cli->StdOut());
    std::fflush(cli->StdOut());
    return 0;
  }
  int result = 0;
  for (int i = 1; i < argc; ++i) {
    CLI_cmd_map_entry* e = cli->find_command(argv[i]);
    if (e == nullptr) {
      std::fprintf(cli->StdErr(), "Unknown command: %s\r\n", argv[i]);
      result = 1;
    } else if (e->cmd_help.empty()) {
      std::fputs("No help available.\r\n\r\n", cli->StdOut());
    } else {
      std::fprintf(cli->StdOut(), "%s\r\n\r\n", e->cmd_help.c_str());
    }
  }
  std::fflush(cli->StdOut());
  return result;
}

int CLI::cmd_set(void* object, int argc, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (argc <= 1) {
    for (auto& v : cli->vars) std::fprintf(cli->StdOut(), "%s=%s\r\n", v.first.c_str(), v.second.c_str());
    std::fflush(cli->StdOut());
    return 0;
  }
  for (int i = 1; i < argc; ++i) {
    const char* eq = std::strchr(argv[i], '=');
    if (!cli->FitsSession(std::strlen(argv[i]))) {
      std::fprintf(cli->_stderr, "set: refused, the session's variables and history are full\r\n");
      return 1;
    }
    if (eq == nullptr) {
      cli->vars[argv[i]] = "";
    } else {
      cli->vars[std::string(argv[i], eq)] = eq + 1;
    }
  }
  return 0;
}

int CLI::cmd_unset(void* object, int argc, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (argc <= 1) {
    std::fprintf(cli->StdErr(), "%s: Too few arguments\r\n", argv[0]);
    return 0;
  }
  for (int i = 1; i < argc; ++i) cli->vars.erase(argv[i]);
  return 0;
}

int CLI::cmd_echo(void* object, int argc, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (argc <= 1) return 0;
  int first = 1;
  bool newline = true;
  if (std::strcmp(argv[1], "-n") == 0) {
    newline = false;
    first = 2;
  }
  for (int i = first; i < argc; ++i) std::fprintf(cli->_stdout, i + 1 < argc ? "%s " : "%s", argv[i]);
  if (newline) std::fputs("\r\n", cli->_stdout);
  std::fflush(cli->_stdout);
  return 0;
}

int CLI::cmd_history(void* object, int argc, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (argc > 1 && std::strcmp(argv[1], "-c") == 0) {
    cli->history.clear();
    cli->hpos = 0;
    return 0;
  }
  if (cli->history.size() < 2) {
    std::fputs("History is empty.\r\n", cli->_stdout);
  } else {
    int n = 1;
    // Oldest first, without the newest (this very command).
    for (auto it = cli->history.rbegin(); it != std::prev(cli->history.rend()); ++it) {
      std::fprintf(cli->_stdout, "%03i: %s\r\n", n++, it->c_str());
    }
  }
  std::fflush(cli->_stdout);
  return 0;
}

int CLI::cmd_quit(void* object, int, const char** argv) {
  CLI* cli = static_cast<CLI*>(object);
  if (std::strcmp(argv[0], "quit") == 0 && cli->cmap != &cli->_cmap) {
    CLI_cmd_map_entry* current = cli->curr_cmd;
    if (current == nullptr || current->parent_map == nullptr) return 0;
    cli->cmap = current->parent_map;
    cli->curr_cmd = cli->find_command(current->cb, current->parent_map);
    return 0;
  }
  cli->status |= kEnded;
  return 0;
}
