// Per-address login delays and lock-outs.
#include "zqsecurity/loginthrottle.h"

#include <algorithm>

namespace ZQSecurity {

LoginThrottleSettings::LoginThrottleSettings() {
  using zqcommon::Config_Data_INIT;
  Register("FirstDelay", FirstDelay, Config_Data_INIT.FULL, "ms", "wait after the first failed login");
  Register("MaxDelay", MaxDelay, Config_Data_INIT.FULL, "ms", "the wait doubles up to this");
  Register("MaxFailures", MaxFailures, Config_Data_INIT.FULL, "", "failures within Window that lock out");
  Register("Window", Window, Config_Data_INIT.FULL, "ms", "period in which failures count");
  Register("Lockout", Lockout, Config_Data_INIT.FULL, "ms", "how long an address stays locked out");
  Register("AddressMaxFailures", AddressMaxFailures, Config_Data_INIT.FULL, "",
           "0: count per address; N: per address and user, N failures lock the address");
}

void LoginThrottle::expire(long long now_ms) {
  for (auto it = peers_.begin(); it != peers_.end();) {
    const Record& r = it->second;
    const bool stale = now_ms - r.first > s_.Window && now_ms >= r.locked_until;
    it = stale ? peers_.erase(it) : std::next(it);
  }
}

long long LoginThrottle::fail(const std::string& key, long long now_ms, int max_failures) {
  Record& r = peers_[key];
  if (r.failures == 0) r.first = now_ms;
  ++r.failures;
  r.delay = r.failures == 1 ? s_.FirstDelay : std::min<long long>(r.delay * 2, s_.MaxDelay);
  if (r.failures >= max_failures) r.locked_until = now_ms + s_.Lockout;
  return r.delay;
}

long long LoginThrottle::Failed(const std::string& peer, long long now_ms) {
  expire(now_ms);
  return fail(peer, now_ms, s_.MaxFailures);
}

long long LoginThrottle::Failed(const std::string& peer, const std::string& user, long long now_ms) {
  if (s_.AddressMaxFailures <= 0) return Failed(peer, now_ms);
  expire(now_ms);
  fail(peer, now_ms, s_.AddressMaxFailures);
  return fail(pair(peer, user), now_ms, s_.MaxFailures);
}

bool LoginThrottle::Locked(const std::string& peer, const std::string& user, long long now_ms) const {
  if (s_.AddressMaxFailures <= 0) return Locked(peer, now_ms);
  return Locked(peer, now_ms) || Locked(pair(peer, user), now_ms);
}

void LoginThrottle::Succeeded(const std::string& peer, const std::string& user) {
  // The address's count stays: one good login must not reset a ceiling
  // that guesses at other names built up.
  peers_.erase(s_.AddressMaxFailures <= 0 ? peer : pair(peer, user));
}

bool LoginThrottle::Locked(const std::string& peer, long long now_ms) const {
  auto it = peers_.find(peer);
  return it != peers_.end() && now_ms < it->second.locked_until;
}

}  // namespace ZQSecurity
