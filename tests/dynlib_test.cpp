// The dynamic library loader and library information tables. The test
// libraries live in a folder on LD_LIBRARY_PATH, set by the test driver.
#include <gtest/gtest.h>

#include "zqcommon/bug.h"
#include "zqcommon/dynlib.h"

TEST(DynLib, FailedSearchJoinsThreeLoaderTexts) {
  std::string error = "stale";
  DynLibLoader loader("zq_no_such_library", error);
  EXPECT_NE(error.find("libzq_no_such_library.so"), std::string::npos) << error;
  EXPECT_NE(error.find("libzq_no_such_library.la"), std::string::npos) << error;
  EXPECT_NE(error.find("zq_no_such_library.so"), std::string::npos) << error;
  EXPECT_EQ(error.find("\r\nzq_no_such_library.la"), std::string::npos) << error;
  size_t joins = 0;
  for (size_t p = 0; (p = error.find("\r\n", p)) != std::string::npos; p += 2) ++joins;
  EXPECT_EQ(joins, 2u);

  void* address = reinterpret_cast<void*>(1);
  EXPECT_FALSE(loader.GetSymbol("", "zqinfotest_answer", &address, error));
  EXPECT_EQ(address, nullptr);
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
  EXPECT_EQ(error, "untouched");
  EXPECT_TRUE(loader.GetSymbol("zqinfotest", "zqinfotest_answer", nullptr, error));

  // Only the exact name finds a library: no case folding, no trimming.
  EXPECT_FALSE(loader.GetSymbol("ZQINFOTEST", "zqinfotest_answer", &address, error));
  EXPECT_EQ(address, nullptr);
  EXPECT_FALSE(loader.GetSymbol("zqinfotest ", "zqinfotest_answer", &address, error));
  EXPECT_EQ(error, "untouched");

  EXPECT_FALSE(loader.GetSymbol("zqinfotest", "no_such_symbol", &address, error));
  EXPECT_NE(error.find("no_such_symbol"), std::string::npos) << error;

  // Loading a name again keeps the first entry.
  EXPECT_TRUE(loader.Load("zqinfotest", error));
  EXPECT_NE(loader["zqinfotest_answer"], nullptr);
}

TEST(DynLib, EmptyNameOpensTheProgramAndUpperCaseDoesNotMatch) {
  std::string error = "kept";
  DynLibLoader self("", error);
  EXPECT_EQ(error, "kept");
  EXPECT_EQ(self["_DEBUG_LEVEL"], static_cast<void*>(&_DEBUG_LEVEL));

  std::string e2;
  DynLibLoader upper("ZQINFOTEST", e2);  // no libZQINFOTEST.so exists
  EXPECT_FALSE(e2.empty());
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
