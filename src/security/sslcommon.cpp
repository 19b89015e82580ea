// Process-wide SSL set-up: library start, lock table, id and DH callbacks.
//
// The fixed Diffie-Hellman groups (generator 2) are public parameters: 1024,
// 2048 and 4096 bits are the MODP groups of RFC 2409 (Oakley group 2) and
// RFC 3526 (groups 14 and 16), as OpenSSL itself provides them; the 512-bit
// group, which no RFC defines, was made once with `openssl dhparam 512`.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "zqsecurity/sslcommon.h"

#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdio>

#include "security/openssl_init.h"
#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"
#include "zqthreads/oothread.h"

namespace ZQSecurity {

namespace {

const char kDH512[] =
    "B558A978E47BBCE3EAB1A506333325A59244730302332E2C5D25EADF5452B296"
    "210B320367EA86282B85607FDC0F3E686EFB4C240CD3822677B2FBED289A9DC7";

// A group of generator 2 over the prime p, which it takes over.
DH* make_dh(BIGNUM* p) {
  DH* dh = DH_new();
  BIGNUM* g = nullptr;
  if (dh == nullptr || p == nullptr || BN_dec2bn(&g, "2") == 0 ||
      DH_set0_pqg(dh, p, nullptr, g) != 1) {
    BN_free(p);
    BN_free(g);
    DH_free(dh);
    return nullptr;
  }
  return dh;
}

// One cached group: made on first use and kept for the life of the process.
// Two threads may both make it at once; one keeps its object, the other frees.
DH* cached(std::atomic<DH*>& slot, DH* (*make)()) {
  DH* dh = slot.load();
  if (dh != nullptr) return dh;
  DH* fresh = make();
  if (slot.compare_exchange_strong(dh, fresh)) return fresh;
  DH_free(fresh);
  return dh;
}

std::atomic<DH*> g_dh512{nullptr}, g_dh1024{nullptr}, g_dh2048{nullptr}, g_dh4096{nullptr};

}  // namespace

DH* get_dh512() {
  BIGNUM* p = nullptr;
  return make_dh(BN_hex2bn(&p, kDH512) != 0 ? p : nullptr);
}
DH* get_dh1024() { return make_dh(BN_get_rfc2409_prime_1024(nullptr)); }
DH* get_dh2048() { return make_dh(BN_get_rfc3526_prime_2048(nullptr)); }
DH* get_dh4096() { return make_dh(BN_get_rfc3526_prime_4096(nullptr)); }

DH* tmp_dh_callback(SSL*, int, int keylength) {
  if (DEBUG_LEVEL >= 0) zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "tmp_dh_callback for keylen %i called!\n", keylength);
  switch (keylength) {
    case 512: return cached(g_dh512, get_dh512);
    case 1024: return cached(g_dh1024, get_dh1024);
    case 2048: return cached(g_dh2048, get_dh2048);
    case 4096: return cached(g_dh4096, get_dh4096);
    default:
      if (DEBUG_LEVEL >= 0) {
        zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "tmp_dh_callback wants keylen %i, which is not provided!\n", keylength);
      }
      return cached(g_dh4096, get_dh4096);
  }
}

// ------------------------------------------------------------ SSLLocking

SSLLocking::~SSLLocking() {
  // A mutex may be neither destroyed while held nor unlocked by a thread
  // that does not hold it; at this point no OpenSSL call holds one.
  for (auto& entry : locks) delete entry.second;
  locks.clear();
}

void SSLLocking::lock(int n) {
  lockable* l;
  lockable::lock();  // the table lock guards only the look-up and creation
  lockable*& slot = locks[n];
  if (slot == nullptr) slot = new lockable;
  l = slot;
  lockable::unlock();
  l->lock();  // waited for without the table lock
}

void SSLLocking::unlock(int n) {
  lockable::lock();
  auto it = locks.find(n);
  lockable* l = it != locks.end() ? it->second : nullptr;
  lockable::unlock();
  if (l != nullptr) l->unlock();
}

SSLLocking __global_SSLLock__;

void locking_callback(int mode, int n, const char*, int) {
  if (mode & 1) {
    __global_SSLLock__.lock(n);
  } else {
    __global_SSLLock__.unlock(n);
  }
}

unsigned long id_callback() { return static_cast<unsigned long>(thread::Self()); }

// --------------------------------------------------------------- SSLInit

// OpenSSL 3 initialises itself, locks internally and ignores locking and id
// callbacks (their setters are no-ops); the providers are loaded here.
SSLInit::SSLInit() {
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  zqdetail::openssl_load_providers();
}

SSLInit::~SSLInit() = default;

SSLInit __global_SSLInit__;

}  // namespace ZQSecurity
