// Process-wide OpenSSL 3 set-up shared by the digest, cipher and SSL classes.
#ifndef ZQSECURITY_SRC_OPENSSL_INIT_H
#define ZQSECURITY_SRC_OPENSSL_INIT_H

namespace zqdetail {

// Loads the "default" and "legacy" providers into the default library context
// once per process, so that classic names such as "ripemd160", "md4" and
// "bf-cbc" resolve. Thread-safe; later calls return at once. A missing legacy
// provider is tolerated (its algorithms are then simply unknown).
void openssl_load_providers();

}  // namespace zqdetail

#endif
