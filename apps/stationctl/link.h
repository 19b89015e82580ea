// stationctl's side of a station session: the TCP connection, start-TLS,
// the check of the station's certificate, the login, and machine-mode
// answers (docs/stationctl.md).
#ifndef STATIONCTL_LINK_H
#define STATIONCTL_LINK_H

#include <zqsecurity/sslconnection.h>

#include "answer.h"

#include <memory>
#include <string>

namespace stationctl {

// Exit codes, also the outcome of every step.
enum Exit { kDone = 0, kFailed = 1, kRefused = 2, kNoStation = 3 };

// How the station's certificate is checked.
struct Trust {
  std::string ca;           // its CA file: the chain and the name are verified
  std::string fingerprint;  // else the SHA-256 of its certificate
  std::string known_file;   // else trust on first use, pinned in this file
  bool insecure = false;    // no check at all (--insecure-no-verify)
  std::string cert, key;    // a client certificate that logs in as its name
};

// A session with one station. Every step waits at most until the deadline
// set with Arm(); a step that fails leaves the reason in Error() and the
// exit code it calls for. Not thread-safe.
class Link {
 public:
  Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link();

  // Every later step ends by `seconds` from now.
  void Arm(double seconds);
  // Connects, checks that the peer is a station, switches to machine mode
  // and TLS and checks the station's certificate: kDone or kNoStation.
  int Open(const std::string& host, int port, const Trust& trust);
  // Logs in as `user` (empty: only the certificate's login, if any).
  int Login(const std::string& user, const std::string& password);
  // The answer to `line`; code -1 when it did not come in time or the
  // session ended (the reason in Error()).
  Answer Ask(const std::string& line);
  // Who the session is logged in as ("" when no one).
  const std::string& User() const { return logged_in_; }
  const std::string& Error() const { return error_; }
  // The SHA-256 of the station's certificate ("AB:CD:..."), once open.
  const std::string& Fingerprint() const { return fingerprint_; }

 private:
  bool read_line(std::string& line);
  // One framed answer; `after_prompt`: a human-mode prompt may come first.
  Answer Read(bool after_prompt);
  bool handshake(const std::string& host, const Trust& trust);
  bool check_pinned(const std::string& host, int port, const Trust& trust);
  int fail(int code, const std::string& why);

  int fd_ = -1;
  ZQSecurity::SSLConnection conn_;
  long long deadline_us_ = 0;
  std::string error_, fingerprint_, logged_in_;
};

// Normalizes a fingerprint to upper-case pairs joined by ':'; "" when the
// text is not 32 bytes of hexadecimal (colons optional).
std::string normalize_fingerprint(const std::string& text);

// Makes the missing folders above `path`, each 0700.
void make_folders_for(const std::string& path);

}  // namespace stationctl

#endif
