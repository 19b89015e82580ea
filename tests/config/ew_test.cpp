// Typed configuration structures: conversions, Load and Save.
#include <gtest/gtest.h>

#include "support/config_text.h"
#include "support/exception_text.h"

#include <climits>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "zqcommon/ew.h"

using namespace zqcommon;

namespace {

struct Timing : Config_Data {
  int cycle = 10;
  double gain = 1.5;
  Timing() {
    Register("cycle", cycle, Config_Data_INIT.LS, "ms", "cycle time");
    Register("gain", gain);
  }
};

struct App : Config_Data {
  int buffer = 4096;
  unsigned mask = 0x1f;
  long long big = 3LL << 20;
  double zero = 0.0;
  std::string name = "station";
  bool verbose = false;
  char tag[4] = {'a', 'b', 0, 0};
  SuperEnumSet<Config_DataAcessMode> modes = Config_Data_INIT.RW;
  int readonly = 5;
  Timing timing;
  std::vector<std::string> changed_vars;
  std::vector<std::string> changed_names;

  App() {
    Register("buffer", buffer, Config_Data_INIT.LS, "bytes", "buffer size", cfg_STORAGE);
    Register("mask", mask, Config_Data_INIT.LS, "", "", cfg_HEXADECIMAL);
    Register("big", big, Config_Data_INIT.LS, "", "", cfg_STORAGE);
    Register("zero", zero);
    Register("name", name);
    Register("verbose", verbose);
    RegisterChars("tag", tag, sizeof tag);
    Register("modes", modes);
    Register("readonly", readonly, Config_Data_INIT.S);
    Register("Timing", timing);
  }

 protected:
  void Var_Changed(const std::string& n, void*) override { changed_vars.push_back(n); }
  void Config_Changed(Config_File&, const std::string&,
                      const std::vector<std::string>& names) override {
    changed_names = names;
  }
};

}  // namespace

TEST(ConfigData, MemberTextByKind) {
  App app;
  const std::pair<const char*, const char*> shown[] = {
      {"buffer", "4k"}, {"big", "3M"}, {"mask", "0x1f"}, {"zero", "0"},
      {"Timing.gain", "1.5"}, {"tag", "ab"}, {"modes", "R,W"}, {"verbose", "0"}};
  for (const auto& [name, text] : shown) EXPECT_EQ(app.GetEntry(name).Value(), text) << name;
  app.buffer = 1000;
  EXPECT_EQ(app.GetEntry("buffer").Value(), "1000");
  app.timing.gain = 2.0;
  EXPECT_EQ(app.GetEntry("Timing.gain").Value(), "2");

  // Sizes: a suffix right after the number counts, the rest is ignored;
  // a refused text leaves the member alone.
  Config_Data_Entry& buffer = app.GetEntry("buffer");
  const struct { const char* text; bool ok; int value; } sizes[] = {
      {"+2M", true, 2 << 20}, {"0x10k", true, 16 << 10}, {"4kB", true, 4096}, {"4B", false, 4096}, {"x", false, 4096}};
  for (const auto& s : sizes) {
    EXPECT_EQ(buffer = s.text, s.ok) << s.text;
    EXPECT_EQ(app.buffer, s.value) << s.text;
  }
  // Entry, text -> accepted, the entry's text after. Other bases are
  // unchecked; booleans take numbers only; a refused set is left empty.
  const std::tuple<const char*, const char*, bool, const char*> sets[] = {
      {"big", "-3G", true, "-3G"},    {"mask", "abc", true, "0"}, {"verbose", "true", true, "0"},
      {"verbose", "2", true, "1"},    {"tag", "wxyz", true, "wxyz"}, {"modes", "Q", false, ""}};
  for (const auto& [name, text, ok, after] : sets) {
    EXPECT_EQ(app.GetEntry(name) = text, ok) << name << "=" << text;
    EXPECT_EQ(app.GetEntry(name).Value(), after) << name << "=" << text;
  }
  EXPECT_EQ(app.big, -(3LL << 30));
  EXPECT_EQ(std::memcmp(app.tag, "wxyz", 4), 0);  // filled: no terminator
  EXPECT_TRUE(app.GetEntry("modes") += "L");
  EXPECT_EQ(app.GetEntry("modes").Value(), "L");
  // Integers do not notify the owner; the others do.
  EXPECT_EQ(app.changed_vars, (std::vector<std::string>{"verbose", "verbose", "tag"}));
}

TEST(ConfigData, LoadWithSuffixesMarkersAndSubSections) {
  Config_File file = config_from_text(
      "[App]\n"
      "buffer = 8k # _U{ KiB } _D{ ring size }\n"
      "readonly = 99\n"
      "name = base\n"
      "[App.site]\n"
      "name = override\n"
      "[App.Timing]\n"
      "cycle = 20 # _U{s} _D{slow cycle}\n");
  App app;
  std::vector<std::string> suffixes = {"", ".site"};
  app.Load(file, "App", &suffixes);
  EXPECT_EQ(app.buffer, 8192);
  EXPECT_EQ(app.GetEntry("buffer").Unit(), "KiB");
  EXPECT_EQ(app.GetEntry("buffer").Description(), "ring size");
  EXPECT_EQ(app.name, "override");
  EXPECT_EQ(app.readonly, 5);  // no cfg_LOAD: not assigned ...
  EXPECT_EQ(app.GetEntry("readonly").Line(), 3);  // ... but its line is known
  EXPECT_EQ(app.timing.cycle, 20);
  EXPECT_EQ(app.GetEntry(&app.timing.cycle).Unit(), "s");
  EXPECT_EQ(app.GetPath(&app.timing.cycle), "Timing.cycle");
  EXPECT_EQ(app.GetDescription(&app.timing.cycle), "slow cycle");
  EXPECT_EQ(app.changed_names, (std::vector<std::string>{"buffer", "name", "name"}));
  EXPECT_EQ(app.zero, 0.0);  // missing entries keep their defaults
}

TEST(ConfigData, SaveUpdatesKnownLinesAndAddsDescribedEntries) {
  Config_File file = config_from_text("[App]\nreadonly = 1   # keep this\n\n");
  App app;
  app.Load(file, "App");
  app.readonly = 7;
  app.Save(file, Config_Data_INIT.LS, "App");
  EXPECT_EQ(file.get_line(2).data, "readonly = 7   # keep this");
  EXPECT_EQ(file.get_entry("App.Timing", "cycle", "") + " " + file.get_entry("App.Timing", "gain", ""), "10 1.5");

  Config_File fresh;
  App other;
  other.Save(fresh, Config_Data_INIT.LS, "Cfg");
  int line = 0;
  std::string comment;
  EXPECT_EQ(fresh.get_entry("Cfg", "buffer", "", &comment, &line), "4k");
  EXPECT_EQ(fresh.get_line(line).data,
            "buffer = 4k                  # _A{L,S} _U{bytes} _D{buffer size}");
  EXPECT_EQ(other.GetEntry("buffer").Line(), line);
  EXPECT_EQ(fresh.get_entry("Cfg", "big", "") + " " + fresh.get_entry("Cfg", "zero", ""), "3M 0");

  // A second save updates the same lines in place, and Load reads them back.
  other.buffer = 1 << 30;
  other.big = -(5LL << 30);
  other.Save(fresh, Config_Data_INIT.LS, "Cfg");
  EXPECT_EQ(fresh.get_entry("Cfg", "buffer", "") + " " + fresh.get_entry("Cfg", "big", ""), "1G -5G");
  App back;
  back.Load(fresh, "Cfg");
  EXPECT_TRUE(back.buffer == 1 << 30 && back.big == -(5LL << 30)) << back.buffer << " " << back.big;
  EXPECT_EQ(back.GetEntry("modes").Value(), "R,W");

  // Nothing of the filter's modes: nothing saved.
  Config_File none;
  App quiet;
  quiet.Save(none, Config_Data_INIT.RW, "Cfg");
  EXPECT_EQ(none.Size(), 0u);
}

TEST(ConfigData, LookupFailuresThrowTheirTexts) {
  Config_Data empty;
  EXPECT_EQ(exception_text([&] { empty.GetEntry("x"); }), "No entry at all");
  App app;
  for (const auto& [path, text] : {std::pair<const char*, const char*>{"nope", "No such entry"},
                                   {"Timing.nope", "No such path to entry"}, {"name.x", "No such path to entry"}})
    EXPECT_EQ(exception_text([&] { app.GetEntry(path); }), text) << path;
  EXPECT_EQ(exception_text([&] { app.GetEntry(size_t{99}); }), "No such entry");
  int stranger = 0;
  EXPECT_EQ(exception_text([&] { app.GetEntry(&stranger); }), "No such entry");
  EXPECT_EQ(app.GetEntry(size_t{0}).Name(), "Timing");  // name order: upper case first
  EXPECT_EQ(app.Size(), 10u);
  EXPECT_EQ(app.GetEntry("Timing").Type(), cfg_SELF);
  EXPECT_EQ(app.GetEntry("Timing").Description(), "Sub Config Data Structure");
}
