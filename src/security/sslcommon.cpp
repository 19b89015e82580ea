// Process-wide SSL set-up: library start, lock table, id and DH callbacks.
//
// The fixed Diffie-Hellman groups (generator 2) below are public parameters:
// 1024, 2048 and 4096 bits are the MODP groups of RFC 2409 (Oakley group 2)
// and RFC 3526 (groups 14 and 16), computed from their definition
// p = 2^n - 2^(n-64) - 1 + 2^64 * (floor(2^(n-130) * pi) + k) and checked to be
// safe primes; the 512-bit group was made once with `openssl dhparam 512`.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "zqsecurity/sslcommon.h"

#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdio>

#include "security/openssl_init.h"
#include "zqcommon/bug.h"
#include "zqthreads/oothread.h"

namespace ZQSecurity {

namespace {

const char kDH512[] =
    "B558A978E47BBCE3EAB1A506333325A59244730302332E2C5D25EADF5452B296"
    "210B320367EA86282B85607FDC0F3E686EFB4C240CD3822677B2FBED289A9DC7";
const char kDH1024[] =
    "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74"
    "020BBEA63B139B22514A08798E3404DDEF9519B3CD3A431B302B0A6DF25F1437"
    "4FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
    "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE65381FFFFFFFFFFFFFFFF";
const char kDH2048[] =
    "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74"
    "020BBEA63B139B22514A08798E3404DDEF9519B3CD3A431B302B0A6DF25F1437"
    "4FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
    "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE45B3DC2007CB8A163BF05"
    "98DA48361C55D39A69163FA8FD24CF5F83655D23DCA3AD961C62F356208552BB"
    "9ED529077096966D670C354E4ABC9804F1746C08CA18217C32905E462E36CE3B"
    "E39E772C180E86039B2783A2EC07A28FB5C55DF06F4C52C9DE2BCBF695581718"
    "3995497CEA956AE515D2261898FA051015728E5A8AACAA68FFFFFFFFFFFFFFFF";
const char kDH4096[] =
    "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74"
    "020BBEA63B139B22514A08798E3404DDEF9519B3CD3A431B302B0A6DF25F1437"
    "4FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
    "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE45B3DC2007CB8A163BF05"
    "98DA48361C55D39A69163FA8FD24CF5F83655D23DCA3AD961C62F356208552BB"
    "9ED529077096966D670C354E4ABC9804F1746C08CA18217C32905E462E36CE3B"
    "E39E772C180E86039B2783A2EC07A28FB5C55DF06F4C52C9DE2BCBF695581718"
    "3995497CEA956AE515D2261898FA051015728E5A8AAAC42DAD33170D04507A33"
    "A85521ABDF1CBA64ECFB850458DBEF0A8AEA71575D060C7DB3970F85A6E1E4C7"
    "ABF5AE8CDB0933D71E8C94E04A25619DCEE3D2261AD2EE6BF12FFA06D98A0864"
    "D87602733EC86A64521F2B18177B200CBBE117577A615D6C770988C0BAD946E2"
    "08E24FA074E5AB3143DB5BFCE0FD108E4B82D120A92108011A723C12A787E6D7"
    "88719A10BDBA5B2699C327186AF4E23C1A946834B6150BDA2583E9CA2AD44CE8"
    "DBBBC2DB04DE8EF92E8EFC141FBECAA6287C59474E6BC05D99B2964FA090C3A2"
    "233BA186515BE7ED1F612970CEE2D7AFB81BDD762170481CD0069127D5B05AA9"
    "93B4EA988D8FDDC186FFB7DC90A6C08F4DF435C934063199FFFFFFFFFFFFFFFF";

DH* make_dh(const char* prime_hex) {
  DH* dh = DH_new();
  BIGNUM* p = nullptr;
  BIGNUM* g = nullptr;
  if (dh == nullptr || BN_hex2bn(&p, prime_hex) == 0 || BN_dec2bn(&g, "2") == 0 ||
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

DH* get_dh512() { return make_dh(kDH512); }
DH* get_dh1024() { return make_dh(kDH1024); }
DH* get_dh2048() { return make_dh(kDH2048); }
DH* get_dh4096() { return make_dh(kDH4096); }

DH* tmp_dh_callback(SSL*, int, int keylength) {
  if (DEBUG_LEVEL >= 0) std::fprintf(stderr, "tmp_dh_callback for keylen %i called!\n", keylength);
  switch (keylength) {
    case 512: return cached(g_dh512, get_dh512);
    case 1024: return cached(g_dh1024, get_dh1024);
    case 2048: return cached(g_dh2048, get_dh2048);
    case 4096: return cached(g_dh4096, get_dh4096);
    default:
      if (DEBUG_LEVEL >= 0) {
        std::fprintf(stderr, "tmp_dh_callback wants keylen %i, which is not provided!\n", keylength);
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
