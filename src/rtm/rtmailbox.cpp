// Bounded lock-free mailbox of fixed-size records.
#include "zqrtm/rtmailbox.h"

#include <cstring>
#include <new>

rtmailbox::rtmailbox(unsigned int size, unsigned int entries) : msgsize(size), mbxentries(entries) {
  if (size == 0 || entries == 0) throw "Cannot create mailbox";
  // Each slot: its sequence number, then the record, rounded up to a cache line.
  stride_ = (sizeof(Slot) + size + 63) / 64 * 64;
  storage_.reset(new (std::nothrow) char[stride_ * entries + 64]);
  if (storage_ == nullptr) throw "Cannot create mailbox";
  base_ = storage_.get();
  base_ += (64 - reinterpret_cast<uintptr_t>(base_) % 64) % 64;  // cache-line aligned
  for (size_t i = 0; i < entries; ++i) new (&slot(i)) Slot{{i}};
}

rtmailbox::~rtmailbox() {
  for (size_t i = 0; i < mbxentries; ++i) slot(i).~Slot();
}

rtmailbox::Slot& rtmailbox::slot(size_t i) const { return *reinterpret_cast<Slot*>(base_ + i * stride_); }

char* rtmailbox::data(size_t i) const { return reinterpret_cast<char*>(&slot(i)) + sizeof(Slot); }

// A slot whose sequence equals the position is free for the putter of that
// position; put makes it position + 1 (full for the getter of that position),
// get makes it position + entries (free for the next round).
bool rtmailbox::PutMessage(const std::string& text) {
  if (text.size() > msgsize) return false;
  size_t pos = put_pos_.load(std::memory_order_relaxed);
  for (;;) {
    const size_t index = pos % mbxentries;
    Slot& s = slot(index);
    const size_t seq = s.sequence.load(std::memory_order_acquire);
    const auto diff = static_cast<long long>(seq) - static_cast<long long>(pos);
    if (diff == 0) {
      if (put_pos_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
        char* d = data(index);
        std::memcpy(d, text.data(), text.size());
        std::memset(d + text.size(), 0, msgsize - text.size());
        s.sequence.store(pos + 1, std::memory_order_release);
        return true;
      }
    } else if (diff < 0) {
      return false;  // full
    } else {
      pos = put_pos_.load(std::memory_order_relaxed);
    }
  }
}

bool rtmailbox::GetMessage(std::string& text) {
  text.reserve(msgsize);  // any allocation before a slot is claimed
  size_t pos = get_pos_.load(std::memory_order_relaxed);
  for (;;) {
    const size_t index = pos % mbxentries;
    Slot& s = slot(index);
    const size_t seq = s.sequence.load(std::memory_order_acquire);
    const auto diff = static_cast<long long>(seq) - static_cast<long long>(pos + 1);
    if (diff == 0) {
      if (get_pos_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
        // One copy, of the text only; the string keeps its capacity.
        const char* d = data(index);
        text.assign(d, strnlen(d, msgsize));
        s.sequence.store(pos + mbxentries, std::memory_order_release);
        return true;
      }
    } else if (diff < 0) {
      text.clear();  // empty
      return false;
    } else {
      pos = get_pos_.load(std::memory_order_relaxed);
    }
  }
}
