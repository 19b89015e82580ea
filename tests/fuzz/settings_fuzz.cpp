// Fuzz target: a configuration text loaded with every value checked, and
// one value written into it in place. A clean load leaves values that pass
// their check again; after the edit the text reads back the value written
// and every other entry as it was.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "zqcommon/checked_settings.h"
#include "zqcommon/config_edit.h"
#include "zqcommon/ew.h"
#include "zqcommon/functions.h"
#include "zqcommon/setting_check.h"

namespace {

struct Settings : zqcommon::Config_Data {
  int i = 0, scaled = 0;
  unsigned int u = 0;
  long long l = 0;
  double d = 0;
  bool b = false;
  std::string s;
  char chars[8] = {};
  Settings() {
    Register("i", i);
    Register("u", u);
    Register("l", l);
    Register("scaled", scaled, zqcommon::Config_Data_INIT.LS, "", "", zqcommon::cfg_STORAGE);
    Register("d", d);
    Register("b", b);
    Register("s", s);
    RegisterChars("chars", chars, sizeof chars);
  }
};

Config_File parsed(const std::string& text) {
  std::istringstream in(text);
  return Config_File(in);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  static const zqcommon::Setting_Check rules = [] {
    zqcommon::Setting_Check r;
    r.Integer("S.i", -5, 70000).Real("S.d", -1, 1).Text("S.s", 5).Choice("S.l", {"1", "2"});
    return r;
  }();
  Settings settings;
  zqcommon::Checked_Settings checked(&rules);
  checked.Add("S", settings);
  Config_File file = parsed(text);
  if (checked.Load(file).empty()) {
    for (const std::string& key : file.get_section_entries("S")) {
      if (!checked.Problem("S." + key, file.get_entry("S", key, "")).empty()) std::abort();
    }
  }
  // The edit's promise holds for text the reader takes whole.
  if (text.find('\0') != std::string::npos || text.find('\r') != std::string::npos) return 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.size() > 1000) return 0;
  }
  const std::string edited = zqcommon::Config_Edit::Apply(text, "S", "k", "v1");
  Config_File after = parsed(edited);
  if (after.get_entry("S", "k", "") != "v1") std::abort();
  for (const std::string& section : file.get_sections()) {
    for (const std::string& key : file.get_section_entries(section)) {
      if (((section ^= "S") && (key ^= "k")) || section == "@@Argline") continue;
      if (after.get_entry(section, key, "\x01") != file.get_entry(section, key, "\x01")) std::abort();
    }
  }
  return 0;
}
