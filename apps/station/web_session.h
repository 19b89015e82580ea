// The web page's logged-in sessions: random 256-bit ids, a CSRF token per
// session, an idle time-out and a cap on their number.
#ifndef STATION_WEB_SESSION_H
#define STATION_WEB_SESSION_H

#include <map>
#include <mutex>
#include <string>

namespace station {
namespace web {

struct WebSession {
  std::string id, csrf;  // 64 hex digits each
  std::string user, peer;
  int level = 0;
  long long active_ms = 0;  // the last request's time
};

// Thread safe (the server's threads share it). Times are the caller's
// monotonic milliseconds.
class WebSessions {
 public:
  WebSessions(size_t max_sessions, long long idle_ms) : max_(max_sessions), idle_ms_(idle_ms) {}
  // A new session; beyond the cap the least recently active one goes. False
  // when no random id could be made.
  bool Open(const std::string& user, int level, const std::string& peer, long long now_ms, WebSession& out);
  // The session of `id`, its activity renewed; false when there is none or
  // it has been idle longer than the time-out (it is dropped then).
  bool Find(const std::string& id, long long now_ms, WebSession& out);
  void Close(const std::string& id);
  size_t Count();

 private:
  std::mutex mutex_;
  std::map<std::string, WebSession> sessions_;
  size_t max_;
  long long idle_ms_;
};

// `bytes` random bytes from OpenSSL as hex, or "" when there are none.
std::string random_hex(size_t bytes);
// The Set-Cookie value of a session id: only over HTTPS, never to scripts,
// never on a request from another site.
std::string session_cookie(const std::string& id);

}  // namespace web
}  // namespace station

#endif
