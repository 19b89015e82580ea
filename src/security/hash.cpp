// Digests by name: OpenSSL's EVP layer plus the built-in CRCs.
#include "zqsecurity/hash.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstring>

#include "core/chartype.h"
#include "security/openssl_init.h"
#include "security/tool_listing.h"
#include "zqcommon/functions.h"
#include "zqsecurity/crc16.h"
#include "zqsecurity/crc32.h"

namespace ZQSecurity {

void Hash::CtxFree::operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
void Hash::MdFree::operator()(EVP_MD* m) const { EVP_MD_free(m); }

Hash::Hash(const std::string& method) { SetMethod(method); }

Hash::~Hash() = default;

bool Hash::SetMethod(const std::string& method) {
  hashname = method;
  builtin = hashname == "crc32" || hashname == "crc16";
  if (builtin) {
    ctx.reset();
    return true;
  }
  zqdetail::openssl_load_providers();
  fetched.reset();
  md = EVP_get_digestbyname(hashname.c_str());
  if (md == nullptr && !hashname.empty()) {
    // Names that only a provider knows (e.g. "SHA2-256") are fetched.
    fetched.reset(EVP_MD_fetch(nullptr, hashname.c_str(), nullptr));
    md = fetched.get();
  }
  if (md == nullptr) {
    hashname.clear();
    ctx.reset();
    return false;
  }
  ctx.reset(EVP_MD_CTX_new());
  return ctx != nullptr;
}

bool Hash::mkHash(const void* data, unsigned int length, void* out, unsigned int* outlength) {
  if (data == nullptr || out == nullptr) return false;
  if (builtin) {
    if (hashname == "crc32") {
      const uint32_t crc = mk_crc32(data, length);
      std::memcpy(out, &crc, sizeof crc);
      if (outlength != nullptr) *outlength = sizeof crc;
    } else {
      const uint16_t crc = static_cast<uint16_t>(mk_crc16(data, length));
      std::memcpy(out, &crc, sizeof crc);
      if (outlength != nullptr) *outlength = sizeof crc;
    }
    return true;
  }
  if (md == nullptr || ctx == nullptr) return false;
  unsigned int n = 0;
  if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), data, length) != 1 ||
      EVP_DigestFinal_ex(ctx.get(), static_cast<unsigned char*>(out), &n) != 1) {
    return false;
  }
  if (outlength != nullptr) *outlength = n;
  return true;
}

std::string Hash::mkHashText(const void* data, unsigned int length) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (!mkHash(data, length, digest, &n)) return std::string();
  std::string text;
  zqdetail::append_hex(text, digest, n);
  return text;
}

unsigned int Hash::blocksize() {
  if (builtin) return hashname == "crc32" ? 4 : 2;
  if (md == nullptr) return 0;
  const int n = EVP_MD_get_size(md);
  return n > 0 ? static_cast<unsigned int>(n) : 0;
}

unsigned int Hash::size() { return blocksize() * 8; }

std::string Hash::supportedMethods() {
  return zqdetail::tool_listing("openssl list -digest-commands 2>/dev/null", "crc32,crc16,");
}

}  // namespace ZQSecurity
