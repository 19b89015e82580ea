// Fuzz target: the users file. The input's first line is a password, the rest
// is loaded as a users file (written to a temporary file); when it loads, the
// password is checked against every user it names. Hashes whose scrypt cost
// exceeds a small bound are not checked (a loaded file may rightly ask for
// seconds of work per check), so each input stays fast.
#include <zqcommon/functions.h>
#include <zqsecurity/userfile.h>

#include "fuzz_input.h"

namespace {

// N*r*p of the "scrypt$N$r$p$..." at `at` in `text`, each number read as the
// loader reads it: up to the first byte that is not a digit, a NUL included
// (so "16<NUL>x" counts as 16); signs count as large.
unsigned long long cost(const std::string& text, size_t at) {
  unsigned long long f[3] = {};
  at = text.find('$', at);
  for (unsigned long long& v : f) {
    if (at == std::string::npos) return 0;
    v = std::strtoull(text.c_str() + at + 1, nullptr, 10);
    at = text.find('$', at + 1);
  }
  return f[0] > 1u << 20 || f[1] > 64 || f[2] > 64 ? ~0ull : f[0] * f[1] * f[2];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input = fuzz_text(data, size);
  const auto nl = input.find('\n');
  const std::string password = input.substr(0, nl);
  const std::string file = nl == std::string::npos ? "" : input.substr(nl + 1);

  const std::string path = fuzz_file(file);
  ZQSecurity::UserFile users;
  std::string error;
  const bool loaded = users.Load(path, error);
  unlink(path.c_str());
  if (!loaded) return 0;

  // Check the password against every user the file names, unless one of its
  // hashes (any line, any section) is expensive.
  for (auto at = file.find("scrypt$"); at != std::string::npos; at = file.find("scrypt$", at + 1)) {
    if (cost(file, at) > 4096) return 0;
  }
  fuzz_lines(file, file.size(), [&](const std::string& line) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) return;
    const std::string name = Trim(line.substr(0, eq));  // as the loader reads it
    const ZQSecurity::AccessLevel known = users.LevelOf(name);
    if (known == ZQSecurity::kNoAccess) return;
    const ZQSecurity::AccessLevel level = users.Verify(name, password);
    if (level != ZQSecurity::kNoAccess && level != known) std::abort();
    const auto hash_at = line.find("scrypt$", eq);
    if (hash_at != std::string::npos) ZQSecurity::UserFile::CheckHash(line.substr(hash_at), password);
  });
  return 0;
}
