// Checked loading of settings structures from a file and the command line.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/config_text.h"
#include "zqcommon/checked_settings.h"
#include "zqcommon/ew.h"
#include "zqcommon/setting_check.h"

namespace {

struct Sub : zqcommon::Config_Data {
  Sub() { Register("Depth", depth); }
  int depth = 3;
};

struct App : zqcommon::Config_Data {
  App() {
    Register("Port", port);
    Register("Gain", gain);
    Register("Flag", flag);
    Register("Bytes", bytes, zqcommon::Config_Data_INIT.LS, "", "", zqcommon::cfg_STORAGE);
    Register("Count", count);
    Register("Name", name);
    Register("Mode", mode);
    RegisterChars("Tag", tag, sizeof tag);
    Register("Trace", sub);
  }
  int port = 7600;
  double gain = 1.0;
  bool flag = false;
  long long bytes = 1024;
  unsigned int count = 1;
  std::string name = "x";
  std::string mode = "preferred";
  char tag[4] = "ab";
  Sub sub;
};

// App's settings under [App], checked by these rules.
struct Checked {
  zqcommon::Setting_Check table;
  App app;
  zqcommon::Checked_Settings checked{&table};
  Checked() {
    table.Integer("App.Port", 1, 65535).Text("App.Name", 8).Choice("App.Mode", {"required", "preferred"});
    checked.Add("App", app);
  }
};

// A file read from text under a name, as if read from disk.
struct NamedFile : Config_File {
  NamedFile(const std::string& text, const std::string& name) {
    std::istringstream in(text);
    parse(in);
    fname = name;
  }
};

std::string joined(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& p : v) s += p + "\n";
  return s;
}

}  // namespace

TEST(CheckedSettings, FileValuesMustBeWholeAndInRange) {
  // One setting per row: the line in [App] and the problem expected ("" when it loads).
  const struct { const char* line; const char* problem; } rows[] = {
      {"Port = 7810", ""},
      {"Port = 78l0", "x.cfg:2: App.Port = '78l0': not an integer"},
      {"Port = 0x10", "not an integer in 1..65535"},  // the range is given in decimal
      {"Port = 010", "leading 0, which reads as octal"},
      {"Count = 0x10", ""},
      {"Port = 70000", "App.Port = '70000': not an integer in 1..65535"},
      {"Port = 99999999999", "not an integer"},
      {"Port =", "App.Port = '': not an integer"},
      {"Gain = 2.5", ""},
      {"Gain = 2,5x", "App.Gain = '2,5x': not a number"},
      {"Gain = nan", "not a number"},
      {"Flag = yes", "App.Flag = 'yes': not 0 or 1"},
      {"Flag = 1", ""},
      {"Bytes = 4k", ""},
      {"Bytes = 4q", "not an integer (k, M or G allowed)"},
      {"Count = -1", "not an integer in 0..4294967295"},
      {"Name = eightchr", ""},
      {"Name = ninechars", "longer than 8 characters"},
      {"Mode = Required", ""},
      {"Mode = maybe", "App.Mode = 'maybe': not one of required, preferred"},
      {"Tag = abcd", "App.Tag = 'abcd': longer than 3 characters"},
      {"Prot = 1", "App.Prot = '1': no setting Prot in [App]"},
  };
  for (const auto& r : rows) {
    Checked s;
    NamedFile file(std::string("[App]\n") + r.line + "\n", "x.cfg");
    const auto problems = s.checked.Load(file);
    if (*r.problem == 0) {
      EXPECT_TRUE(problems.empty()) << "row '" << r.line << "': " << joined(problems);
    } else {
      ASSERT_EQ(problems.size(), 1u) << "row '" << r.line << "': " << joined(problems);
      EXPECT_NE(problems[0].find(r.problem), std::string::npos) << "row '" << r.line << "': " << problems[0];
      EXPECT_EQ(s.app.port, 7600) << "row '" << r.line << "': a file with a problem loads nothing";
    }
  }
}

TEST(CheckedSettings, EveryProblemIsReportedAndGoodFilesLoadWithSubsections) {
  Checked s;
  Config_File bad = config_from_text("[App]\nPort = 1x\nGain = 2,5\n[App.Trace]\nDepth = deep\n[Other]\nAny = thing\n");
  EXPECT_EQ(s.checked.Load(bad).size(), 3u);
  Config_File good = config_from_text("[App]\nPort = 81 # web\nGain = -1e3\n[App.Trace]\nDepth = 7\n");
  EXPECT_TRUE(s.checked.Load(good).empty());
  EXPECT_EQ(s.app.port, 81);
  EXPECT_EQ(s.app.gain, -1000.0);
  EXPECT_EQ(s.app.sub.depth, 7);
  EXPECT_EQ(s.app.GetEntry("Port").Line(), 2);  // loaded through Config_Data::Load: lines known
}

TEST(CheckedSettings, CommandLineOverridesAreTakenCheckedAndApplied) {
  // Each row: the arguments after the program's name, the arguments left,
  // and the problem expected ("" when all apply).
  const struct { std::vector<const char*> args; const char* left; const char* problem; } rows[] = {
      {{"-f", "a.cfg", "App.Port=81", "App.Name="}, "-f a.cfg", ""},
      {{"App.Port=78l0"}, "", "command line:1: App.Port = '78l0': not an integer"},
      {{"-d", "2", "Nope.Port=1"}, "-d 2", "command line:3: Nope.Port = '1': no section [Nope]"},
      {{"App.Gian=1"}, "", "no setting Gian in [App]"},
      {{"app.trace.depth=9", "--x=y.z"}, "--x=y.z", ""},
  };
  for (const auto& r : rows) {
    Checked s;
    std::vector<char*> argv{const_cast<char*>("prog")};
    for (const char* a : r.args) argv.push_back(const_cast<char*>(a));
    argv.push_back(nullptr);
    int argc = static_cast<int>(argv.size()) - 1;
    s.checked.TakeOverrides(argc, argv.data());
    std::string left;
    for (int i = 1; i < argc; ++i) left += std::string(left.empty() ? "" : " ") + argv[i];
    EXPECT_EQ(left, r.left) << "row " << r.args.size() << " args, first " << r.args[0];
    const auto problems = s.checked.ApplyOverrides();
    if (*r.problem == 0) {
      EXPECT_TRUE(problems.empty()) << "row " << r.args[0] << ": " << joined(problems);
    } else {
      ASSERT_EQ(problems.size(), 1u) << "row " << r.args[0] << ": " << joined(problems);
      EXPECT_NE(problems[0].find(r.problem), std::string::npos) << "row " << r.args[0] << ": " << problems[0];
    }
  }
  Checked s;
  s.checked.AddOverride({1, "App.Name", ""});
  s.checked.AddOverride({2, "App.Trace.Depth", "9"});
  EXPECT_TRUE(s.checked.ApplyOverrides().empty());
  EXPECT_EQ(s.app.name, "");  // an empty value clears a text
  EXPECT_EQ(s.app.sub.depth, 9);
}
