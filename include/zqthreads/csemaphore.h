// The process-wide registry of System V semaphore sets made by the library.
#ifndef ZQTHREADS_CSEMAPHORE_H
#define ZQTHREADS_CSEMAPHORE_H

#include <pthread.h>

#include <cstdint>

#include "zqcommon/export.h"

// Every System V semaphore set a semaphore type of this library creates is
// registered here, and all registered sets are removed when the library is
// unloaded (or the process exits), so none outlives the program.
//
// A semaphore type calls Register() with each new set's identifier and
// Unregister() when it removes the set itself. At most kMaxSets sets can be
// registered per process; Register() answers false beyond that. Thread-safe.
class ZQ_EXPORT Semaphore {
 public:
  static constexpr int kMaxSets = 2048;

  static bool Register(int32_t id);
  static void Unregister(int32_t id);
  // Removes every registered set (IPC_RMID); entries of 0 are skipped.
  // Runs by itself at unload; failures are ignored.
  static void RemoveAll();

  static pthread_mutex_t _lock;
  static int32_t _ids[kMaxSets];
  static int32_t _cid;
};

#endif
