// The diagnostic path: an installed sink receives exactly what the default
// would print, on the stream it would print it to; the default is unchanged.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"
#include "zqcommon/lib_config.h"
#include "zqmath/cvector.h"

namespace {

using zqcommon::DiagnosticStream;
using Lines = std::vector<std::pair<DiagnosticStream, std::string>>;

void capture(void* context, DiagnosticStream stream, const char* text, size_t length) {
  static_cast<Lines*>(context)->emplace_back(stream, std::string(text, length));
}

// Restores the debug level and the default sink.
class Diagnostics : public ::testing::Test {
 protected:
  void TearDown() override {
    zqcommon::SetDiagnosticSink(nullptr);
    DEBUG_LEVEL = saved_level_;
  }
  int saved_level_ = DEBUG_LEVEL;
};

TEST_F(Diagnostics, ASinkReceivesExactlyWhatTheDefaultPrints) {
  const struct { const char* what; int level; std::function<void()> make; std::string expected; } cases[] = {
      {"configuration repair above the gate", 1, [] { std::istringstream in("[open\nk=v\n"); Config_File cfg(in); },
       "libconfig: inserting missing closing bracket ']' after found Section opening '[', line #1:[open]\n"},
      {"vector index out of range (header template)", 0, [] { CVector<double>(2)[5] = 1.0; },
       "Vector Access to Element:: 5 denied:\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    DEBUG_LEVEL = c.level;
    Lines got;
    zqcommon::SetDiagnosticSink(capture, &got);
    c.make();
    zqcommon::SetDiagnosticSink(nullptr);
    std::string sunk;
    for (const auto& line : got) {
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
  Lines got;
  zqcommon::SetDiagnosticSink(capture, &got);
  zqcommon::DiagnosticPrintf(DiagnosticStream::kOutput, "%s|%i\n", long_text.c_str(), 7);
  EXPECT_EQ(got, (Lines{{DiagnosticStream::kOutput, long_text + "|7\n"}}));
  zqcommon::SetDiagnosticSink(nullptr);
  ::testing::internal::CaptureStdout();
  zqcommon::DiagnosticPrintf(DiagnosticStream::kOutput, "%s\n", "to standard output");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "to standard output\n");
}

}  // namespace
