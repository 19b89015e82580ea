// Test helper: a private folder removed with its contents, and whole-file reads.
#ifndef ZQ_TESTS_SCRATCH_DIR_H
#define ZQ_TESTS_SCRATCH_DIR_H

#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

// A new folder under /tmp for one test; removed, contents and all, at the end.
struct ScratchDir {
  std::string path;
  ScratchDir() {
    char pattern[] = "/tmp/zqtestXXXXXX";
    path = mkdtemp(pattern) ? pattern : "/tmp";
  }
  ~ScratchDir() {
    if (path != "/tmp") std::system(("rm -rf '" + path + "'").c_str());
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

// The bytes of a file; empty when it cannot be read.
inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

#endif
