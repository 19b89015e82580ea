// The thread base class: start, status word, suspension, cancellation, join.
#include "zqthreads/oothread.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

const int thread::kSuspendSignal = SIGRTMIN + 4;
const int thread::kResumeSignal = SIGRTMIN + 5;

namespace {

// Parks the receiving thread until the resume signal arrives. The resume
// signal is blocked while this handler runs (sa_mask), so one sent before the
// thread reaches sigsuspend stays pending and ends the wait at once.
void on_suspend(int) {
  const int saved_errno = errno;
  sigset_t wait;
  pthread_sigmask(SIG_SETMASK, nullptr, &wait);
  sigdelset(&wait, thread::kResumeSignal);
  sigsuspend(&wait);
  errno = saved_errno;
}

void on_resume(int) {}

void install_suspend_handlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction sa {};
    sa.sa_handler = on_suspend;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, thread::kResumeSignal);
    sa.sa_flags = SA_RESTART;
    sigaction(thread::kSuspendSignal, &sa, nullptr);
    sa.sa_handler = on_resume;
    sigemptyset(&sa.sa_mask);
    sigaction(thread::kResumeSignal, &sa, nullptr);
  });
}

}  // namespace

thread::thread() {
  pthread_attr_init(&_attr);
  pthread_attr_setdetachstate(&_attr, PTHREAD_CREATE_JOINABLE);
}

thread::~thread() {
  SetCancel();
  Join();  // returns at once: the cancel bit is set
  reap();
  _thread = 0;
  _status = 0;
  pthread_attr_destroy(&_attr);
}

void* thread::entry(void* object) {
  thread* self = static_cast<thread*>(object);
  // Marks the thread finished however it ends: by returning, by cancellation
  // or by pthread_exit (their unwinding runs this destructor too).
  struct Finished {
    thread* t;
    ~Finished() { t->finished_ = true; }
  } finished{self};
  self->_id = pthread_self();
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  // Signal handling belongs to the main thread: everything is blocked here
  // except stop and continue (so the thread can still be stopped and
  // continued like the process) and the library's own suspend/resume pair.
  sigset_t blocked;
  sigfillset(&blocked);
  sigdelset(&blocked, SIGSTOP);
  sigdelset(&blocked, SIGCONT);
  sigdelset(&blocked, kSuspendSignal);
  sigdelset(&blocked, kResumeSignal);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

  self->_result = self->run(self->_arg);
  self->cleanup(self->IsCancelled());
  self->_status &= ~7u;
  pthread_testcancel();
  return nullptr;
}

void thread::reap() {
  if (!unjoined_.exchange(false)) return;
  if (finished_) {
    pthread_join(_thread, nullptr);  // it has ended; this returns at once
  } else {
    pthread_detach(_thread);  // still running: let it clean up after itself
  }
}

void thread::Start(void* arg) {
  _arg = arg;
  if (_status & 9u) return;  // running, or cancelled for good
  reap();                    // the previous run's finished thread
  install_suspend_handlers();
  _status |= 1u;  // before the thread exists, so its own end can clear it
  finished_ = false;
  _error = pthread_create(&_thread, &_attr, &thread::entry, this);
  if (_error == 0) unjoined_ = true;
}

void thread::SetCancel() { _status |= 8u; }

void thread::Kill() {
  _status |= 8u;
  if (_status & 3u) _error = pthread_cancel(_thread);
}

void thread::Suspend() {
  if ((_status & 3u) != 1u) return;
  pthread_kill(_thread, kSuspendSignal);
  _status |= 2u;
}

void thread::Resume() {
  if ((_status & 3u) != 3u) return;
  pthread_kill(_thread, kResumeSignal);
  _status &= ~2u;
}

bool thread::WaitFinished(int timeout_ms, bool or_suspended) {
  for (int waited = 0;; ++waited) {
    if (!thread::IsRunning() || (or_suspended && IsSuspended())) return true;
    if (timeout_ms >= 0 && waited >= timeout_ms) return false;
    usleep(1000);
  }
}

void thread::Join() {
  if (_status != 1u) return;
  _status |= 4u;
  _error = pthread_join(_thread, nullptr);
  if (_error == 0) unjoined_ = false;
  _status &= ~3u;
}

// The cancel bit alone leaves no POSIX cancel request pending, so the thread
// ends itself the way cancellation would (same unwinding, same result).
void thread::ExitIfCancelled() {
  if (IsCancelled() && pthread_equal(_id.load(), Self())) pthread_exit(PTHREAD_CANCELED);
}

void thread::cleanup(bool) {}
