// The station's worker threads.
#include "workers.h"

namespace station {

WorkQueue::WorkQueue(int threads) {
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
}

WorkQueue::~WorkQueue() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void WorkQueue::Run(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void WorkQueue::run() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> hold(mutex_);
      wake_.wait(hold, [this] { return stop_ || !tasks_.empty(); });
      if (stop_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

}  // namespace station
