// A periodic task without the right to lock memory: the default set-up
// fails, a task that opted in runs with its memory unlocked.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "support/rt_task.h"

namespace {

// No locked-memory allowance and, for root, no CAP_IPC_LOCK that would pass over it.
void drop_memory_lock_rights() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_MEMLOCK, &none);
  __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[2] = {};
  syscall(SYS_capget, &head, caps);
  caps[0].effective &= ~(1u << CAP_IPC_LOCK);
  caps[0].permitted &= ~(1u << CAP_IPC_LOCK);
  syscall(SYS_capset, &head, caps);
}

}  // namespace

TEST(RtThreadRights, WithoutMemoryLockOnlyAnOptedInTaskRuns) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizer builds never lock memory";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const bool optional : {false, true}) {
    EXPECT_EXIT(
        {
          drop_memory_lock_rights();
          std::atomic<int> cycles{0};
          RtTask task(1000000, [&cycles](RtTask&) { ++cycles; });
          task.SetMemoryLockOptional(optional);
          task.Start(nullptr);
          for (int i = 0; i < 2000 && cycles < 5 && task.thread::IsRunning(); ++i) usleep(1000);
          std::_Exit((cycles >= 5) == optional && !task.MemoryLocked() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "")
        << (optional ? "opted in: runs unlocked" : "default: does not run");
  }
}
