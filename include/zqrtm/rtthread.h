// Periodic real-time tasks with cycle statistics (POSIX back-end).
#ifndef ZQRTM_RTTHREAD_H
#define ZQRTM_RTTHREAD_H

#include <atomic>
#include <cstdint>

#include "zqthreads/oothread.h"
#include "zqcommon/export.h"

typedef long long RTIME;

// The number of a task or mailbox name: base 39 over at most its first six
// characters (digits 1-10, letters of either case 11-36, '_' 37, anything
// else 38), plus 2; an empty name gives 0xFFFFFFFF.
ZQ_EXPORT uint32_t nam2num(const char* name);

// A thread that runs rtrun() once per period on absolute deadlines of the
// monotonic clock, measuring each cycle. Its body locks the process memory,
// takes SCHED_FIFO at the highest priority where the process may (otherwise
// it runs with normal scheduling after one warning), asks for minimal timer
// slack and shallow processor idle states while it runs, prefaults its stack,
// calls start() once, and then cycles until cancelled. Suspend() and Resume()
// only toggle whether cycles run (the period keeps ticking); SetCancel() ends
// the loop at the next period. Set-up failures print a FATAL line (unless
// DEBUG_LEVEL is negative) and the body returns 0 without calling start().
// The statistics are written by the task and read unlocked by others (each
// read is of one 64-bit value). A derived class stops its task (SetCancel,
// then WaitFinished()) before it is destroyed.
class ZQ_EXPORT rtthread : public thread {
 public:
  rtthread(const char* name, long long period, bool hardrt, int sched, bool usefpu);
  ~rtthread() override;

  void SetCancel() override { _status |= 8u; }
  void Suspend() override { _status |= 2u; }
  void Resume() override { _status &= ~2u; }
  // Running, not suspended and not cancelled.
  bool IsRunning() override;
  long long GetSysTime() const;

  long long CyclePeriod() const { return period; }
  long long CycleCount() const { return cycle_count; }
  long long CycleLength() const { return cycle_length; }
  long long MinCycleLength() const { return min_length; }
  long long MaxCycleLength() const { return max_length; }
  long long CycleStart() const { return cycle_start; }
  long long CycleEnd() const { return cycle_end; }
  // The time the current cycle was due to start (its release time).
  long long CycleRelease() const { return release; }
  long long AvgCycleLength() const;
  void ResetCycleLength();

  // Opt-in for programs that may run without real-time rights: when the
  // memory cannot be locked, the body warns once and runs on (by default it
  // fails). Call before the thread starts.
  void SetMemoryLockOptional(bool optional) { lock_optional_ = optional; }
  // Once cycles run: whether the memory is locked and whether the task got
  // SCHED_FIFO.
  bool MemoryLocked() const { return memory_locked_; }
  bool RealTimeScheduled() const { return fifo_; }

 protected:
  void* run(void* arg) override;
  void cleanup(bool cancelled) override;
  // Each cycle's work; its result becomes the body's result.
  virtual void* rtrun(void* arg) = 0;
  // Called once before the first cycle.
  virtual void start(void* arg) = 0;

  void* task = nullptr;
  RTIME period;
  std::atomic<RTIME> cycle_start{0}, cycle_end{0}, release{0};
  std::atomic<RTIME> min_length{0x3FFFFFFF}, max_length{0}, total_length{0};
  std::atomic<RTIME> cycle_count{0}, length_count{0}, cycle_length{0};
  const char* name;
  bool usefpu;
  bool hardrt;
  int sched;

 private:
  int latency_fd_ = -1;  // the held /dev/cpu_dma_latency request, or -1
  bool lock_optional_ = false;
  std::atomic<bool> memory_locked_{false}, fifo_{false};
};

#endif
