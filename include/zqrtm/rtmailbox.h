// Fixed-size text records between real-time and ordinary threads, never blocking.
#ifndef ZQRTM_RTMAILBOX_H
#define ZQRTM_RTMAILBOX_H

#include <atomic>
#include <memory>
#include <string>

#include "zqcommon/export.h"

// A bounded FIFO of `entries` records of `msgsize` bytes each. PutMessage and
// GetMessage never wait: a full or empty mailbox answers false at once. Any
// number of threads may put and get concurrently (a lock-free ring with a
// sequence number per slot); a record is queued or taken whole, never in part.
// Texts must not contain zero bytes: a record is the text padded with zeros,
// and a text of exactly `msgsize` bytes is kept whole. The constructor throws
// the text "Cannot create mailbox" (a const char*) when it cannot make one.
class ZQ_EXPORT rtmailbox {
 public:
  rtmailbox(unsigned int msgsize, unsigned int entries);
  ~rtmailbox();
  rtmailbox(const rtmailbox&) = delete;
  rtmailbox& operator=(const rtmailbox&) = delete;

  // False when the text is longer than a record or the mailbox is full.
  bool PutMessage(const std::string& text);
  // One record, cut at its first zero byte; false (and "") when empty.
  bool GetMessage(std::string& text);

  const unsigned int msgsize;
  const unsigned int mbxentries;

 private:
  struct Slot {
    std::atomic<size_t> sequence;
  };
  Slot& slot(size_t i) const;
  char* data(size_t i) const;

  std::unique_ptr<char[]> storage_;  // per slot: the sequence, then the record
  char* base_;                       // the first slot, cache-line aligned in storage_
  size_t stride_;
  alignas(64) std::atomic<size_t> put_pos_{0};
  alignas(64) std::atomic<size_t> get_pos_{0};
};

#endif
