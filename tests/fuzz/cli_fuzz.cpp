// Fuzz target: arbitrary key streams (escapes, control bytes, NUL, long and
// many lines) into CLI::update(). No crash, no sanitizer report, and the
// history stays within its bound. An odd first byte switches the line editor
// on, with (first byte / 4) columns (0: the terminal's); its line then stays
// within its limit, valid UTF-8, with the cursor on a character boundary.

#include "fuzz_input.h"
#include "zqcommon/cli.h"
#include "zqcommon/cli_editor.h"

namespace {
int app(void*, int argc, const char**) { return argc; }
int sub(void*, int, const char**) { return 1; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int p[2];
  fuzz_pipe(fuzz_text(data, size), p);
  ::close(p[1]);
  FILE* in = fdopen(p[0], "r");
  FILE* out = std::fopen("/dev/null", "w");
  {
    CLI cli(in, out, out);
    cli.SetHistoryLimit(16);
    cli.Register(app, nullptr, "app", nullptr, "an application command");
    cli.Register(sub, nullptr, "sub", app, "");
    CLI_Editor* ed = nullptr;
    if (size != 0 && (data[0] & 1)) {
      ed = cli.EnableEditing();
      ed->SetColumns(data[0] >> 2);
      ed->SetEndOnEof(data[0] & 2);
      cli.SetCommandLevel("app", 1);  // help and completion by level (level 0..3 from the first byte)
      cli.SetCommandLevel("app sub", 2);
      cli.SetSessionLevel(data[0] >> 6);
      ed->SetLevelNames({{1, "viewer"}, {2, "operator"}});
      ed->SetCompleter("app", [](const std::vector<std::string>& before, const std::string& partial) {
        return std::vector<std::string>{partial + "x", partial + "\xc3\xa9", std::to_string(before.size())};
      });
    }
    // Every key is handled within a bounded number of steps; at the end of
    // the stream update() has nothing more to do (0) or the session ended (4).
    const size_t limit = 4 * size + 16;
    for (size_t steps = 0; steps < limit; ++steps) {
      const int r = cli.update();
      if (r == 4 || (r == 0 && !(cli.status & (CLI::kPrompt | CLI::kExecute)))) break;
    }
    if (cli.history.size() > 16) std::abort();
    if (ed != nullptr) {
      const std::string& line = ed->Line();
      if (line.size() > CLI_Editor::kMaxLine || ed->Cursor() > line.size()) std::abort();
      if (ed->Cursor() < line.size() && (line[ed->Cursor()] & 0xC0) == 0x80) std::abort();
      for (size_t i = 0; i < line.size();) {  // valid UTF-8 throughout
        const unsigned char c = static_cast<unsigned char>(line[i]);
        const size_t n = c < 0x80 ? 1 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
        if (n == 0 || i + n > line.size()) std::abort();
        for (size_t k = 1; k < n; ++k) {
          if ((line[i + k] & 0xC0) != 0x80) std::abort();
        }
        i += n;
      }
    }
  }
  std::fclose(in);
  std::fclose(out);
  return 0;
}
