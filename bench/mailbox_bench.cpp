// Mailbox speed: records per second from one thread to another through
// rtmailbox against a mutex-protected std::deque of strings, in one run.
#include <zqrtm/rtmailbox.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr int kRecords = 2000000;
constexpr unsigned int kSize = 64, kEntries = 1024;

// A bounded queue of records under one mutex, refusing when full (like the mailbox).
class LockedQueue {
 public:
  bool put(const std::string& s) {
    std::lock_guard<std::mutex> hold(m_);
    if (q_.size() >= kEntries) return false;
    q_.push_back(s);
    return true;
  }
  bool get(std::string& s) {
    std::lock_guard<std::mutex> hold(m_);
    if (q_.empty()) return false;
    s = std::move(q_.front());
    q_.pop_front();
    return true;
  }

 private:
  std::mutex m_;
  std::deque<std::string> q_;
};

template <typename Put, typename Get>
double run(Put put, Get get) {
  const auto t0 = std::chrono::steady_clock::now();
  std::thread producer([&] {
    const std::string record = "a record of a real-time task, cycle 123456";
    for (int i = 0; i < kRecords; ++i) {
      while (!put(record)) std::this_thread::yield();
    }
  });
  std::string out;
  for (int got = 0; got < kRecords;) {
    if (get(out)) {
      ++got;
    } else {
      std::this_thread::yield();
    }
  }
  producer.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main() {
  double box_best = 1e30, queue_best = 1e30;
  for (int pass = 0; pass < 3; ++pass) {
    rtmailbox box(kSize, kEntries);
    box_best = std::min(box_best, run([&](const std::string& s) { return box.PutMessage(s); },
                                      [&](std::string& s) { return box.GetMessage(s); }));
    LockedQueue queue;
    queue_best = std::min(queue_best, run([&](const std::string& s) { return queue.put(s); },
                                          [&](std::string& s) { return queue.get(s); }));
  }
  std::printf("Mailbox, %d records of %u bytes between two threads, best of 3\n", kRecords, kSize);
  std::printf("  rtmailbox            %10.0f records/s\n", kRecords / box_best);
  std::printf("  mutex + std::deque   %10.0f records/s   rtmailbox/mutex = %4.2f\n",
              kRecords / queue_best, queue_best / box_best);
  return 0;
}
