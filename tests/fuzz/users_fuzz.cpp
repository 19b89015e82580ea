// Fuzz target: the users file. The input's first line is a password, the rest
// is loaded as a users file (written to a temporary file); when it loads, the
// password is checked against every user it names. Hashes whose scrypt cost
// exceeds a small bound are not checked (a loaded file may rightly ask for
// seconds of work per check), so each input stays fast.
#include <unistd.h>
#include <zqsecurity/userfile.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// N*r*p of "scrypt$N$r$p$..." (read as the loader reads numbers, so leading
// zeros and signs count), or 0 when the text does not start so.
unsigned long long cost(const char* hash) {
  unsigned long long n = 0, r = 0, p = 0;
  if (std::sscanf(hash, "scrypt$%llu$%llu$%llu$", &n, &r, &p) != 3) return 0;
  return n > 1u << 20 || r > 64 || p > 64 ? ~0ull : n * r * p;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto nl = input.find('\n');
  const std::string password = input.substr(0, nl);
  const std::string file = nl == std::string::npos ? "" : input.substr(nl + 1);

  char path[] = "/tmp/zqusersfuzzXXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return 0;
  const bool written = write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size());
  close(fd);
  ZQSecurity::UserFile users;
  std::string error;
  const bool loaded = written && users.Load(path, error);
  unlink(path);
  if (!loaded) return 0;

  // Check the password against every user the file names, unless one of its
  // hashes (any line, any section) is expensive.
  for (auto at = file.find("scrypt$"); at != std::string::npos; at = file.find("scrypt$", at + 1)) {
    if (cost(file.c_str() + at) > 4096) return 0;
  }
  size_t start = 0;
  while (start < file.size()) {
    size_t end = file.find('\n', start);
    if (end == std::string::npos) end = file.size();
    const std::string line = file.substr(start, end - start);
    start = end + 1;
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string name = line.substr(0, eq);
    name.erase(0, name.find_first_not_of(" \t"));
    name.erase(name.find_last_not_of(" \t") + 1);
    const ZQSecurity::AccessLevel known = users.LevelOf(name);
    if (known == ZQSecurity::kNoAccess) continue;
    const ZQSecurity::AccessLevel level = users.Verify(name, password);
    if (level != ZQSecurity::kNoAccess && level != known) std::abort();
    const auto hash_at = line.find("scrypt$", eq);
    if (hash_at != std::string::npos) ZQSecurity::UserFile::CheckHash(line.substr(hash_at), password);
  }
  return 0;
}
