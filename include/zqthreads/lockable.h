// A recursive mutex packaged as a base class.
#ifndef ZQTHREADS_LOCKABLE_H
#define ZQTHREADS_LOCKABLE_H

#include <pthread.h>
#include <unistd.h>

#include "zqcommon/functions.h"
#include "zqcommon/export.h"

// Base of every object guarded by a lock of its own. The lock is recursive:
// the holder may lock again and must unlock as often. Copying copies the raw
// mutex state as it stands (no new mutex is made): copy only unlocked objects.
class ZQ_EXPORT lockable {
 public:
  lockable() {
    pthread_mutexattr_init(&_attr);
    pthread_mutexattr_settype(&_attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&_lock, &_attr);
  }
  lockable(const lockable&) = default;
  lockable& operator=(const lockable&) = default;
  virtual ~lockable() {
    pthread_mutex_destroy(&_lock);
    pthread_mutexattr_destroy(&_attr);
  }

  // Blocks until the lock is held.
  virtual void lock() { pthread_mutex_lock(&_lock); }
  // Releases one level.
  virtual void unlock() { pthread_mutex_unlock(&_lock); }
  // True when another thread holds the lock now (the holder itself gets false).
  virtual bool locked() {
    if (pthread_mutex_trylock(&_lock) != 0) return true;
    pthread_mutex_unlock(&_lock);
    return false;
  }
  // Takes the lock, waiting at most `ms` milliseconds (about 1 ms granular):
  // -1 waits without limit through lock(), 0 tries once. True when taken.
  virtual bool trylock(int ms) {
    if (ms == -1) {
      lock();
      return true;
    }
    if (ms == 0) return pthread_mutex_trylock(&_lock) == 0;
    const double deadline = GetMTickCount() + ms;
    for (;;) {
      if (pthread_mutex_trylock(&_lock) == 0) return true;
      usleep(1000);
      const double now = GetMTickCount();
      if (!(deadline >= now)) return false;  // also when unordered
    }
  }

 protected:
  pthread_mutex_t _lock;
  pthread_mutexattr_t _attr;
};

// Holds a lockable for one scope.
class ZQ_EXPORT lockable_hold {
 public:
  explicit lockable_hold(lockable& l) : l_(l) { l_.lock(); }
  ~lockable_hold() { l_.unlock(); }
  lockable_hold(const lockable_hold&) = delete;
  lockable_hold& operator=(const lockable_hold&) = delete;

 private:
  lockable& l_;
};

#endif
