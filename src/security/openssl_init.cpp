#include "security/openssl_init.h"

#include <openssl/provider.h>

#include <mutex>

namespace zqdetail {

void openssl_load_providers() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Loading any provider explicitly stops the default one from loading
    // implicitly, so both are loaded. The handles stay loaded for the life of
    // the process.
    OSSL_PROVIDER_load(nullptr, "default");
    OSSL_PROVIDER_load(nullptr, "legacy");
  });
}

}  // namespace zqdetail
