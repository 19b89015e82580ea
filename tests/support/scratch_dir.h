// Test helper: a fresh folder below the test's temporary folder, removed with
// everything in it when the object goes, and whole-file reads.
#ifndef ZQ_TESTS_SCRATCH_DIR_H
#define ZQ_TESTS_SCRATCH_DIR_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

struct ScratchDir {
  std::string path;
  ScratchDir() {
    std::string pattern = ::testing::TempDir() + "zqXXXXXX";
    EXPECT_NE(mkdtemp(&pattern[0]), nullptr) << pattern;
    path = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
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
