// Values written into an operator's file in place, and saves against a file
// changed meanwhile.
#include <gtest/gtest.h>

#include <fstream>

#include "support/scratch_dir.h"
#include "zqcommon/config_edit.h"

TEST(ConfigEdit, OnlyTheValueChanges) {
  // Each row: the text, the Section.Key set to "90", the text expected.
  const struct { const char* text; const char* section; const char* key; const char* expected; } rows[] = {
      {"[S]\r\nHigh = 80         # above warns\r\n\r\n# end\r\n", "S", "High",
       "[S]\r\nHigh = 90         # above warns\r\n\r\n# end\r\n"},
      {"[S]\nhigh=8000 # c\n", "s", "HIGH", "[S]\nhigh=90   # c\n"},
      {"[S]\nHigh = 1 #c\n", "S", "High", "[S]\nHigh = 90 #c\n"},  // one blank stays
      {"[S]\nHigh =\nLow = 1\n", "S", "High", "[S]\nHigh = 90\nLow = 1\n"},
      {"[S]\nHigh = # none yet\n", "S", "High", "[S]\nHigh = 90 # none yet\n"},
      {"[S]\nA = 1\n\n# about T\n[T]\nB = 2", "S", "High", "[S]\nA = 1\nHigh = 90\n\n# about T\n[T]\nB = 2"},  // the last line keeps its missing end
      {"# only a comment", "S", "High", "# only a comment\n\n[S]\nHigh = 90\n"},
      {"", "S", "High", "[S]\nHigh = 90\n"},
      {"[S]\nHigh = 1\n[S]\nHigh = 2\n", "S", "High", "[S]\nHigh = 90\n[S]\nHigh = 2\n"},
      {"[T]\nHigh = 1\n[S]\n", "S", "High", "[T]\nHigh = 1\n[S]\nHigh = 90\n"},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(zqcommon::Config_Edit::Apply(r.text, r.section, r.key, "90"), r.expected) << "row: " << r.text;
  }
}

TEST(ConfigEdit, SavesMergeOtherEditsAndRefuseConflicts) {
  ScratchDir dir;
  const std::string path = dir / "a.cfg";
  std::ofstream(path) << "[S]\nA = 1\nB = 2\n";
  zqcommon::Config_Edit edit(path);
  std::string why;
  ASSERT_TRUE(edit.Read(&why)) << why;
  EXPECT_FALSE(edit.Set("S", "A", "a # b"));
  ASSERT_TRUE(edit.Set("S", "A", "5"));
  EXPECT_EQ(edit.Save(&why), zqcommon::Config_Edit::kSaved) << why;
  EXPECT_EQ(slurp(path), "[S]\nA = 5\nB = 2\n");

  std::ofstream(path) << "[S]\nA = 5\nB = 3 # by hand\n";
  edit.Set("S", "A", "6");
  EXPECT_EQ(edit.Save(&why), zqcommon::Config_Edit::kMerged);
  EXPECT_EQ(slurp(path), "[S]\nA = 6\nB = 3 # by hand\n");

  std::ofstream(path) << "[S]\nA = 7\nB = 3\n";
  edit.Set("S", "A", "8");
  EXPECT_EQ(edit.Save(&why), zqcommon::Config_Edit::kConflict);
  EXPECT_NE(why.find("S.A was changed in " + path + " since it was read (now '7')"), std::string::npos) << why;
  EXPECT_EQ(slurp(path), "[S]\nA = 7\nB = 3\n");
}
