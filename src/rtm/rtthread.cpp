// Real-time thread on POSIX: SCHED_FIFO, locked memory, absolute deadlines.
#include "zqrtm/rtthread.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <time.h>

#include <cstdio>
#include <cerrno>
#include <cstring>

#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"

namespace {

long long monotonic_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void fatal(const char* text) {
  if (DEBUG_LEVEL >= 0) zqcommon::WriteDiagnostic(zqcommon::DiagnosticStream::kError, text, std::strlen(text));
}

// Memory locking. Sanitizer builds map terabytes of shadow memory that can
// never be locked, so they run without it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
bool lock_memory() { return true; }
#else
bool lock_memory() { return mlockall(MCL_CURRENT | MCL_FUTURE) == 0; }
#endif

// Touches the stack the task will use, so its pages are present and locked.
void prefault_stack() {
  volatile char stack[64 * 1024];
  for (size_t i = 0; i < sizeof stack; i += 4096) stack[i] = 0;
}

std::atomic<bool> g_sched_warned{false};

// Keeps the processors out of deep idle states while a task runs (as real-time
// programs do): the request holds as long as the descriptor stays open.
int hold_low_wakeup_latency() {
  const int fd = open("/dev/cpu_dma_latency", O_RDWR | O_CLOEXEC);
  if (fd < 0) return -1;
  const int32_t zero = 0;
  if (write(fd, &zero, sizeof zero) != sizeof zero) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

uint32_t nam2num(const char* name) {
  uint32_t value = 0;
  int i = 0;
  for (; i < 6 && name != nullptr && name[i] != '\0'; ++i) {
    int c = static_cast<unsigned char>(name[i]);
    if (c >= 'a' && c <= 'z') c ^= 0x20;
    if (c >= 'A' && c <= 'Z') {
      c -= 'A' - 11;
    } else if (c >= '0' && c <= '9') {
      c -= '0' - 1;
    } else {
      c = c == '_' ? 37 : 38;
    }
    value = value * 39u + static_cast<uint32_t>(c);
  }
  return i > 0 ? value + 2u : 0xFFFFFFFFu;
}

rtthread::rtthread(const char* task_name, long long cycle_period, bool hard, int scheduling,
                   bool fpu)
    : period(cycle_period), name(task_name), usefpu(fpu), hardrt(hard), sched(scheduling) {}

rtthread::~rtthread() = default;

bool rtthread::IsRunning() { return (_status & (2u | 8u | 16u)) == 16u && thread::IsRunning(); }

long long rtthread::GetSysTime() const { return monotonic_ns(); }

long long rtthread::AvgCycleLength() const {
  const long long n = length_count;
  return total_length / (n != 0 ? n : 1);
}

void rtthread::ResetCycleLength() {
  total_length = 0;
  length_count = 0;
  min_length = 0x3FFFFFFF;
  max_length = 0;
}

void* rtthread::run(void* arg) {
  if (period <= 0) {
    fatal("FATAL: Invalid realtime period specified!!!\n\n");
    return nullptr;
  }
  static const char kLocking[] = "mlockall(MCL_CURRENT | MCL_FUTURE)\n";
  zqcommon::WriteDiagnostic(zqcommon::DiagnosticStream::kOutput, kLocking, sizeof kLocking - 1);
  memory_locked_ = lock_memory();
  if (!memory_locked_ && !lock_optional_) {
    fatal("FATAL: cannot initalize RT thread: mlockall usage not supported\n");
    return nullptr;
  }
  if (!memory_locked_ && DEBUG_LEVEL >= 0) {
    zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError,
                               "WARNING: memory cannot be locked for task %s, running without\n",
                               name != nullptr ? name : "");
  }
  // The task: the highest FIFO priority where the process may have it.
  sched_param sp{};
  sp.sched_priority = sched_get_priority_max(SCHED_FIFO);
  fifo_ = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp) == 0;
  if (!fifo_ && !g_sched_warned.exchange(true)) {
    if (DEBUG_LEVEL >= 0) {
      zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "WARNING: no real-time scheduling allowed for task %s, running with normal scheduling\n",
                   name != nullptr ? name : "");
    }
  }
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);  // wake at the deadline, not up to 50 us later
  latency_fd_ = hold_low_wakeup_latency();
  task = this;
  prefault_stack();
  if (memory_locked_) lock_memory();  // what the set-up allocated is locked too
  (void)usefpu;   // the FPU is always available to POSIX threads
  const int io_ignored = ioperm(0x300, 255, 1) + iopl(3);
  (void)io_ignored;
  start(arg);
  _status |= 16u;

  void* result = nullptr;
  long long next = monotonic_ns() + 10 * period;
  while (!(_status & 8u)) {
    timespec ts{static_cast<time_t>(next / 1000000000LL), static_cast<long>(next % 1000000000LL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
    release = next;
    next += period;
    if (_status & 8u) break;
    if (_status & 2u) continue;
    const long long begin = monotonic_ns();
    cycle_start = begin;
    result = rtrun(arg);
    const long long end = monotonic_ns();
    cycle_end = end;
    const long long length = end - begin;
    cycle_length = length;
    if (length < min_length) min_length = length;
    if (length > max_length) max_length = length;
    total_length += length;
    ++cycle_count;
    ++length_count;
  }
  _status &= ~16u;
  const bool cancelled = (_status & 8u) != 0;
  cleanup(cancelled);
  rtthread::cleanup(cancelled);
  if (cancelled) thread::SetCancel();
  return result;
}

void rtthread::cleanup(bool cancelled) {
  if (task != nullptr) {
    sched_param sp{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &sp);  // back to soft real time
  }
  if (latency_fd_ >= 0) {
    close(latency_fd_);
    latency_fd_ = -1;
  }
  task = nullptr;
  thread::cleanup(cancelled);
}
