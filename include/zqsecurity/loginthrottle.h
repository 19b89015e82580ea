// Slowing down and locking out password guessing, per peer address.
#ifndef ZQSECURITY_LOGINTHROTTLE_H
#define ZQSECURITY_LOGINTHROTTLE_H

#include <map>
#include <string>

#include "zqcommon/ew.h"
#include "zqcommon/export.h"

namespace ZQSecurity {

// Settings of a LoginThrottle (all times in milliseconds), loadable from a
// section: after a failed login the next answer waits FirstDelay, doubling
// with each failure up to MaxDelay; MaxFailures failures within Window lock
// the address out for Lockout. Opt-in, AddressMaxFailures above 0: the
// calls that name the user count per (address, user) instead, so that
// guesses at one name do not lock out another user at the same address,
// and that many failures within Window lock the whole address out.
struct ZQ_EXPORT LoginThrottleSettings : zqcommon::Config_Data {
  LoginThrottleSettings();
  int FirstDelay = 1000;
  int MaxDelay = 30000;
  int MaxFailures = 5;
  int Window = 600000;
  int Lockout = 600000;
  int AddressMaxFailures = 0;  // 0: the calls naming a user count per address alone
};

// The failures of each peer address. Times are the caller's monotonic
// milliseconds (e.g. GetLLTicks() / 1000), so tests can step them. Keeps a
// record per address that failed within the window or is locked out; older
// records are dropped as new failures come in. Not locked: one thread.
class ZQ_EXPORT LoginThrottle {
 public:
  explicit LoginThrottle(const LoginThrottleSettings& settings) : s_(settings) {}
  // Records a failure; the milliseconds the answer to it must wait.
  long long Failed(const std::string& peer, long long now_ms);
  // The same per (address, user) with the address's ceiling when
  // AddressMaxFailures is above 0; else exactly the calls above.
  long long Failed(const std::string& peer, const std::string& user, long long now_ms);
  bool Locked(const std::string& peer, const std::string& user, long long now_ms) const;
  void Succeeded(const std::string& peer, const std::string& user);
  // Forgets the address's failures after a successful login.
  void Succeeded(const std::string& peer) { peers_.erase(peer); }
  // Whether the address is locked out now.
  bool Locked(const std::string& peer, long long now_ms) const;
  size_t Tracked() const { return peers_.size(); }

 private:
  struct Record {
    int failures = 0;
    long long first = 0;         // the window's start
    long long locked_until = 0;
    long long delay = 0;         // the last delay given
  };
  void expire(long long now_ms);
  long long fail(const std::string& key, long long now_ms, int max_failures);
  static std::string pair(const std::string& peer, const std::string& user) { return peer + '\n' + user; }
  const LoginThrottleSettings& s_;
  std::map<std::string, Record> peers_;
};

}  // namespace ZQSecurity

#endif
