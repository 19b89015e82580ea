// Test helper: a command interpreter the test types into and whose output it
// reads back as text.
#ifndef ZQ_TESTS_CLI_SESSION_H
#define ZQ_TESTS_CLI_SESSION_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "zqcommon/cli.h"
#include "zqcommon/cli_editor.h"

// Keys reach the interpreter through a pipe, or through the line editor's
// Feed() when `editing` is on (which also shows the first prompt); all it
// writes goes to a temporary file.
struct CliSession {
  int keys[2] = {-1, -1};
  FILE* in = pipe2(keys, O_CLOEXEC) == 0 ? fdopen(keys[0], "r") : nullptr;
  FILE* out = std::tmpfile();
  size_t seen = 0;
  std::unique_ptr<CLI> cli = std::make_unique<CLI>(in, out, out);
  CLI_Editor* ed = nullptr;

  explicit CliSession(bool editing = false) {
    if (editing) {
      ed = cli->EnableEditing();
      cli->update_all();
    }
  }
  ~CliSession() {
    cli.reset();
    std::fclose(in);
    std::fclose(out);
    close(keys[1]);
  }
  // Types `text`, steps the interpreter until it has nothing more to do and
  // returns what it wrote meanwhile.
  std::string type(const std::string& text) {
    if (ed != nullptr) {
      ed->Feed(text.data(), text.size());
    } else if (write(keys[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::abort();
    }
    cli->update_all();
    return fresh();
  }
  // What was written since the last type() or fresh().
  std::string fresh() {
    const size_t from = seen;
    return screen().substr(from);
  }
  // Everything written so far (which counts as read for fresh()).
  std::string screen() {
    std::fflush(out);
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = pread(fileno(out), chunk, sizeof chunk, text.size())) > 0;) text.append(chunk, n);
    seen = text.size();
    return text;
  }
};

#endif
