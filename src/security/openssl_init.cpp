#include "security/openssl_init.h"

#include <openssl/provider.h>

namespace zqdetail {

namespace {

// Loading any provider explicitly stops the default one from loading
// implicitly, so both are loaded. They are unloaded again at exit: this
// object is constructed after OpenSSL registered its own exit handler (the
// first load initialises OpenSSL), so its destructor runs before OpenSSL's
// clean-up, and nothing of the providers is left behind.
struct Providers {
  OSSL_PROVIDER* standard = OSSL_PROVIDER_load(nullptr, "default");
  OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  ~Providers() {
    if (legacy != nullptr) OSSL_PROVIDER_unload(legacy);
    if (standard != nullptr) OSSL_PROVIDER_unload(standard);
  }
};

}  // namespace

void openssl_load_providers() { static const Providers providers; }

}  // namespace zqdetail
