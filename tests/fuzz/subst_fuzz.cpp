// Fuzz target: lines run by CLI::parse with variables set by earlier lines.
// The input is a list of lines; "set NAME=VALUE" lines define variables. Each
// substitution must equal the plain rule (on lines short enough for it) and
// each line must finish within a time budget, so a super-linear case fails.
#include <ctime>

#include "fuzz_input.h"
#include "support/substitution_reference.h"
#include "zqcommon/cli.h"

namespace {
int nothing(void*, int, const char**) { return 3; }
double cpu_seconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FILE* sink = std::fopen("/dev/null", "w");
  CLI cli(sink, sink, sink);
  cli.SetLimits(128 * 1024, 1024 * 1024);
  cli.Register(nothing, nullptr, "run", nullptr, "");
  fuzz_lines(fuzz_text(data, size), size, [&cli](std::string line) {
    if (line.size() < 300) {
      cli.line = line;
      cli.substitute_vars();
      const std::string plain = reference_substitution(line, cli.vars, cli.retcode);
      if (plain.size() <= 128 * 1024 && cli.line != plain) std::abort();  // beyond: refused
    }
    const double t0 = cpu_seconds();
    cli.parse(line);
    if (cpu_seconds() - t0 > 0.2) std::abort();  // processor time: the machine's load does not count
    if (cli.SessionBytes() > 1024 * 1024 + 3 * 128 * 1024) std::abort();
  });
  return 0;
}
