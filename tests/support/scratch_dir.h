// Test helper: a fresh folder below the test's temporary folder, removed with
// everything in it when the object goes.
#ifndef ZQ_TESTS_SCRATCH_DIR_H
#define ZQ_TESTS_SCRATCH_DIR_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

struct ScratchDir {
  std::string path;
  ScratchDir() {
    std::string pattern = ::testing::TempDir() + "zqXXXXXX";
    EXPECT_NE(mkdtemp(&pattern[0]), nullptr) << pattern;
    path = pattern;
  }
  ~ScratchDir() { std::filesystem::remove_all(path); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

#endif
