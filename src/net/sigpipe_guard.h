// Writes that must not end the process when the reader has gone (private to
// the library).
#ifndef ZQCOMMON_SRC_DETAILS_SIGPIPE_GUARD_H
#define ZQCOMMON_SRC_DETAILS_SIGPIPE_GUARD_H

#include <signal.h>
#include <time.h>

#include <cerrno>

namespace zqdetail {

// Keeps SIGPIPE from the calling thread while it lives. A write to a pipe or
// a socket whose reader has gone then fails with EPIPE, the result the caller
// needs, instead of ending a program that never asked for the signal; one
// raised meanwhile is consumed when the guard ends (a SIGPIPE already pending
// before is left alone). For writes that cannot pass MSG_NOSIGNAL: pipes, and
// OpenSSL's socket writes. errno survives the guard's end. Three system calls
// per guard; not for per-byte paths.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    was_pending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
  }
  ~SigpipeGuard() {
    const int saved = errno;
    sigset_t pending;
    if (!was_pending_ && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
      const timespec none{0, 0};
      sigtimedwait(&pipe_, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    errno = saved;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t pipe_, old_;
  bool was_pending_ = false;
};

}  // namespace zqdetail

#endif
