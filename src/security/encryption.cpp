// Ciphers by name through OpenSSL's EVP layer.
#include "zqsecurity/encryption.h"

#include <openssl/evp.h>

#include "security/openssl_init.h"
#include "security/tool_listing.h"

namespace ZQSecurity {

namespace {
// EVP_BytesToKey reads the first eight bytes of this text as its salt.
const char kSalt[] = "Brindlewood::Quartz::Lanterns::over::Meadowly";
}  // namespace

void Cipher::CtxFree::operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }

Cipher::Cipher(const std::string& method)
    : ectx(EVP_CIPHER_CTX_new()), dctx(EVP_CIPHER_CTX_new()) {
  SetMethod(method);
}

Cipher::~Cipher() { burn(); }

bool Cipher::SetMethod(const std::string& method) {
  zqdetail::openssl_load_providers();
  cipher = method;
  c = method.empty() ? nullptr : EVP_get_cipherbyname(method.c_str());
  if (c == nullptr) cipher.clear();
  return c != nullptr;
}

unsigned int Cipher::blocksize() {
  return c != nullptr ? static_cast<unsigned int>(EVP_CIPHER_get_block_size(c)) : 0;
}

unsigned int Cipher::keysize() {
  if (c == nullptr || !keyed) return 0;
  const int n = EVP_CIPHER_CTX_get_key_length(ectx.get());
  return n > 0 ? static_cast<unsigned int>(n) : 0;
}

bool Cipher::setkey(const void* key, unsigned int keylength, const void* iv) {
  if (c == nullptr || keysize() > keylength) return false;
  const auto* k = static_cast<const unsigned char*>(key);
  const auto* v = static_cast<const unsigned char*>(iv);
  EVP_EncryptInit_ex(ectx.get(), c, nullptr, nullptr, nullptr);
  EVP_DecryptInit_ex(dctx.get(), c, nullptr, nullptr, nullptr);
  EVP_CIPHER_CTX_set_key_length(ectx.get(), static_cast<int>(keylength));
  EVP_CIPHER_CTX_set_key_length(dctx.get(), static_cast<int>(keylength));
  EVP_EncryptInit_ex(ectx.get(), nullptr, nullptr, k, v);
  EVP_DecryptInit_ex(dctx.get(), nullptr, nullptr, k, v);
  keyed = true;
  return true;
}

bool Cipher::setkey(const std::string& passphrase) {
  if (c == nullptr) return false;
  unsigned char key[EVP_MAX_KEY_LENGTH];
  unsigned char iv[EVP_MAX_IV_LENGTH];
  EVP_BytesToKey(c, EVP_ripemd160(), reinterpret_cast<const unsigned char*>(kSalt),
                 reinterpret_cast<const unsigned char*>(passphrase.data()),
                 static_cast<int>(passphrase.size()), 3, key, iv);
  EVP_EncryptInit_ex(ectx.get(), c, nullptr, key, iv);
  EVP_DecryptInit_ex(dctx.get(), c, nullptr, key, iv);
  OPENSSL_cleanse(key, sizeof key);
  OPENSSL_cleanse(iv, sizeof iv);
  keyed = true;
  return true;
}

unsigned int Cipher::run(EVP_CIPHER_CTX* ctx, bool encrypting, const void* in,
                         unsigned int length, void* out) {
  if (c == nullptr || !keyed) return 0;
  auto* o = static_cast<unsigned char*>(out);
  const auto* i = static_cast<const unsigned char*>(in);
  int produced = 0, tail = 0;
  if (encrypting) {
    EVP_EncryptUpdate(ctx, o, &produced, i, static_cast<int>(length));
    EVP_EncryptFinal_ex(ctx, o + produced, &tail);
  } else {
    EVP_DecryptUpdate(ctx, o, &produced, i, static_cast<int>(length));
    EVP_DecryptFinal_ex(ctx, o + produced, &tail);
  }
  return static_cast<unsigned int>(produced + tail);
}

unsigned int Cipher::encrypt(const void* in, unsigned int length, void* out) {
  return run(ectx.get(), true, in, length, out);
}

unsigned int Cipher::decrypt(const void* in, unsigned int length, void* out) {
  return run(dctx.get(), false, in, length, out);
}

void Cipher::burn() {
  EVP_CIPHER_CTX_reset(ectx.get());
  EVP_CIPHER_CTX_reset(dctx.get());
  keyed = false;
}

std::string Cipher::supportedMethods() {
  return zqdetail::tool_listing("openssl list -cipher-commands 2>/dev/null", "");
}

}  // namespace ZQSecurity
