// The diagnostic path: an installed sink receives exactly what the default
// would print, on the stream it would print it to; the default is unchanged.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"
#include "zqcommon/lib_config.h"
#include "zqmath/cvector.h"

namespace {

using zqcommon::DiagnosticStream;

struct Captured {
  std::vector<std::pair<DiagnosticStream, std::string>> lines;
};

void capture(void* context, DiagnosticStream stream, const char* text, size_t length) {
  static_cast<Captured*>(context)->lines.emplace_back(stream, std::string(text, length));
}

class Diagnostics : public ::testing::Test {
 protected:
  void SetUp() override { saved_level_ = DEBUG_LEVEL; }
  void TearDown() override {
    zqcommon::SetDiagnosticSink(nullptr);
    DEBUG_LEVEL = saved_level_;
  }
  int saved_level_ = 0;
};

struct Case {
  const char* what;
  int level;
  std::function<void()> make;
  std::string expected;  // empty: the gate keeps it back
};

const std::vector<Case>& cases() {
  static const std::vector<Case> table = {
      {"configuration repair above the gate", 1,
       [] {
         std::istringstream in("[open\nk=v\n");
         Config_File cfg(in);
       },
       "libconfig: inserting missing closing bracket ']' after found Section opening '[', "
       "line #1:[open]\n"},
      {"configuration repair at level 0 is silent", 0,
       [] {
         std::istringstream in("[open\n");
         Config_File cfg(in);
       },
       ""},
      {"vector index out of range (header template)", 0,
       [] {
         CVector<double> v(2);
         v[5] = 1.0;
       },
       "Vector Access to Element:: 5 denied:\n"},
  };
  return table;
}

TEST_F(Diagnostics, ASinkReceivesExactlyWhatTheDefaultPrints) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.what);
    DEBUG_LEVEL = c.level;
    Captured got;
    zqcommon::SetDiagnosticSink(capture, &got);
    c.make();
    zqcommon::SetDiagnosticSink(nullptr);
    std::string sunk;
    for (const auto& line : got.lines) {
      EXPECT_EQ(line.first, DiagnosticStream::kError);
      sunk += line.second;
    }
    EXPECT_EQ(sunk, c.expected);

    ::testing::internal::CaptureStderr();
    c.make();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.expected);
  }
}

TEST_F(Diagnostics, TheOutputStreamIsKeptApartAndLongTextIsWhole) {
  const std::string long_text(300, 'x');  // longer than any first formatting guess
  Captured got;
  zqcommon::SetDiagnosticSink(capture, &got);
  zqcommon::DiagnosticPrintf(DiagnosticStream::kOutput, "%s|%i\n", long_text.c_str(), 7);
  ASSERT_EQ(got.lines.size(), 1u);
  EXPECT_EQ(got.lines[0].first, DiagnosticStream::kOutput);
  EXPECT_EQ(got.lines[0].second, long_text + "|7\n");

  zqcommon::SetDiagnosticSink(nullptr);
  ::testing::internal::CaptureStdout();
  zqcommon::DiagnosticPrintf(DiagnosticStream::kOutput, "%s\n", "to standard output");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "to standard output\n");
}

}  // namespace
