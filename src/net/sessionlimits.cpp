// Session caps in total and per address, and the one-line refusal.
#include "zqcommon/sessionlimits.h"

#include <sys/socket.h>
#include <unistd.h>

bool SessionLimits::Admit(const std::string& address, std::string* why) {
  if (total_ != 0 && count_ >= total_) {
    if (why != nullptr) *why = "too many sessions (" + std::to_string(total_) + ")";
    return false;
  }
  const unsigned int mine = CountOf(address);
  if (per_address_ != 0 && mine >= per_address_) {
    if (why != nullptr) {
      *why = "too many sessions from " + address + " (" + std::to_string(per_address_) + ")";
    }
    return false;
  }
  ++by_address_[address];
  ++count_;
  return true;
}

void SessionLimits::Release(const std::string& address) {
  const auto it = by_address_.find(address);
  if (it == by_address_.end()) return;
  if (--it->second == 0) by_address_.erase(it);
  --count_;
}

unsigned int SessionLimits::CountOf(const std::string& address) const {
  const auto it = by_address_.find(address);
  return it == by_address_.end() ? 0 : it->second;
}

void SessionLimits::Refuse(int fd, const std::string& why) {
  if (fd < 0) return;
  const std::string line = "busy: " + why + "\r\n";
  send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  shutdown(fd, SHUT_WR);  // the line first, then the end of stream
  // An accepted socket may linger on close until the peer acknowledges
  // (a delayed acknowledgement costs 40 ms per refusal); the kernel finishes
  // the close in the background instead.
  const linger off{0, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
  close(fd);
}
