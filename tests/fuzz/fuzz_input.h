// The fuzz targets' ways of handing their input to the code under test: as
// text, as lines, as a file and as a pipe's contents. It brings the headers
// every target uses (<cstdint>, <cstdio>, <cstdlib>, <string>, <unistd.h>).
#ifndef ZQ_FUZZ_INPUT_H
#define ZQ_FUZZ_INPUT_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

inline std::string fuzz_text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Calls `line` with each of the first `limit` lines of `text` (split at '\n').
template <typename F>
void fuzz_lines(const std::string& text, size_t limit, F line) {
  size_t start = 0;
  for (size_t n = 0; start < text.size() && n < limit; ++n) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    line(text.substr(start, end - start));
    start = end + 1;
  }
}

// Writes `bytes` to a new file under /tmp and returns its name; aborts when
// it cannot. The caller removes it.
inline std::string fuzz_file(const std::string& bytes) {
  char name[] = "/tmp/zqfuzzXXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
  close(fd);
  return name;
}

// A pipe (large enough for any input) that holds `bytes`: p[0] to read, p[1]
// still open for writing.
inline void fuzz_pipe(const std::string& bytes, int p[2]) {
  if (pipe2(p, O_CLOEXEC) != 0) std::abort();
  fcntl(p[1], F_SETPIPE_SZ, 1 << 20);
  if (write(p[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
}

#endif
