// The web page's logged-in sessions.
#include "web_session.h"

#include <openssl/rand.h>

#include <vector>

namespace station {
namespace web {

std::string random_hex(size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  if (RAND_bytes(raw.data(), static_cast<int>(bytes)) != 1) return "";
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes * 2);
  for (unsigned char b : raw) {
    hex += digits[b >> 4];
    hex += digits[b & 15];
  }
  return hex;
}

std::string session_cookie(const std::string& id) {
  return "zqsid=" + id + "; Path=/; HttpOnly; Secure; SameSite=Strict";
}

bool WebSessions::Open(const std::string& user, int level, const std::string& peer, long long now_ms,
                       WebSession& out) {
  WebSession s;
  s.id = random_hex(32);
  s.csrf = random_hex(32);
  if (s.id.empty() || s.csrf.empty()) return false;
  s.user = user;
  s.level = level;
  s.peer = peer;
  s.active_ms = now_ms;
  std::lock_guard<std::mutex> lock(mutex_);
  while (!sessions_.empty() && sessions_.size() >= max_) {
    auto oldest = sessions_.begin();
    for (auto i = sessions_.begin(); i != sessions_.end(); ++i) {
      if (i->second.active_ms < oldest->second.active_ms) oldest = i;
    }
    sessions_.erase(oldest);
  }
  sessions_[s.id] = s;
  out = s;
  return true;
}

bool WebSessions::Find(const std::string& id, long long now_ms, WebSession& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto i = sessions_.find(id);
  if (i == sessions_.end()) return false;
  if (idle_ms_ > 0 && now_ms - i->second.active_ms > idle_ms_) {
    sessions_.erase(i);
    return false;
  }
  i->second.active_ms = now_ms;
  out = i->second;
  return true;
}

void WebSessions::Close(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(id);
}

size_t WebSessions::Count() {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_.size();
}

}  // namespace web
}  // namespace station
