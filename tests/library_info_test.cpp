// The library's version header and its own information table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zqcommon/bug.h"
#include "zqcommon/library_info.h"
#include "zqcommon/version.h"

static_assert(ZQCOMMON_VERSION_NUMBER ==
              ZQCOMMON_VERSION_MAJOR * 10000 + ZQCOMMON_VERSION_MINOR * 100 + ZQCOMMON_VERSION_PATCH);
static_assert(ZQCOMMON_VERSION_AT_LEAST(ZQCOMMON_VERSION_MAJOR, ZQCOMMON_VERSION_MINOR, 0));
static_assert(!ZQCOMMON_VERSION_AT_LEAST(ZQCOMMON_VERSION_MAJOR + 1, 0, 0));

TEST(LibraryInfo, TheLibraryReadsItsOwnTableThroughTheLoader) {
  std::vector<std::string> info;
  ASSERT_TRUE(GetLibraryInfo("zqcommon", info)) << (info.empty() ? "" : info[0]);
  ASSERT_EQ(info.size(), 4u);
  EXPECT_EQ(info[0], "zqcommon " ZQCOMMON_VERSION_STRING);
  EXPECT_EQ(info[1].rfind("built 20", 0), 0u) << info[1];
  EXPECT_EQ(info[2].rfind("OpenSSL 3.", 0), 0u) << info[2];
  const std::vector<std::string> engines = {"CRC-32 vpclmulqdq", "CRC-32 pclmulqdq",
                                            "CRC-32 slice-by-8"};
  EXPECT_NE(std::find(engines.begin(), engines.end(), info[3]), engines.end()) << info[3];
  // The loader found the same library this program runs with.
  for (size_t i = 0; i < info.size(); ++i) EXPECT_EQ(info[i], zqcommon_LIBRARYINFO[i]);
  EXPECT_EQ(zqcommon_LIBRARYINFO[4], nullptr);
}
