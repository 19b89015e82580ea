// Registry of System V semaphore sets, removed when the library is unloaded.
#include "zqthreads/csemaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

pthread_mutex_t Semaphore::_lock = PTHREAD_MUTEX_INITIALIZER;
int32_t Semaphore::_ids[Semaphore::kMaxSets] = {};
int32_t Semaphore::_cid = 0;

bool Semaphore::Register(int32_t id) {
  pthread_mutex_lock(&_lock);
  const bool room = _cid < kMaxSets;
  if (room) _ids[_cid++] = id;
  pthread_mutex_unlock(&_lock);
  return room;
}

void Semaphore::Unregister(int32_t id) {
  pthread_mutex_lock(&_lock);
  for (int32_t i = 0; i < _cid; ++i) {
    if (_ids[i] == id) _ids[i] = 0;
  }
  pthread_mutex_unlock(&_lock);
}

void Semaphore::RemoveAll() {
  for (int32_t i = 0; i < _cid; ++i) {
    if (_ids[i] != 0) semctl(_ids[i], 0, IPC_RMID);
  }
}

namespace {

// Removes every registered set when the library is unloaded.
class Semaphore_static_cleanup {
 public:
  ~Semaphore_static_cleanup() { Semaphore::RemoveAll(); }
};

Semaphore_static_cleanup _sem_cleanup;

}  // namespace
