// Mailbox speed: records per second through rtmailbox against Boost.Lockfree's
// queue (bounded, 1024 nodes, records of 64 bytes held by value), one
// producer and one consumer, then two producers. Both start from a
// std::string and end in one, so both copy the text in and out. Threads are
// pinned (producers on CPU 0 and 1, the consumer on the last CPU); medians of
// 5 alternating runs, with the spread (min-max).
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include "bench_util.h"
#include <zqrtm/rtmailbox.h>

#include <algorithm>
#include <boost/lockfree/queue.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using bench::median;
using bench::seconds;

constexpr int kRecords = 200000;  // per producer
constexpr unsigned int kSize = 64, kEntries = 1024;

struct Record {
  char text[kSize];
};

void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu % static_cast<int>(std::thread::hardware_concurrency()), &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

template <typename Put, typename Get>
double run(int producers, Put put, Get get) {
  const int cpus = static_cast<int>(std::thread::hardware_concurrency());
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      pin(p);
      const std::string record = "a record of a real-time task, cycle 123456";
      for (int i = 0; i < kRecords; ++i) {
        while (!put(record)) std::this_thread::yield();
      }
    });
  }
  pin(cpus - 1);
  std::string out;
  for (int got = 0; got < kRecords * producers;) {
    if (get(out)) {
      ++got;
    } else {
      std::this_thread::yield();
    }
  }
  for (auto& t : threads) t.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}


}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("Mailbox, records of %u bytes, %d per producer, medians of 5 pinned runs (M records/s)\n", kSize,
              kRecords);
  for (int producers : {1, 2}) {
    std::vector<double> ours, peer;
    for (int pass = 0; pass < 5; ++pass) {
      rtmailbox box(kSize, kEntries);
      ours.push_back(kRecords * producers / 1e6 /
                     run(producers, [&](const std::string& s) { return box.PutMessage(s); },
                         [&](std::string& s) { return box.GetMessage(s); }));
      boost::lockfree::queue<Record, boost::lockfree::capacity<kEntries>> queue;
      peer.push_back(kRecords * producers / 1e6 /
                     run(
                         producers,
                         [&](const std::string& s) {
                           Record r;
                           std::memcpy(r.text, s.data(), s.size());
                           std::memset(r.text + s.size(), 0, kSize - s.size());
                           return queue.bounded_push(r);
                         },
                         [&](std::string& s) {
                           Record r;
                           if (!queue.pop(r)) return false;
                           s.assign(r.text, strnlen(r.text, kSize));
                           return true;
                         }));
    }
    const double o = median(ours), p = median(peer);
    std::printf("  %d producer(s): rtmailbox %6.2f (%.2f-%.2f)   Boost.Lockfree queue %6.2f (%.2f-%.2f)   ratio %.2f\n",
                producers, o, *std::min_element(ours.begin(), ours.end()), *std::max_element(ours.begin(), ours.end()),
                p, *std::min_element(peer.begin(), peer.end()), *std::max_element(peer.begin(), peer.end()), o / p);
    bench::summary({bench::text("mailbox %d producer(s), 1 consumer, pinned", producers),
                    "Boost.Lockfree queue<64-byte record>",
                    bench::text("%.2f M/s (%.2f-%.2f)", p, *std::min_element(peer.begin(), peer.end()),
                                *std::max_element(peer.begin(), peer.end())),
                    bench::text("%.2f M/s (%.2f-%.2f)", o, *std::min_element(ours.begin(), ours.end()),
                                *std::max_element(ours.begin(), ours.end())),
                    o / p, 1.0, "Boost.Lockfree", "-"});
  }
  return 0;
}
