// A library thread blocks every signal except stop, continue and the
// library's own suspend/resume pair.
#include <gtest/gtest.h>
#include <signal.h>

#include "zqthreads/oothread.h"

namespace {

struct MaskReporter : thread {
  sigset_t mask;
  void* run(void*) override { return pthread_sigmask(SIG_SETMASK, nullptr, &mask), nullptr; }
};

TEST(ThreadSignalMask, OnlyStopContinueAndSuspendResumeStayDeliverable) {
  MaskReporter t;
  t.Start(nullptr);
  ASSERT_TRUE(t.WaitFinished(10000));
  t.Join();
  using T = thread;
  for (int s : {SIGCONT, SIGSTOP, T::kSuspendSignal, T::kResumeSignal}) EXPECT_EQ(sigismember(&t.mask, s), 0) << s;
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGRTMIN}) EXPECT_EQ(sigismember(&t.mask, s), 1) << s;
}

}  // namespace
