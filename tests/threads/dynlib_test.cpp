// The dynamic library loader, library information tables and the library's
// version header. The test libraries live in a folder on LD_LIBRARY_PATH, set
// by the test driver.
#include <gtest/gtest.h>

#include <algorithm>

#include "zqcommon/bug.h"
#include "zqcommon/dynlib.h"
#include "zqcommon/library_info.h"
#include "zqcommon/version.h"

TEST(DynLib, FailedSearchJoinsThreeLoaderTexts) {
  std::string error = "stale";
  DynLibLoader loader("zq_no_such_library", error);
  for (const char* tried : {"libzq_no_such_library.so", "\r\nlibzq_no_such_library.la", "\r\nzq_no_such_library.so"}) {
    EXPECT_NE(error.find(tried), std::string::npos) << error;
  }
  EXPECT_EQ(error.find("\r\nzq_no_such_library.la"), std::string::npos) << error;
  EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 2) << error;
  EXPECT_EQ(loader["zqinfotest_answer"], nullptr);
}

TEST(DynLib, SymbolsByExactLibraryNameOrFromAll) {
  std::string error = "untouched";
  DynLibLoader loader("zqinfotest", error);
  ASSERT_EQ(error, "");
  ASSERT_TRUE(loader.Load("zqnoinfo", error));
  error = "untouched";
  void* address = nullptr;
  ASSERT_TRUE(loader.GetSymbol("", "zqnoinfo_answer", &address, error));
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 1);
  EXPECT_TRUE(loader.GetSymbol("zqinfotest", "zqinfotest_answer", nullptr, error));
  // Only the exact name finds a library: no case folding, no trimming.
  for (const char* name : {"ZQINFOTEST", "zqinfotest "}) {
    EXPECT_FALSE(loader.GetSymbol(name, "zqinfotest_answer", &address, error));
    EXPECT_EQ(address, nullptr);
  }
  EXPECT_EQ(error, "untouched");
  EXPECT_FALSE(loader.GetSymbol("zqinfotest", "no_such_symbol", &address, error));
  EXPECT_NE(error.find("no_such_symbol"), std::string::npos) << error;
  // Loading a name again keeps the first entry.
  EXPECT_TRUE(loader.Load("zqinfotest", error));
  EXPECT_NE(loader["zqinfotest_answer"], nullptr);
  // An empty name opens the program itself.
  error = "kept";
  DynLibLoader self("", error);
  EXPECT_EQ(error, "kept");
  EXPECT_EQ(self["_DEBUG_LEVEL"], static_cast<void*>(&_DEBUG_LEVEL));
}

TEST(DynLib, LibraryInformationTables) {
  std::vector<std::string> info = {"old"};
  ASSERT_TRUE(GetLibraryInfo("zqinfotest", info));
  EXPECT_EQ(info, (std::vector<std::string>{"zqinfotest 1.0", "built for tests"}));
  EXPECT_TRUE(GetLibraryInfo("zqinfoempty", info));
  EXPECT_TRUE(info.empty());
  EXPECT_FALSE(GetLibraryInfo("zqnoinfo", info));
  ASSERT_EQ(info.size(), 1u);
  EXPECT_NE(info[0].find("zqnoinfo_LIBRARYINFO"), std::string::npos) << info[0];
  EXPECT_FALSE(GetLibraryInfo("zq_no_such_library", info));
  ASSERT_EQ(info.size(), 1u);
  EXPECT_NE(info[0].find("\r\n"), std::string::npos);
}

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
  const std::string engines[] = {"CRC-32 vpclmulqdq", "CRC-32 pclmulqdq", "CRC-32 slice-by-8"};
  EXPECT_NE(std::find(std::begin(engines), std::end(engines), info[3]), std::end(engines)) << info[3];
  // The loader found the same library this program runs with.
  for (size_t i = 0; i < info.size(); ++i) EXPECT_EQ(info[i], zqcommon_LIBRARYINFO[i]);
  EXPECT_EQ(zqcommon_LIBRARYINFO[4], nullptr);
}
