// Process-wide SSL set-up: library start, lock table and DH callback.
#ifndef ZQSECURITY_SSLCOMMON_H
#define ZQSECURITY_SSLCOMMON_H

#include <map>

#include "zqthreads/lockable.h"
#include "zqcommon/export.h"

typedef struct dh_st DH;
typedef struct ssl_st SSL;

namespace ZQSecurity {

// Starts OpenSSL (strings, providers) when the library is loaded; one static
// instance exists.
class ZQ_EXPORT SSLInit {
 public:
  SSLInit();
  ~SSLInit();
};

// A table of recursive locks by number, made on first use. lock(n) holds the
// table lock only while it finds or makes lock n, not while it waits for it.
// Owns its locks. (OpenSSL 3 locks internally; the table serves programs that
// need numbered locks of their own.)
class ZQ_EXPORT SSLLocking : public lockable {
 public:
  SSLLocking() = default;
  ~SSLLocking() override;
  using lockable::lock;
  using lockable::unlock;
  void lock(int n);
  void unlock(int n);

  std::map<int, lockable*> locks;
};

extern ZQ_EXPORT SSLLocking __global_SSLLock__;
extern ZQ_EXPORT SSLInit __global_SSLInit__;

// Locks (mode bit 1 set) or unlocks lock n of the global table.
ZQ_EXPORT void locking_callback(int mode, int n, const char* file, int line);
// The calling thread's id.
ZQ_EXPORT unsigned long id_callback();
// The fixed DH group for `keylength` (512, 1024, 2048 or 4096 bits; any other
// length gets the 4096-bit group), cached for the life of the process. Writes
// a line about each call to standard error unless DEBUG_LEVEL is negative.
ZQ_EXPORT DH* tmp_dh_callback(SSL* ssl, int is_export, int keylength);
// A new DH object of that group; the caller frees it.
ZQ_EXPORT DH* get_dh512();
ZQ_EXPORT DH* get_dh1024();
ZQ_EXPORT DH* get_dh2048();
ZQ_EXPORT DH* get_dh4096();

}  // namespace ZQSecurity

#endif
