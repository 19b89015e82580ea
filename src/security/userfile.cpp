// The users file: levels and scrypt password hashes.
#include "zqsecurity/userfile.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "core/atomic_file.h"
#include "core/chartype.h"
#include "zqcommon/functions.h"

namespace ZQSecurity {

namespace {

constexpr uint64_t kCostN = 16384;
constexpr uint32_t kCostR = 8, kCostP = 1;
constexpr size_t kSaltBytes = 16, kKeyBytes = 32;
// Limits on what a hash in the file may ask for, so that a damaged or hostile
// file cannot make one check take minutes or gigabytes.
constexpr uint64_t kMaxN = 1u << 20;
constexpr uint32_t kMaxRP = 16;

typedef std::vector<unsigned char> Bytes;

bool scrypt(const std::string& password, const Bytes& salt, uint64_t n, uint32_t r, uint32_t p, Bytes& key) {
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "SCRYPT", nullptr);
  EVP_KDF_CTX* ctx = kdf != nullptr ? EVP_KDF_CTX_new(kdf) : nullptr;
  EVP_KDF_free(kdf);
  if (ctx == nullptr) return false;
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, const_cast<char*>(password.data()),
                                        password.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<unsigned char*>(salt.data()),
                                        salt.size()),
      OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &n),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &r),
      OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &p),
      OSSL_PARAM_construct_end()};
  const bool ok = EVP_KDF_derive(ctx, key.data(), key.size(), params) == 1;
  EVP_KDF_CTX_free(ctx);
  return ok;
}

std::string hex(const Bytes& b) {
  std::string out;
  zqdetail::append_hex(out, b.data(), b.size());
  return out;
}

bool unhex(const std::string& text, Bytes& out) {
  if (text.empty() || text.size() % 2 != 0 || text.size() > 256) return false;
  out.clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    char* end = nullptr;
    const std::string pair = text.substr(i, 2);
    const unsigned long v = std::strtoul(pair.c_str(), &end, 16);
    if (end != pair.c_str() + pair.size() || !isxdigit(static_cast<unsigned char>(pair[0]))) return false;
    out.push_back(static_cast<unsigned char>(v));
  }
  return true;
}

bool number(const std::string& text, uint64_t limit, uint64_t& value) {
  char* end = nullptr;
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return false;
  value = std::strtoull(text.c_str(), &end, 10);
  // The whole field: a NUL inside it does not end the number early.
  return end == text.c_str() + text.size() && value >= 1 && value <= limit;
}

// The parts of "scrypt$N$r$p$SALT$KEY"; false when it is not one.
struct Parsed {
  uint64_t n = 0, r = 0, p = 0;
  Bytes salt, key;
};
bool parse_hash(const std::string& hash, Parsed& out) {
  std::vector<std::string> f;
  std::string::size_type start = 0;
  for (;;) {
    const auto d = hash.find('$', start);
    f.push_back(hash.substr(start, d - start));
    if (d == std::string::npos || f.size() > 6) break;
    start = d + 1;
  }
  return f.size() == 6 && f[0] == "scrypt" && number(f[1], kMaxN, out.n) && (out.n & (out.n - 1)) == 0 &&
         out.n > 1 && number(f[2], kMaxRP, out.r) && number(f[3], kMaxRP, out.p) && unhex(f[4], out.salt) &&
         unhex(f[5], out.key);
}

bool valid_name(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  for (const char c : name) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-' && c != '@') return false;
  }
  return true;
}

}  // namespace

// A hash of the current cost that no password matches; made once, when the
// first file is loaded, so that even the first unknown user waits as long.
const std::string& UserFile::unknown_user_hash() {
  static const std::string hash = MakeHash("not a password");
  return hash;
}

const char* UserFile::LevelName(AccessLevel level) {
  switch (level) {
    case kViewer: return "viewer";
    case kOperator: return "operator";
    case kAdmin: return "admin";
    default: return "none";
  }
}

AccessLevel UserFile::ParseLevel(const std::string& text) {
  for (AccessLevel l : {kViewer, kOperator, kAdmin}) {
    if (text == LevelName(l)) return l;
  }
  return kNoAccess;
}

std::string UserFile::MakeHash(const std::string& password) {
  Bytes salt(kSaltBytes), key(kKeyBytes);
  if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) return "";
  if (!scrypt(password, salt, kCostN, kCostR, kCostP, key)) return "";
  return "scrypt$" + std::to_string(kCostN) + "$" + std::to_string(kCostR) + "$" + std::to_string(kCostP) + "$" +
         hex(salt) + "$" + hex(key);
}

bool UserFile::CheckHash(const std::string& hash, const std::string& password) {
  Parsed h;
  if (!parse_hash(hash, h)) return false;
  Bytes key(h.key.size());
  if (!scrypt(password, h.salt, h.n, static_cast<uint32_t>(h.r), static_cast<uint32_t>(h.p), key)) return false;
  return CRYPTO_memcmp(key.data(), h.key.data(), key.size()) == 0;
}

AccessLevel UserFile::Verify(const std::string& name, const std::string& password) const {
  auto it = users_.find(name);
  if (it == users_.end()) {
    CheckHash(unknown_user_hash(), password);  // the same work as for a known user
    return kNoAccess;
  }
  return CheckHash(it->second.hash, password) ? it->second.level : kNoAccess;
}

AccessLevel UserFile::LevelOf(const std::string& name) const {
  auto it = users_.find(name);
  return it == users_.end() ? kNoAccess : it->second.level;
}

std::vector<std::string> UserFile::Names() const {
  std::vector<std::string> names;
  for (const auto& u : users_) names.push_back(u.first);
  return names;
}

bool UserFile::Set(const std::string& name, AccessLevel level, const std::string& password, std::string& error) {
  if (!valid_name(name)) {
    error = "user name '" + name + "': use letters, digits, '.', '_', '-' or '@'";
    return false;
  }
  if (level == kNoAccess) {
    error = "level: expected viewer, operator or admin";
    return false;
  }
  if (password.empty()) {
    error = "empty password refused";
    return false;
  }
  const std::string hash = MakeHash(password);
  if (hash.empty()) {
    error = "cannot hash the password";
    return false;
  }
  users_[name] = User{level, hash};
  return true;
}

bool UserFile::Load(const std::string& path, std::string& error) {
  error.clear();
  std::ifstream in(path);
  if (!in) {
    error = path + ": cannot read";
    return false;
  }
  std::map<std::string, User> users;
  std::string line;
  bool in_users = false;
  for (int number = 1; std::getline(in, line); ++number) {
    const auto cut = line.find_first_of("#;");
    const std::string text = Trim(cut == std::string::npos ? line : line.substr(0, cut));
    if (text.empty()) continue;
    const std::string where = path + ":" + std::to_string(number) + ": ";
    if (text.front() == '[') {
      in_users = text == "[users]";
      continue;
    }
    if (!in_users) continue;
    const auto eq = text.find('=');
    const auto colon = text.find(':', eq == std::string::npos ? 0 : eq);
    if (eq == std::string::npos || colon == std::string::npos) {
      error = where + "expected name = level:hash";
      return false;
    }
    const std::string name = Trim(text.substr(0, eq));
    User u{ParseLevel(Trim(text.substr(eq + 1, colon - eq - 1))), Trim(text.substr(colon + 1))};
    Parsed check;
    if (!valid_name(name)) error = where + "invalid user name '" + name + "'";
    else if (u.level == kNoAccess) error = where + "unknown level for '" + name + "'";
    else if (!parse_hash(u.hash, check)) error = where + "malformed hash for '" + name + "'";
    if (!error.empty()) return false;
    users[name] = u;
  }
  users_.swap(users);
  unknown_user_hash();
  return true;
}

bool UserFile::Save(const std::string& path, std::string& error) const {
  std::string text = "# Operators of this program: name = level:hash (viewer, operator, admin).\n[users]\n";
  for (const auto& u : users_) text += u.first + " = " + LevelName(u.second.level) + ":" + u.second.hash + "\n";
  if (zqdetail::write_file_atomically(path, text, 0600, true)) return true;
  error = path + ": " + std::strerror(errno);
  return false;
}

AccessLevel UserLevel(const std::string& path, const std::string& identity) {
  UserFile users;
  std::string error;
  return users.Load(path, error) ? users.LevelOf(identity) : kNoAccess;
}

}  // namespace ZQSecurity
