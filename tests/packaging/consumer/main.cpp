// Uses a few installed headers and functions; exits 0 when they answer right.
#include <zqcommon/functions.h>
#include <zqsecurity/crc32.h>
#include <zqsecurity/hash.h>

#include <cstdio>

int main() {
  const std::string text = Format("%s", "123456789");
  ZQSecurity::Hash sha1("sha1");
  const bool ok = mk_crc32(text.data(), text.size()) == 0x2DFD2D88u &&
                  sha1.mkHashText("abc", 3) == "a9993e364706816aba3e25717850c26c9cd0d89d";
  std::puts(ok ? "consumer ok" : "consumer FAILED");
  return ok ? 0 : 1;
}
