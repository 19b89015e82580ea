// Fixed-size binary records between real-time and ordinary threads, never blocking.
#ifndef ZQRTM_RTTYPEDMAILBOX_H
#define ZQRTM_RTTYPEDMAILBOX_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>

// A bounded FIFO of `entries` records of type T, the binary companion of
// rtmailbox: a record is copied in and out whole, with no text and no
// allocation after construction. Put and Get never wait: a full or empty
// mailbox answers false at once. Any number of threads may put and get
// concurrently (a lock-free ring with a sequence number per slot). The
// constructor throws std::bad_alloc when it cannot make the ring; `entries`
// is rounded up to a power of two (at least 2).
template <class T>
class rttypedmailbox {
  static_assert(std::is_trivially_copyable<T>::value, "records must be trivially copyable");

 public:
  explicit rttypedmailbox(size_t entries) : mask_(round_up(entries) - 1) {
    slots_.reset(new Slot[mask_ + 1]);
    for (size_t i = 0; i <= mask_; ++i) slots_[i].sequence.store(i, std::memory_order_relaxed);
  }
  rttypedmailbox(const rttypedmailbox&) = delete;
  rttypedmailbox& operator=(const rttypedmailbox&) = delete;

  // False when the mailbox is full (the record is not queued).
  bool Put(const T& record) {
    size_t pos = put_pos_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& s = slots_[pos & mask_];
      const size_t seq = s.sequence.load(std::memory_order_acquire);
      const intptr_t diff = static_cast<intptr_t>(seq) - static_cast<intptr_t>(pos);
      if (diff == 0) {
        if (put_pos_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
          s.record = record;
          s.sequence.store(pos + 1, std::memory_order_release);
          return true;
        }
      } else if (diff < 0) {
        return false;
      } else {
        pos = put_pos_.load(std::memory_order_relaxed);
      }
    }
  }

  // The oldest record; false (and `record` untouched) when empty.
  bool Get(T& record) {
    size_t pos = get_pos_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& s = slots_[pos & mask_];
      const size_t seq = s.sequence.load(std::memory_order_acquire);
      const intptr_t diff = static_cast<intptr_t>(seq) - static_cast<intptr_t>(pos + 1);
      if (diff == 0) {
        if (get_pos_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
          record = s.record;
          s.sequence.store(pos + mask_ + 1, std::memory_order_release);
          return true;
        }
      } else if (diff < 0) {
        return false;
      } else {
        pos = get_pos_.load(std::memory_order_relaxed);
      }
    }
  }

  size_t capacity() const { return mask_ + 1; }

 private:
  static size_t round_up(size_t n) {
    size_t p = 2;
    while (p < n) p <<= 1;
    return p;
  }
  struct Slot {
    std::atomic<size_t> sequence;
    T record;
  };

  const size_t mask_;
  std::unique_ptr<Slot[]> slots_;
  alignas(64) std::atomic<size_t> put_pos_{0};
  alignas(64) std::atomic<size_t> get_pos_{0};
};

#endif
