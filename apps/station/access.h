// Who may do what at the station, over which channel: TLS with the station's
// own certificates, users and levels, login, throttling, idle time-out, audit.
#ifndef STATION_ACCESS_H
#define STATION_ACCESS_H

#include <zqcommon/ew.h>
#include <zqcommon/log.h>
#include <zqsecurity/loginthrottle.h>
#include <zqsecurity/tlscontext.h>
#include <zqsecurity/userfile.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "workers.h"

class CLI;
class Connection;

namespace station {

struct Session;
struct StationSettings;
struct ServerSettings;

// [Access]: the session rules beyond the TLS and login settings.
struct AccessSettings : zqcommon::Config_Data {
  AccessSettings();
  int IdleTimeout = 900;         // seconds without a line before a client is closed
  int HandshakeTimeout = 10;     // seconds a TLS handshake may take
  bool AnonymousTLS = false;     // starttls without certificates (anonymous DH, TLS 1.2)
  std::string TLSFolder = "tls"; // where the first start creates the CA and certificates
  int LoginTimeout = 30;         // seconds a session may take to log in (TLS included); 0: no limit
  int MaxNotLoggedIn = 8;        // sessions not logged in; a new one closes the oldest beyond this
  int CheckThreads = 3;          // password checks run side by side
};

// The settings sections of this module, held by ServerSettings.
struct AccessConfig {
  ZQSecurity::TLSSettings tls;                 // [TLS]
  ZQSecurity::LoginThrottleSettings login;     // [Login]
  AccessSettings access;                       // [Access]
};

// One password check, handed from the main loop to the checker's threads.
struct PendingLogin {
  std::string user, password;
  std::shared_ptr<const ZQSecurity::UserFile> users;  // the users as read when it was asked
  ZQSecurity::AccessLevel level = ZQSecurity::kNoAccess;  // valid once done
  std::atomic<bool> done{false};
};

// Checks passwords on a few threads of its own, in arrival order: a check
// costs tens of milliseconds of scrypt, which the main loop must not spend
// while every other session waits, and several threads keep a right password
// from waiting behind a row of wrong ones. Each job carries the users it is
// checked against. The destructor finishes the checks under way and drops
// the rest.
class PasswordChecker {
 public:
  explicit PasswordChecker(int threads) : queue_(threads) {}
  void Submit(std::shared_ptr<PendingLogin> job);

 private:
  WorkQueue queue_;
};

// A network session's access state (kept in its Session).
struct AccessState {
  enum Step { kCommand, kUser, kPassword } step = kCommand;
  std::string user;             // logged in as (or being asked for)
  long long hold_until_ms = 0;  // answers wait until then after a failed login
  std::string held;             // the answer that waits
  long long active_ms = 0;      // the last line's time
  long long handshake_until_ms = 0;  // a handshake is under way until then
  bool discarding = false;      // the rest of a refused long line is being dropped
  std::string refusal;          // a login refused before its password: said once the password is in
  long long admitted_ms = 0;    // when the session began (the login time-out)
  std::shared_ptr<PendingLogin> login;  // a password check under way (answers held)
};

// The station's gate: owned by run(), used by the main thread only.
class Gate {
 public:
  Gate(StationSettings& settings, ServerSettings& server, Log& log);
  // Loads the users file and makes the TLS context (creating the station's
  // certificates on the first start); false with the reason on stderr.
  bool Prepare();
  // A new network session: level rules, private streams, the greeting.
  void Admit(CLI& cli, Session& s, FILE* out);
  // Before a line reaches the interpreter: true when the gate took it (a
  // login step, or a refusal written to `out`).
  bool Screen(CLI& cli, Session& s, Connection& conn, const std::string& line, FILE* out);
  // A line beyond the connection's limit (readln gave -3): refused with one
  // line (a login step under way ends) and its rest dropped as it arrives.
  void LineTooLong(Session& s, Connection& conn, FILE* out);
  // Whether the line just read (its readln result `r`) ends a refused long
  // line, and is dropped with it. Only a line with text counts: an empty one
  // cannot be told from "no line end yet".
  bool Dropped(Session& s, int r);
  // After the interpreter ran a line: the audit record.
  void Audit(const Session& s, const std::string& line, int result);
  // Starts the handshake after "OK starting TLS"; false when there is no TLS.
  bool StartTLS(Session& s, Connection& conn);
  // One step of a handshake under way: 1 done, 0 waiting, -1 failed (closed).
  int StepTLS(CLI& cli, Session& s, Connection& conn, FILE* out);
  // Whether the session's answers are held back now (after a failed login).
  bool Held(Session& s, long long now_ms) const { return now_ms < state(s).hold_until_ms; }
  // Idle sessions, finished password checks and held answers whose time
  // has come: false to close.
  bool Tick(CLI& cli, Session& s, Connection& conn, long long now_ms);
  // The poll events a session waits for, or 0 for the usual ones.
  short Events(Session& s, Connection& conn) const;
  // SIGHUP: reads the users file again (an unreadable file keeps the users
  // as they were); every change is logged. Then Recheck() each session.
  void ReloadUsers();
  // A logged-in session against the users just read: a lowered or raised
  // level applies from its next command; false when its user is gone (the
  // session is told and closed here).
  bool Recheck(CLI& cli, Session& s, Connection& conn);
  // Whether a finished line of an editing-mode session may run: false for
  // the line after a `login` (taken as the password and dropped).
  bool EditedLine(Session& s, const std::string& line);
  // Whether an editing-mode line goes to the log (not unknown words before
  // a login).
  bool Logged(const Session& s, const std::string& line) const;
  // When the users were last read, for status.
  std::string UsersRead() const;
  // A login from another channel (the web page), on the main thread: the
  // same users, password checker, per-address throttle and audit line as a
  // TCP login. BeginLogin gives the check under way, or null when it is
  // refused at once (`locked`: the address or user is locked out).
  // FinishLogin records the outcome (`level` kNoAccess: failed) and gives
  // the milliseconds a failed login's answer waits; `locked` comes out true
  // when the failure locked the address or user out.
  std::shared_ptr<PendingLogin> BeginLogin(const std::string& peer, const std::string& user,
                                           const std::string& password, bool& locked);
  long long FinishLogin(const std::string& peer, const std::string& user, ZQSecurity::AccessLevel level,
                        bool& locked, const char* how);
  // The server's TLS context; null without a certificate.
  std::shared_ptr<ZQSecurity::TLSContext> ServerTLS() const { return tls_; }

  static long long NowMs();

 private:
  AccessState& state(Session& s) const;
  bool open_station() const;
  void login_done(CLI& cli, Session& s, const std::string& user, ZQSecurity::AccessLevel level,
                  const char* how, FILE* out);
  // The outcome of a password check: logged in, or refused after a wait.
  void password_checked(CLI& cli, Session& s, ZQSecurity::AccessLevel level, bool locked, FILE* out);
  StationSettings& settings_;
  ServerSettings& server_;
  Log& log_;
  bool load_users(std::string& error);
  std::shared_ptr<ZQSecurity::TLSContext> tls_;
  std::shared_ptr<const ZQSecurity::UserFile> users_;  // null until the file exists
  std::string users_read_;                              // when (UTC) and what was read
  ZQSecurity::LoginThrottle throttle_;
  std::unique_ptr<PasswordChecker> checker_;  // unless the station is open
};

// "--passwd NAME LEVEL", "--issue-client-cert NAME" and "--issue-server-cert
// HOSTNAME..." are taken out of the arguments before the configuration reads
// them; Handle() runs the one given once the settings are loaded. -1 when
// none was given, else the exit code.
struct AccessOption {
  std::string option, name, level;
  std::vector<std::string> names;  // of --issue-server-cert
  bool Take(int& argc, char** argv);
  int Handle(StationSettings& settings, ServerSettings& server);
};

// The one audit line of an action of session `s` (terminal, TCP, MQTT or
// web): "audit: PEER: LINE (user NAME, LEVEL, result N)".
void audit_line(Log& log, const Session& s, const std::string& line, int result);

// Gives `cli` the minimum level of every station command (the one table that
// network sessions and requests through the broker share).
void apply_command_levels(CLI& cli);

}  // namespace station

#endif
