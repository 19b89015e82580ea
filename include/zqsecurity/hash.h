// Message digests chosen by name at run time.
#ifndef ZQSECURITY_HASH_H
#define ZQSECURITY_HASH_H

#include <memory>
#include <string>

#include "zqcommon/export.h"

typedef struct evp_md_st EVP_MD;
typedef struct evp_md_ctx_st EVP_MD_CTX;

namespace ZQSecurity {

// Computes a digest of a byte buffer under a method named at run time: any
// digest OpenSSL knows by name ("md5", "sha1", "sha256", "ripemd160", ...)
// plus the built-in "crc32" and "crc16" (exact, case-sensitive names), which
// are stored in host byte order.
//
// Failures are results: an unknown name leaves GetMethod() empty, and then
// mkHash answers false, mkHashText "" and blocksize() 0. Nothing throws.
// Not locked: one object serves one thread at a time (its digest context is
// reused by every call); distinct objects may run in parallel.
class ZQ_EXPORT Hash {
 public:
  explicit Hash(const std::string& method);
  ~Hash();
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;

  // Selects a method; false (and an empty name) when it is unknown.
  bool SetMethod(const std::string& method);
  const std::string& GetMethod() const { return hashname; }

  // Digest of `data` into `out`, which must hold 64 bytes (the largest
  // digest). `outlength`, when given, receives the bytes written. False for a
  // null `data` or `out` (even with length 0) or when no method is set.
  bool mkHash(const void* data, unsigned int length, void* out, unsigned int* outlength);
  // The digest as lower-case hexadecimal text in output byte order; "" on failure.
  std::string mkHashText(const void* data, unsigned int length);

  // The digest length in bytes (the name is historical): 4 for "crc32",
  // 2 for "crc16", 0 when no method is set.
  unsigned int blocksize();
  // The digest length in bits.
  unsigned int size();

  // The names the installed `openssl` tool lists as digest commands, followed
  // by "crc32,crc16", joined by commas. Starts a child process: may be slow.
  // Without the tool the result is "crc32,crc16".
  static std::string supportedMethods();

 private:
  struct CtxFree {
    void operator()(EVP_MD_CTX* ctx) const;
  };
  struct MdFree {
    void operator()(EVP_MD* md) const;
  };

  std::string hashname;
  bool builtin = false;
  const EVP_MD* md = nullptr;                 // the selected digest
  std::unique_ptr<EVP_MD, MdFree> fetched;    // owns `md` when it had to be fetched
  std::unique_ptr<EVP_MD_CTX, CtxFree> ctx;   // null for the built-ins
};

}  // namespace ZQSecurity

#endif
