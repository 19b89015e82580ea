// Symmetric ciphers chosen by name at run time.
#ifndef ZQSECURITY_ENCRYPTION_H
#define ZQSECURITY_ENCRYPTION_H

#include <memory>
#include <string>

#include "zqcommon/export.h"

typedef struct evp_cipher_st EVP_CIPHER;
typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;

namespace ZQSecurity {

// Encrypts and decrypts byte buffers with any cipher OpenSSL knows by name
// ("aes-128-cbc", "bf-cbc", ...). One context encrypts and another decrypts,
// both keyed alike, so an object can do both alternately. Each call continues
// from the state the previous call on the same context left.
//
// Keys come raw (with an initialisation vector) or from a pass phrase
// (EVP_BytesToKey with RIPEMD-160, 3 iterations and a fixed salt: the same
// phrase always gives the same key and vector). Failures are results: an
// unknown name empties GetMethod(), setkey answers false, encrypt/decrypt 0.
// Not locked: one object serves one thread at a time.
class ZQ_EXPORT Cipher {
 public:
  explicit Cipher(const std::string& method);
  ~Cipher();
  Cipher(const Cipher&) = delete;
  Cipher& operator=(const Cipher&) = delete;

  // Selects a cipher; a key must be set afterwards.
  bool SetMethod(const std::string& method);
  const std::string& GetMethod() const { return cipher; }
  unsigned int blocksize();
  // The key length set in the encrypting context; 0 before a key is set.
  unsigned int keysize();
  unsigned int maxkeysize() { return 32; }
  // A raw key and vector. A key shorter than the one in force is refused (a
  // longer one is accepted: kept as it always behaved); a fixed-length cipher
  // keeps its own length.
  bool setkey(const void* key, unsigned int keylength, const void* iv);
  bool setkey(const std::string& passphrase);
  // The bytes written to `out`, which needs room for `length` plus one block.
  unsigned int encrypt(const void* in, unsigned int length, void* out);
  unsigned int decrypt(const void* in, unsigned int length, void* out);
  // Wipes the key material of both contexts.
  void burn();
  // The names the installed `openssl` tool lists as cipher commands, joined
  // by commas; "" without the tool.
  static std::string supportedMethods();

 private:
  struct CtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const;
  };
  unsigned int run(EVP_CIPHER_CTX* ctx, bool encrypting, const void* in, unsigned int length,
                   void* out);

  std::string cipher;
  std::unique_ptr<EVP_CIPHER_CTX, CtxFree> ectx, dctx;
  const EVP_CIPHER* c = nullptr;
  bool keyed = false;
};

}  // namespace ZQSecurity

#endif
