// An object-oriented wrapper round one POSIX thread, with a small status word.
#ifndef ZQTHREADS_OOTHREAD_H
#define ZQTHREADS_OOTHREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "zqthreads/lockable.h"
#include "zqcommon/export.h"

typedef pthread_t OOThreadHandle;
typedef pthread_t OOThreadID;
typedef pthread_attr_t OOAttributeType;

// Base of the library's threads. A subclass supplies run(); Start() runs it
// on a new POSIX thread. The status word:
//   bit 0 (1) running          set by Start, cleared by Join and the body's end
//   bit 1 (2) suspended        set by Suspend, cleared by Resume, Join, body end
//   bit 2 (4) being joined     set by Join, cleared only by the body's end
//   bit 3 (8) cancel requested set by SetCancel and Kill; sticky for life
//
// Join() waits only when the word is exactly 1 (running, nothing else): a
// suspended or cancelled thread is not joined, and the destructor (which sets
// the cancel bit first) never waits. A subclass that owns a running thread
// must stop it (SetCancel, then let run() return) and Join() it in its own
// destructor. Start() refuses to start while running or once cancelled.
//
// Suspend() and Resume() park and release the thread itself, not the process:
// they send the real-time signals kSuspendSignal and kResumeSignal (the
// library installs their handlers the first time a thread starts; the
// application must leave those two signals alone). Threads started here block
// every other signal (signal handling belongs to the main thread), enable
// asynchronous cancellation, and store their own handle in _id so that
// ExitIfCancelled() works. Results of creation, join and cancel are kept in
// _error (0 or a POSIX error number); nothing throws or prints.
class ZQ_EXPORT thread : public lockable {
 public:
  static const int kSuspendSignal;
  static const int kResumeSignal;

  // Stores `arg` always; starts the thread only when neither running nor
  // cancelled. Sets the running bit even when creation fails (_error tells).
  virtual void Start(void* arg);
  // Requests cancellation: sets bit 3; run() is expected to poll IsCancelled().
  virtual void SetCancel();
  // Parks the thread when it is running and not suspended.
  virtual void Suspend();
  // Releases a suspended thread.
  virtual void Resume();
  virtual bool IsRunning() { return (_status & 1u) != 0; }

  // Sets bit 3 and, when running or suspended, cancels the POSIX thread.
  void Kill();
  // Waits for the thread when the status word is exactly 1; see above.
  void Join();
  // Waits, in 1 ms steps, until the body has ended (the running bit is
  // clear) or, with `or_suspended`, the thread is parked. -1 waits without
  // limit. Whether it happened; the thread is not joined here.
  bool WaitFinished(int timeout_ms, bool or_suspended = false);
  bool IsSuspended() { return (_status & 2u) != 0; }
  bool IsCancelled() { return (_status & 8u) != 0; }
  // Ends the calling thread at once when it is this object's own thread and
  // cancellation was requested; otherwise does nothing.
  void ExitIfCancelled();
  OOThreadID Id() { return _id.load(); }
  static OOThreadHandle Self() { return pthread_self(); }
  uint32_t Status() const { return _status; }
  int Error() const { return _error; }
  void* Result() const { return _result; }

 protected:
  thread();
  ~thread() override;

  // The thread's body, run with Start()'s argument; its result is kept.
  virtual void* run(void* arg) = 0;
  // Called after run() returns, with whether cancellation was requested.
  virtual void cleanup(bool cancelled);

  OOThreadHandle _thread = 0;
  // Stored by the thread itself when it starts; read by ExitIfCancelled().
  std::atomic<OOThreadID> _id{0};
  OOAttributeType _attr;
  void* _arg = nullptr;
  void* _result = nullptr;
  int32_t _error = 0;
  // Read and written by the owner and the thread body without a lock; each
  // bit change is one atomic read-modify-write.
  std::atomic<uint32_t> _status{0};

 private:
  static void* entry(void* self);
  // Joins a POSIX thread whose body has ended but that nobody joined, or
  // detaches one still running, so that no thread's resources leak.
  void reap();
  std::atomic<bool> unjoined_{false};
  std::atomic<bool> finished_{false};
};

#endif
