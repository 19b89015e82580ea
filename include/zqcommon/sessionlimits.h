// Caps on the sessions a server holds at once: in total and per peer address.
#ifndef ZQCOMMON_SESSIONLIMITS_H
#define ZQCOMMON_SESSIONLIMITS_H

#include <string>
#include <unordered_map>

#include "zqcommon/export.h"

// Counts the sessions a server holds, in total and per peer address, and
// decides whether one more may start. A server admits each accepted peer
// with Admit() (counted when true), releases it with Release() when the
// session ends, and refuses a peer that was not admitted with Refuse(): one
// line naming the reason, then the descriptor is closed, so an excess peer is
// answered at once instead of waiting in the listen queue.
//
// A limit of 0 means no limit. Addresses are compared as text (one form per
// address, as MySocketServer gives them). Not locked: one thread (the
// server's loop) uses it. Memory grows with the number of distinct addresses
// held at once, which the total limit bounds.
class ZQ_EXPORT SessionLimits {
 public:
  SessionLimits(unsigned int total, unsigned int per_address)
      : total_(total), per_address_(per_address) {}

  // Counts one more session of `address` and returns true, or returns false
  // (counting nothing) with the reason in `why` when a limit is reached.
  bool Admit(const std::string& address, std::string* why = nullptr);
  // Ends a session Admit() counted; unknown addresses are ignored.
  void Release(const std::string& address);
  unsigned int Count() const { return count_; }
  unsigned int CountOf(const std::string& address) const;
  void SetLimits(unsigned int total, unsigned int per_address) {
    total_ = total;
    per_address_ = per_address;
  }

  // Sends "busy: WHY\r\n" without waiting (what does not fit the socket's
  // buffer is dropped) and closes `fd` without lingering: the kernel delivers
  // the line and the end of stream after the call returns, so a crowd of
  // refused peers never holds up the caller. -1 and a closed descriptor are
  // ignored.
  static void Refuse(int fd, const std::string& why);

 private:
  unsigned int total_;
  unsigned int per_address_;
  unsigned int count_ = 0;
  std::unordered_map<std::string, unsigned int> by_address_;
};

#endif
