// Fuzz target: text assigned to a Config_Data entry of every kind. The first
// byte picks the entry, the rest is the text. Assignment never crashes; a
// member's own text, assigned again, gives the same text back; the checked
// assignment agrees with its check.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zqcommon/ew.h"
#include "zqcommon/setting_check.h"

namespace {

struct Everything : zqcommon::Config_Data {
  int i = 0, scaled = 0, octal = 0;
  unsigned int u = 0;
  long long l = 0;
  double d = 0;
  std::string s;
  bool b = false;
  char chars[8] = {};
  unsigned char block[6] = {};
  SuperEnum<zqcommon::Config_DataTypes> kind;
  zqcommon::Config_Access access;
  Everything() {
    Register("i", i);
    Register("u", u);
    Register("l", l);
    Register("scaled", scaled, zqcommon::Config_Data_INIT.LS, "", "", zqcommon::cfg_STORAGE);
    Register("octal", octal, zqcommon::Config_Data_INIT.LS, "", "", zqcommon::cfg_OCTAL);
    Register("d", d);
    Register("s", s);
    Register("b", b);
    RegisterChars("chars", chars, sizeof chars);
    RegisterBinary("block", block, sizeof block);
    Register("kind", kind);
    Register("access", access);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  Everything all;
  auto it = all.begin();
  std::advance(it, data[0] % 12);
  zqcommon::Config_Data_Entry& e = it->second;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (e = text) {
    const std::string once = e.Value();
    // Only these kinds promise a round trip: floats and buffers lose
    // precision or bytes, and unsigned, octal and scaled members read their
    // own text of a negative value back clamped (specified lenient parsing).
    const std::string& n = it->first;
    if (n == "i" || n == "l" || n == "s" || n == "b" || n == "kind" || n == "access") {
      if (!(e = once) || e.Value() != once) std::abort();
    }
  }
  e += text;
  e -= text;
  zqcommon::Setting_Check rules;
  rules.Integer("x.i", -5, 5).Size("x.scaled", 0, 1 << 20).Octal("x.octal", 0, 0777).Real("x.d", -1, 1).Text("x.s", 16);
  std::string why;
  const bool allowed = rules.Check("x." + it->first, text, &why);
  if (rules.Assign(e, "x." + it->first, text, &why) && !allowed) std::abort();
  return 0;
}
