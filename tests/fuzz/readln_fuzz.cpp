// Fuzz target: arbitrary bytes through a pipe into Connection::readln, with
// and without line editing. Every line that ends in a terminator must come
// out whole and in order (edited when editing is on); nothing may crash.

#include <vector>

#include "fuzz_input.h"
#include "zqcommon/connection.h"

namespace {

// The lines a reader must see: the bytes before each terminator run; a final
// piece without terminator is never handed out.
std::vector<std::string> expected_lines(const std::string& data, bool edit) {
  std::vector<std::string> lines;
  std::string::size_type i = 0;
  for (;;) {
    const auto p = data.find_first_of("\n\r", i);
    if (p == std::string::npos) break;
    std::string line = data.substr(i, p - i);
    if (edit && !line.empty()) Connection::modify(line);
    lines.push_back(line);
    i = data.find_first_not_of("\n\r", p);
    if (i == std::string::npos) break;
  }
  return lines;
}

// Writes all of `data` into a pipe and reads `count` lines (each of which is
// complete, so none has to wait); then nothing complete may be left.
std::vector<std::string> read_lines(const std::string& data, bool edit, size_t count) {
  int p[2];
  fuzz_pipe(data, p);
  Connection c;
  c.Set_Modify(edit);
  c.SetFd(&p[0]);
  std::vector<std::string> lines;
  std::string line;
  for (size_t i = 0; i < count; ++i) {
    if (c.readln(line, false, Connection::wait_1s) < 0) std::abort();
    lines.push_back(line);
  }
  if (c.readln(line, false, 0) != -2) std::abort();
  c.close();
  ::close(p[1]);
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  // A final line break makes every line complete.
  const std::string data = fuzz_text(bytes, size) + "\n";
  for (bool edit : {false, true}) {
    const std::vector<std::string> want = expected_lines(data, edit);
    if (read_lines(data, edit, want.size()) != want) std::abort();
  }
  return 0;
}
