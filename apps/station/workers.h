// Work the main loop must not wait for: password checks and file digests run
// on a few threads of the station's own, and the session that asked waits
// for its answer while every other session goes on.
#ifndef STATION_WORKERS_H
#define STATION_WORKERS_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace station {

// Runs tasks on `threads` threads in arrival order. The destructor finishes
// the tasks under way and drops the rest. Run() may be called from any
// thread.
class WorkQueue {
 public:
  explicit WorkQueue(int threads);
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;
  void Run(std::function<void()> task);

 private:
  void run();
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool stop_ = false;
  std::vector<std::thread> threads_;  // last: they start once the rest is built
};

// The answer a worker writes for a session; `done` once `text` is complete.
struct PendingAnswer {
  std::string text;
  std::atomic<bool> done{false};
};

}  // namespace station

#endif
