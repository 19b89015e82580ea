// Command requests waiting for the program, shared fairly between senders.
#ifndef ZQ_SRC_FLEET_REQUESTQUEUE_H
#define ZQ_SRC_FLEET_REQUESTQUEUE_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "zqfleet/MqttLink.h"

namespace zqdetail {

// One queue per identity, served in turn (one request of each identity
// with requests waiting, then again), bounded in bytes over all of them:
// when full, the identity that holds the most bytes loses its newest
// request, so one sender's flood never pushes out the others'. Not locked:
// the link's mutex guards it.
class RequestQueue {
 public:
  using Request = zqfleet::MqttLink::Request;
  explicit RequestQueue(uint64_t limit) : limit_(limit) {}
  // False when a request had to be dropped to make room (maybe this one).
  bool Push(Request r);
  bool Take(Request& r);
  uint64_t Bytes() const { return bytes_; }

  static uint64_t SizeOf(const Request& r) {
    return 64 + r.identity.size() + r.payload.size() + r.response_topic.size() + r.correlation.size() + r.refused.size();
  }

 private:
  struct Sender {
    std::deque<Request> waiting;
    uint64_t bytes = 0;
  };
  uint64_t limit_, bytes_ = 0;
  std::map<std::string, Sender> senders_;
  std::deque<std::string> turn_;  // identities with requests waiting, next first
};

inline bool RequestQueue::Push(Request r) {
  const uint64_t size = SizeOf(r);
  Sender& s = senders_[r.identity];
  if (s.waiting.empty()) turn_.push_back(r.identity);
  s.waiting.push_back(std::move(r));
  s.bytes += size;
  bytes_ += size;
  bool kept = true;
  while (bytes_ > limit_) {
    auto most = senders_.begin();
    for (auto it = senders_.begin(); it != senders_.end(); ++it) {
      if (it->second.bytes > most->second.bytes) most = it;
    }
    const uint64_t dropped = SizeOf(most->second.waiting.back());
    most->second.waiting.pop_back();
    most->second.bytes -= dropped;
    bytes_ -= dropped;
    kept = false;
    if (most->second.waiting.empty()) {
      for (auto t = turn_.begin(); t != turn_.end(); ++t) {
        if (*t == most->first) {
          turn_.erase(t);
          break;
        }
      }
      senders_.erase(most);
    }
  }
  return kept;
}

inline bool RequestQueue::Take(Request& r) {
  if (turn_.empty()) return false;
  const std::string who = std::move(turn_.front());
  turn_.pop_front();
  auto it = senders_.find(who);
  r = std::move(it->second.waiting.front());
  it->second.waiting.pop_front();
  const uint64_t size = SizeOf(r);
  it->second.bytes -= size;
  bytes_ -= size;
  if (it->second.waiting.empty()) {
    senders_.erase(it);
  } else {
    turn_.push_back(who);
  }
  return true;
}

}  // namespace zqdetail

#endif
