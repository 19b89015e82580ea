// Test helper: a periodic real-time task whose cycle the test writes.
#ifndef ZQ_TESTS_RT_TASK_H
#define ZQ_TESTS_RT_TASK_H

#include <atomic>
#include <functional>

#include "zqrtm/rtthread.h"

// Runs `cycle` once a period (in ns) after Start(); counts its start() calls.
// Cancelled and awaited (at most 5 s) when it goes.
struct RtTask : rtthread {
  RtTask(long long period_ns, std::function<void(RtTask&)> cycle)
      : rtthread("TASK", period_ns, false, 0, true), cycle_(std::move(cycle)) {}
  ~RtTask() override {
    SetCancel();
    WaitFinished(5000);
  }
  void start(void*) override { ++starts; }
  void* rtrun(void* arg) override { return cycle_(*this), arg; }
  std::atomic<int> starts{0};

 private:
  std::function<void(RtTask&)> cycle_;
};

#endif
