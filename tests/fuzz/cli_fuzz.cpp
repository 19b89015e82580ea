// Fuzz target: arbitrary key streams (escapes, control bytes, NUL, long and
// many lines) into CLI::update(). No crash, no sanitizer report, and the
// history stays within its bound.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "zqcommon/cli.h"

namespace {
int app(void*, int argc, const char**) { return argc; }
int sub(void*, int, const char**) { return 1; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) std::abort();
  fcntl(p[1], F_SETPIPE_SZ, 1 << 20);
  if (size != 0 && ::write(p[1], data, size) != static_cast<ssize_t>(size)) std::abort();
  ::close(p[1]);
  FILE* in = fdopen(p[0], "r");
  FILE* out = std::fopen("/dev/null", "w");
  {
    CLI cli(in, out, out);
    cli.SetHistoryLimit(16);
    cli.Register(app, nullptr, "app", nullptr, "an application command");
    cli.Register(sub, nullptr, "sub", app, "");
    // Every key is handled within a bounded number of steps; at the end of
    // the stream update() has nothing more to do (0) or the session ended (4).
    const size_t limit = 4 * size + 16;
    for (size_t steps = 0; steps < limit; ++steps) {
      const int r = cli.update();
      if (r == 4 || (r == 0 && !(cli.status & (CLI::kPrompt | CLI::kExecute)))) break;
    }
    if (cli.history.size() > 16) std::abort();
  }
  std::fclose(in);
  std::fclose(out);
  return 0;
}
