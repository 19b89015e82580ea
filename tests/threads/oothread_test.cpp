// Recursive locks, the thread status word, suspension, the signals a thread
// blocks and the semaphore registry.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/eventually.h"
#include "zqthreads/csemaphore.h"
#include "zqthreads/oothread.h"

namespace {

struct Guarded : lockable {};

// Holds `lock` on another thread for `hold_ms`, once `held` is seen true.
std::thread hold(lockable& lock, int hold_ms, std::atomic<bool>& held) {
  std::thread t([&lock, hold_ms, &held] {
    lock.lock();
    held = true;
    usleep(hold_ms * 1000);
    held = false;
    lock.unlock();
  });
  EXPECT_TRUE(eventually([&] { return held.load(); }));
  return t;
}

// Counts until told to stop; polls the cancel bit.
struct Counter : thread {
  std::atomic<long> count{0};
  std::atomic<bool> cleaned{false}, cleaned_cancelled{false}, exit_self{false};
  ~Counter() override {
    SetCancel();
    for (int i = 0; i < 2000 && IsRunning() && !IsSuspended(); ++i) usleep(1000);
  }
  void* run(void* arg) override {
    for (; !IsCancelled() || exit_self; usleep(200)) {
      ++count;
      if (exit_self) ExitIfCancelled();
    }
    return arg;
  }
  void cleanup(bool cancelled) override {
    cleaned_cancelled = cancelled;
    cleaned = true;
  }
};

struct Quick : thread {
  void* run(void* arg) override { return arg; }
};

struct MaskReporter : thread {
  sigset_t mask;
  void* run(void*) override { return pthread_sigmask(SIG_SETMASK, nullptr, &mask), nullptr; }
};

}  // namespace

TEST(Lockable, LockedAndTrylockFromOtherThreads) {
  Guarded g;
  EXPECT_FALSE(g.locked());
  g.lock();
  g.lock();  // recursive
  EXPECT_FALSE(g.locked());  // the holder never sees its own lock as taken
  EXPECT_TRUE(g.trylock(0));
  for (int i = 0; i < 3; ++i) g.unlock();

  std::atomic<bool> held{false};
  std::thread holder = hold(g, 300, held);
  EXPECT_TRUE(g.locked());
  EXPECT_FALSE(g.trylock(0));
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(g.trylock(50));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(45));
  EXPECT_TRUE(g.trylock(-1));  // waits for the holder
  EXPECT_FALSE(held);
  g.unlock();
  holder.join();

  std::thread brief = hold(g, 20, held);
  EXPECT_TRUE(g.trylock(5000));
  g.unlock();
  brief.join();
}

TEST(Thread, StatusWordThroughALifetime) {
  Quick q;
  int token = 7;
  q.Start(&token);
  ASSERT_TRUE(eventually([&] { return !q.IsRunning(); }));
  EXPECT_EQ(q.Status(), 0u);  // ended by itself: nothing left to join
  q.Join();
  EXPECT_EQ(q.Result(), &token);
  q.Start(nullptr);  // the same object runs again
  ASSERT_TRUE(eventually([&] { return !q.IsRunning(); }));
  EXPECT_EQ(q.Result(), nullptr);

  Counter c;
  c.SetCancel();
  c.Start(&token);  // cancelled for good: nothing starts
  EXPECT_EQ(c.Status(), 8u);
  EXPECT_FALSE(c.IsRunning());
}

TEST(Thread, JoinWaitsOnlyForAPlainRunningThread) {
  Counter c;
  c.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return c.count > 0; }));
  EXPECT_EQ(c.Status(), 1u);
  c.Suspend();
  EXPECT_EQ(c.Status(), 3u);
  c.Suspend();  // no second stop
  EXPECT_EQ(c.Status(), 3u);
  c.Join();  // suspended: returns at once
  EXPECT_EQ(c.Status(), 3u);
  usleep(20000);
  const long parked = c.count;
  usleep(50000);
  EXPECT_EQ(c.count, parked);  // the thread is parked, the process is not
  c.Resume();
  EXPECT_EQ(c.Status(), 1u);
  c.Resume();  // not suspended: nothing
  ASSERT_TRUE(eventually([&] { return c.count > parked; }));

  c.SetCancel();
  c.Join();  // cancel bit set: not joined
  EXPECT_TRUE(c.IsCancelled());
  ASSERT_TRUE(eventually([&] { return !c.IsRunning(); }));
  EXPECT_TRUE(c.cleaned);
  EXPECT_TRUE(c.cleaned_cancelled);
  EXPECT_EQ(c.Status(), 8u);  // the cancel bit is sticky
}

TEST(Thread, JoinWaitsForABodyThatEndsItselfWhenCancelled) {
  Counter c;
  c.exit_self = true;  // runs until cancelled, then ends itself at its next check
  c.Start(nullptr);
  ASSERT_TRUE(eventually([&] { return c.count > 0; }));
  std::thread cancel([&] {
    usleep(20000);
    c.SetCancel();
  });
  c.Join();  // waits for the body
  cancel.join();
  EXPECT_FALSE(c.IsRunning());
  EXPECT_EQ(c.Error(), 0);
  c.ExitIfCancelled();  // not the object's own thread: nothing happens here
  const long after = c.count;
  usleep(30000);
  EXPECT_EQ(c.count, after);
  EXPECT_FALSE(c.cleaned);  // ended by cancellation inside run()
}

// Every signal is blocked except stop, continue and the library's own
// suspend/resume pair.
TEST(ThreadSignalMask, OnlyStopContinueAndSuspendResumeStayDeliverable) {
  MaskReporter t;
  t.Start(nullptr);
  ASSERT_TRUE(t.WaitFinished(10000));
  t.Join();
  using T = thread;
  for (int s : {SIGCONT, SIGSTOP, T::kSuspendSignal, T::kResumeSignal}) EXPECT_EQ(sigismember(&t.mask, s), 0) << s;
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGRTMIN}) EXPECT_EQ(sigismember(&t.mask, s), 1) << s;
}

TEST(Semaphore, RegisteredSetsAreRemoved) {
  const int a = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600), b = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
  if (a < 0 || b < 0) GTEST_SKIP() << "System V semaphores are not available here";
  ASSERT_TRUE(Semaphore::Register(a));
  ASSERT_TRUE(Semaphore::Register(b));
  Semaphore::Unregister(b);  // removed by its owner: skipped at clean-up
  Semaphore::RemoveAll();
  EXPECT_EQ(semctl(a, 0, IPC_STAT, nullptr), -1);
  EXPECT_EQ(semctl(b, 0, GETVAL), 0) << "an unregistered set stays";
  semctl(b, 0, IPC_RMID);
}
