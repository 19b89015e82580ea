// A library thread blocks every signal except stop, continue and the
// library's own suspend/resume pair.
#include <gtest/gtest.h>
#include <signal.h>

#include "zqthreads/oothread.h"

namespace {

struct MaskReporter : thread {
  sigset_t mask;
  void* run(void*) override {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return nullptr;
  }
};

TEST(ThreadSignalMask, OnlyStopContinueAndSuspendResumeStayDeliverable) {
  MaskReporter t;
  t.Start(nullptr);
  ASSERT_TRUE(t.WaitFinished(10000));
  t.Join();
  struct Row {
    int signal;
    bool blocked;
  };
  const Row rows[] = {
      {SIGCONT, false},         {SIGSTOP, false},       {thread::kSuspendSignal, false},
      {thread::kResumeSignal, false}, {SIGINT, true},  {SIGTERM, true},
      {SIGHUP, true},           {SIGUSR1, true},        {SIGCHLD, true},
      {SIGRTMIN, true},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(sigismember(&t.mask, row.signal) == 1, row.blocked) << "signal " << row.signal;
  }
}

}  // namespace
