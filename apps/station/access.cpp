// The station's gate: login, levels, TLS with its own certificates, throttling,
// idle time-out and the audit log.
#include "access.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>
#include <zqsecurity/sslconnection.h>

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iostream>
#include <limits>

#include "certificates.h"
#include "station.h"

namespace station {

using ZQSecurity::AccessLevel;
using ZQSecurity::UserFile;

AccessSettings::AccessSettings() {
  using zqcommon::Config_Data_INIT;
  Register("IdleTimeout", IdleTimeout, Config_Data_INIT.FULL, "s", "idle clients are closed after this");
  Register("HandshakeTimeout", HandshakeTimeout, Config_Data_INIT.FULL, "s", "longest TLS handshake");
  Register("AnonymousTLS", AnonymousTLS, Config_Data_INIT.FULL, "", "starttls without certificates");
  Register("TLSFolder", TLSFolder, Config_Data_INIT.FULL, "", "the station's CA and certificates");
  Register("LoginTimeout", LoginTimeout, Config_Data_INIT.FULL, "s", "time to log in after connecting");
  Register("MaxNotLoggedIn", MaxNotLoggedIn, Config_Data_INIT.FULL, "", "sessions not logged in");
  Register("CheckThreads", CheckThreads, Config_Data_INIT.FULL, "", "password checks side by side");
}

namespace {

// Who may run what: the leading words of a line and the level they need.
// Lines without a rule (and help, login, starttls, exit) need no login.
const struct {
  const char* words;
  AccessLevel level;
} kRules[] = {
    {"status", ZQSecurity::kViewer},     {"io", ZQSecurity::kViewer},
    {"io set", ZQSecurity::kOperator},   {"io clear", ZQSecurity::kOperator},
    {"io toggle", ZQSecurity::kOperator}, {"trace", ZQSecurity::kViewer},
    {"trace start", ZQSecurity::kOperator}, {"trace stop", ZQSecurity::kOperator},
    {"fit", ZQSecurity::kOperator},      {"hash", ZQSecurity::kOperator},
    {"crc", ZQSecurity::kOperator},      {"config", ZQSecurity::kViewer},
    {"config set", ZQSecurity::kAdmin},  {"config save", ZQSecurity::kAdmin},
    {"echo", ZQSecurity::kViewer},       {"set", ZQSecurity::kViewer},
    {"unset", ZQSecurity::kViewer},      {"history", ZQSecurity::kViewer},
    {"device", ZQSecurity::kViewer},     {"device recover", ZQSecurity::kOperator},
    {"points", ZQSecurity::kViewer},     {"alarms", ZQSecurity::kViewer},
    {"ack", ZQSecurity::kOperator},      {"shelve", ZQSecurity::kOperator},
    {"disable", ZQSecurity::kAdmin},     {"enable", ZQSecurity::kAdmin},
    {"alarm-history", ZQSecurity::kViewer}, {"trace-csv", ZQSecurity::kOperator},
    {"timing-json", ZQSecurity::kOperator},
    {"outputs", ZQSecurity::kViewer},    {"outputs resume", ZQSecurity::kOperator},
};

const char kNoUsers[] = "no users yet: create one at the station with: station --passwd NAME LEVEL";

std::string first_word(const std::string& line) {
  const std::string text = Trim(line);
  return text.substr(0, text.find(' '));
}

ZQSecurity::SSLConnection& tls(Connection& conn) { return static_cast<ZQSecurity::SSLConnection&>(conn); }

int cmd_login(void* arg, int argc, const char** argv) {
  Session& s = *static_cast<Session*>(arg);
  if (s.want_editing) {  // the editor would echo the password and keep it in the history
    std::fputs("login: not in editing mode, where the password would be echoed and kept in the history "
               "(connect again and log in first); the next line is dropped\r\n", s.out);
    s.access.step = AccessState::kPassword;  // whatever follows is taken as the password (EditedLine)
    return 1;
  }
  s.access.user = argc > 1 ? argv[1] : "";
  s.access.step = argc > 1 ? AccessState::kPassword : AccessState::kUser;
  std::fputs(argc > 1 ? "password: " : "user: ", s.out);
  return 0;
}

}  // namespace

void apply_command_levels(CLI& cli) {
  for (const auto& r : kRules) cli.SetCommandLevel(r.words, r.level);
}

long long Gate::NowMs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

Gate::Gate(StationSettings& settings, ServerSettings& server, Log& log)
    : settings_(settings), server_(server), log_(log), throttle_(server.access_cfg.login) {}

AccessState& Gate::state(Session& s) const { return s.access; }

// Access control switched off (a trusted network, or a test of the commands).
bool Gate::open_station() const { return settings_.UsersFile.empty() || settings_.UsersFile == "none"; }

bool Gate::load_users(std::string& error) {
  char when[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", std::gmtime(&now));
  if (access(settings_.UsersFile.c_str(), F_OK) != 0) {
    users_read_ = std::string(when) + ", " + settings_.UsersFile + " absent";
    users_.reset();
    return true;  // no users yet: nobody logs in until the first is made and the file read
  }
  auto users = std::make_shared<UserFile>();
  if (!users->Load(settings_.UsersFile, error)) return false;
  users_read_ = std::string(when) + ", " + std::to_string(users->Size()) + " user(s) from " + settings_.UsersFile;
  users_ = std::move(users);
  return true;
}

std::string Gate::UsersRead() const { return open_station() ? "no login (UsersFile = none)" : users_read_; }

void Gate::ReloadUsers() {
  if (open_station()) return;
  const std::shared_ptr<const UserFile> before = users_;
  std::string error;
  if (!load_users(error)) {
    log_.Add(elog_ERROR, 4, "reload: users: %s; the users as they were are kept", error.c_str());
    return;
  }
  std::vector<std::string> names = users_ ? users_->Names() : std::vector<std::string>();
  if (before) {
    for (const std::string& n : before->Names()) names.push_back(n);
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  int changes = 0;
  for (const std::string& n : names) {
    const AccessLevel was = before ? before->LevelOf(n) : ZQSecurity::kNoAccess;
    const AccessLevel now = users_ ? users_->LevelOf(n) : ZQSecurity::kNoAccess;
    if (was == now) continue;
    ++changes;
    if (was == ZQSecurity::kNoAccess) {
      log_.Add(elog_INFO, 0, "reload: user %s added (%s)", n.c_str(), UserFile::LevelName(now));
    } else if (now == ZQSecurity::kNoAccess) {
      log_.Add(elog_INFO, 0, "reload: user %s removed", n.c_str());
    } else {
      log_.Add(elog_INFO, 0, "reload: user %s now %s (was %s)", n.c_str(), UserFile::LevelName(now),
               UserFile::LevelName(was));
    }
  }
  log_.Add(elog_INFO, 0, "reload: users read at %s, %d change(s)", users_read_.c_str(), changes);
}

bool Gate::Recheck(CLI& cli, Session& s, Connection& conn) {
  if (open_station() || s.level == ZQSecurity::kNoAccess) return true;
  const AccessLevel now = users_ ? users_->LevelOf(s.access.user) : ZQSecurity::kNoAccess;
  if (now == s.level) return true;
  if (now == ZQSecurity::kNoAccess) {
    log_.Add(elog_INFO, 0, "audit: %s from %s: user removed, session closed", s.access.user.c_str(),
             s.peer.c_str());
    conn.writeln("\r\nuser " + s.access.user + " removed, closing");
    conn.close();
    return false;
  }
  log_.Add(elog_INFO, 0, "audit: %s from %s: level %s from the next command (was %s)", s.access.user.c_str(),
           s.peer.c_str(), UserFile::LevelName(now), UserFile::LevelName(static_cast<AccessLevel>(s.level)));
  s.level = now;
  cli.SetSessionLevel(now);
  return true;
}

bool Gate::EditedLine(Session& s, const std::string& line) {
  (void)line;
  if (s.access.step != AccessState::kPassword) return true;
  s.access.step = AccessState::kCommand;  // after a refused `login`: the password, dropped
  return false;
}

bool Gate::Logged(const Session& s, const std::string& line) const {
  // Before a login only the commands that need none are logged: unknown
  // words from a stranger would fill the log.
  const std::string word = first_word(line);
  return s.level != ZQSecurity::kNoAccess || open_station() || word == "help" || word == "login" ||
         word == "exit" || word == "quit" || word == "editing" || word == "starttls";
}

bool Gate::Prepare() {
  std::string error;
  if (!open_station()) {
    if (!load_users(error)) {
      std::fprintf(stderr, "station: %s\n", error.c_str());
      return false;
    }
    log_.Add(elog_INFO, 0, "users read at %s", users_read_.c_str());
    checker_ = std::make_unique<PasswordChecker>(std::max(1, server_.access_cfg.access.CheckThreads));
  }
  ZQSecurity::TLSSettings& t = server_.access_cfg.tls;
  if (t.CertificateFile.empty() || t.CertificateFile == "none") return true;  // no certificate mode
  const std::string& folder = server_.access_cfg.access.TLSFolder;
  if (access(t.CertificateFile.c_str(), F_OK) != 0) {
    const int made = ensure_certificates(folder, error);
    if (made < 0) {
      std::fprintf(stderr, "station: TLS certificates in %s: %s\n", folder.c_str(), error.c_str());
      return false;
    }
    if (made > 0) log_.Add(elog_INFO, 0, "created the station's CA and server certificate in %s", folder.c_str());
  }
  tls_ = ZQSecurity::TLSContext::Create(t, true, error);
  if (tls_ == nullptr) {
    std::fprintf(stderr, "station: TLS: %s\n", error.c_str());
    return false;
  }
  const std::string fp = ca_fingerprint(folder);
  if (!fp.empty()) std::printf("tls CA %s/ca.pem SHA-256 %s\r\n", folder.c_str(), fp.c_str());
  return true;
}

void Gate::Admit(CLI& cli, Session& s, FILE* out) {
  cli.SetStandardStreams(out, out);
  cli.Register(cmd_login, &s, "login", nullptr, "login [NAME]: log in (asks for the password)");
  const bool open = open_station();
  s.level = open ? ZQSecurity::kAdmin : ZQSecurity::kNoAccess;
  apply_command_levels(cli);
  cli.SetSessionLevel(s.level);
  s.access.active_ms = NowMs();
  s.access.admitted_ms = s.access.active_ms;
  if (!open && users_ == nullptr) std::fprintf(out, "%s\r\n", kNoUsers);
}

bool Gate::Screen(CLI& cli, Session& s, Connection& conn, const std::string& line, FILE* out) {
  AccessState& a = s.access;
  a.active_ms = NowMs();
  if (a.step == AccessState::kUser) {
    a.user = Trim(line);
    a.step = AccessState::kPassword;
    std::fputs("password: ", out);
    return true;
  }
  if (a.step == AccessState::kPassword) {
    a.step = AccessState::kCommand;
    if (!a.refusal.empty()) {  // the login was refused: its password is dropped unread
      std::fprintf(out, "%s\r\n", a.refusal.c_str());
      a.refusal.clear();
      a.user.clear();
      return true;
    }
    const bool locked = throttle_.Locked(s.peer, a.user, NowMs());
    if (locked || checker_ == nullptr || users_ == nullptr) {
      password_checked(cli, s, ZQSecurity::kNoAccess, locked, out);
      if (users_ == nullptr) std::fprintf(out, "%s\r\n", kNoUsers);
      return true;
    }
    // The session's answers wait until the checker's thread is done (Tick).
    a.login = std::make_shared<PendingLogin>();
    a.login->user = a.user;
    a.login->password = line;
    a.login->users = users_;
    a.hold_until_ms = std::numeric_limits<long long>::max();
    checker_->Submit(a.login);
    return true;
  }
  const std::string word = first_word(line);
  const bool always =
      word == "help" || word == "starttls" || word == "exit" || word == "quit" || word == "mode";
  if (server_.RequireTLS && !conn.IsEncrypted() && !always) {
    if (word == "login") {
      // Asked for as usual and dropped: whatever the state, the line after
      // `login` is a password and never runs as a command.
      a.refusal = "login: refused before starttls (this station requires TLS)";
      const std::string name = Trim(Trim(line).substr(5));
      a.user = name;
      a.step = name.empty() ? AccessState::kUser : AccessState::kPassword;
      std::fputs(name.empty() ? "user: " : "password: ", out);
      return true;
    }
    std::fprintf(out, "%s: refused before starttls (this station requires TLS)\r\n", word.c_str());
    return true;
  }
  if (s.level == ZQSecurity::kNoAccess && !always && word != "login" && cli.find_command(word) != nullptr) {
    std::fprintf(out, "%s: log in first (login NAME)\r\n", word.c_str());
    if (users_ == nullptr) std::fprintf(out, "%s\r\n", kNoUsers);
    return true;
  }
  (void)cli;
  return false;
}

void Gate::LineTooLong(Session& s, Connection& conn, FILE* out) {
  // What is buffered holds no line end: all of it belongs to the long line.
  std::string rest;
  conn.read(rest, static_cast<int>(conn.ReadPending()), false, 0);
  if (s.access.discarding) return;
  s.access.discarding = true;
  s.access.step = AccessState::kCommand;
  s.access.user = s.level == ZQSecurity::kNoAccess ? "" : s.access.user;
  s.access.active_ms = NowMs();
  std::fputs("line too long\r\n", out);
  log_.Add(elog_WARN, 0, "%s: a line beyond the limit refused", s.peer.c_str());
}

bool Gate::Dropped(Session& s, int r) {
  if (!s.access.discarding || r <= 0) return false;  // 0: no line end yet
  s.access.discarding = false;
  return true;
}

void Gate::login_done(CLI& cli, Session& s, const std::string& user, AccessLevel level, const char* how,
                      FILE* out) {
  s.level = level;
  s.access.user = user;
  cli.SetSessionLevel(level);
  std::fprintf(out, "logged in as %s (%s)\r\n", user.c_str(), UserFile::LevelName(level));
  log_.Add(elog_INFO, 0, "audit: %s logged in from %s as %s by %s", user.c_str(), s.peer.c_str(),
           UserFile::LevelName(level), how);
}

void Gate::Audit(const Session& s, const std::string& line, int result) {
  // Unknown words from a peer that has not logged in are not recorded: a
  // stranger could otherwise fill the log at the network's speed.
  if (result == -1 && s.level == ZQSecurity::kNoAccess && !open_station()) return;
  audit_line(log_, s, line, result);
}

void audit_line(Log& log, const Session& s, const std::string& line, int result) {
  log.Add(elog_INFO, 0, "audit: %s: %s (user %s, %s, result %d)", s.peer.c_str(), escape_controls(Trim(line)).c_str(),
          s.access.user.empty() ? "-" : escape_controls(s.access.user).c_str(),
          UserFile::LevelName(static_cast<AccessLevel>(s.level)), result);
}

bool Gate::StartTLS(Session& s, Connection& conn) {
  if (tls_ != nullptr) {
    tls(conn).SSL_use_context(tls_);
  } else if (!server_.access_cfg.access.AnonymousTLS || !conn.SSL_setup(true, "", "", "")) {
    return false;
  }
  // The handshake's flights go out in several small writes: without this,
  // Nagle's algorithm and the peer's delayed acknowledgement add 40 ms.
  const int on = 1;
  setsockopt(conn.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  s.access.handshake_until_ms = NowMs() + server_.access_cfg.access.HandshakeTimeout * 1000LL;
  return true;
}

int Gate::StepTLS(CLI& cli, Session& s, Connection& conn, FILE* out) {
  const int r = tls(conn).SSL_handshake_step(true);
  if (r == 0 && NowMs() < s.access.handshake_until_ms) return 0;
  s.access.handshake_until_ms = 0;
  if (r <= 0) {
    log_.Add(elog_WARN, 0, "%s: TLS handshake failed: %s", s.peer.c_str(),
             r == 0 ? "timed out" : tls(conn).TLSError().c_str());
    conn.close();
    return -1;
  }
  s.encrypted = true;
  log_.Add(elog_INFO, 0, "%s: TLS started (%s, %s)", s.peer.c_str(), tls(conn).TLSVersion().c_str(),
           tls(conn).TLSCipher().c_str());
  const std::string who = tls(conn).PeerIdentity();
  const AccessLevel level = who.empty() || users_ == nullptr ? ZQSecurity::kNoAccess : users_->LevelOf(who);
  if (level != ZQSecurity::kNoAccess && s.level == ZQSecurity::kNoAccess) {
    login_done(cli, s, who, level, "certificate", out);
  }
  return 1;
}

void Gate::password_checked(CLI& cli, Session& s, AccessLevel level, bool locked, FILE* out) {
  AccessState& a = s.access;
  if (level != ZQSecurity::kNoAccess) {
    throttle_.Succeeded(s.peer, a.user);
    login_done(cli, s, a.user, level, "password", out);
    return;
  }
  // The same answer, after the same wait, for an unknown user and a wrong password.
  a.hold_until_ms = NowMs() + FinishLogin(s.peer, a.user, level, locked, "password");
  (void)locked;
  a.user.clear();
  std::fputs("login failed\r\n", out);
}

std::shared_ptr<PendingLogin> Gate::BeginLogin(const std::string& peer, const std::string& user,
                                               const std::string& password, bool& locked) {
  locked = throttle_.Locked(peer, user, NowMs());
  if (locked || checker_ == nullptr || users_ == nullptr) return nullptr;
  auto job = std::make_shared<PendingLogin>();
  job->user = user;
  job->password = password;
  job->users = users_;
  checker_->Submit(job);
  return job;
}

long long Gate::FinishLogin(const std::string& peer, const std::string& user, AccessLevel level, bool& locked,
                            const char* how) {
  if (level != ZQSecurity::kNoAccess) {
    throttle_.Succeeded(peer, user);
    log_.Add(elog_INFO, 0, "audit: %s logged in from %s as %s by %s", escape_controls(user).c_str(), peer.c_str(),
             UserFile::LevelName(level), how);
    return 0;
  }
  const long long now = NowMs();
  const long long wait = locked ? server_.access_cfg.login.MaxDelay : throttle_.Failed(peer, user, now);
  locked = locked || throttle_.Locked(peer, user, now);
  log_.Add(elog_WARN, 0, "audit: login of '%s' from %s failed%s", escape_controls(user).c_str(), peer.c_str(),
           locked ? " (locked out)" : "");
  return wait;
}

bool Gate::Tick(CLI& cli, Session& s, Connection& conn, long long now_ms) {
  AccessState& a = s.access;
  if (a.login != nullptr && a.login->done.load(std::memory_order_acquire)) {
    const AccessLevel level = a.login->level;
    a.login.reset();
    a.hold_until_ms = 0;
    a.active_ms = now_ms;
    password_checked(cli, s, level, false, s.out);
  }
  if (s.pending != nullptr && s.pending->done.load(std::memory_order_acquire)) {
    std::fputs(s.pending->text.c_str(), s.out);  // a digest computed off the loop
    s.pending.reset();
    a.hold_until_ms = 0;
    a.active_ms = now_ms;
  }
  if (a.hold_until_ms != 0 && now_ms >= a.hold_until_ms) a.hold_until_ms = 0;
  const int login_s = server_.access_cfg.access.LoginTimeout;
  if (login_s > 0 && s.level == ZQSecurity::kNoAccess && a.login == nullptr &&
      now_ms - a.admitted_ms > login_s * 1000LL) {
    if (a.handshake_until_ms == 0) conn.writeln("\r\nnot logged in after " + std::to_string(login_s) + " s, closing");
    log_.Add(elog_INFO, 0, "%s: not logged in after %d s, closed", s.peer.c_str(), login_s);
    conn.close();
    return false;
  }
  const int idle = server_.access_cfg.access.IdleTimeout;
  if (idle > 0 && now_ms - a.active_ms > idle * 1000LL && a.handshake_until_ms == 0) {
    conn.writeln("idle time-out, closing");
    log_.Add(elog_INFO, 0, "%s: idle time-out", s.peer.c_str());
    conn.close();
    return false;
  }
  return true;
}

short Gate::Events(Session& s, Connection& conn) const {
  if (s.access.handshake_until_ms != 0) {
    const short e = tls(conn).HandshakeEvents();
    return e != 0 ? e : POLLIN;
  }
  return 0;
}

void load_access(Config_File& cfg, ServerSettings& server) {
  server.access_cfg.tls.Load(cfg, "TLS");
  server.access_cfg.login.Load(cfg, "Login");
  server.access_cfg.access.Load(cfg, "Access");
}

// ------------------------------------------------------------ passwords

void PasswordChecker::Submit(std::shared_ptr<PendingLogin> job) {
  queue_.Run([job] {
    job->level = job->users->Verify(job->user, job->password);
    OPENSSL_cleanse(&job->password[0], job->password.size());
    job->password.clear();
    job->done.store(true, std::memory_order_release);
  });
}

// ------------------------------------------------------------ options

bool AccessOption::Take(int& argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--issue-server-cert") {  // every following word up to an option or a Section.Key=VALUE
      int n = 0;
      while (i + 1 + n < argc && argv[i + 1 + n][0] != '-' && std::strchr(argv[i + 1 + n], '=') == nullptr) {
        names.push_back(argv[i + 1 + n++]);
      }
      option = n > 0 ? a : "bad";
      if (n == 0) std::fprintf(stderr, "station: %s needs HOSTNAME...\n", a.c_str());
      for (int j = i; j + n + 1 < argc; ++j) argv[j] = argv[j + n + 1];
      argc -= n + 1;
      return true;
    }
    const int words = a == "--passwd" ? 3 : a == "--issue-client-cert" ? 2 : 0;
    if (words == 0) continue;
    if (i + words > argc) {
      std::fprintf(stderr, "station: %s needs %s\n", a.c_str(), words == 3 ? "NAME LEVEL" : "NAME");
      option = "bad";
      return true;
    }
    option = a;
    name = argv[i + 1];
    if (words == 3) level = argv[i + 2];
    for (int j = i; j + words < argc; ++j) argv[j] = argv[j + words];
    argc -= words;
    return true;
  }
  return false;
}

namespace {

// A line from standard input, not echoed when it is a terminal.
std::string read_password() {
  termios old{};
  const bool tty = tcgetattr(STDIN_FILENO, &old) == 0;
  if (tty) {
    termios quiet = old;
    quiet.c_lflag &= static_cast<tcflag_t>(~ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    std::fputs("password: ", stderr);
  }
  std::string password;
  std::getline(std::cin, password);
  if (tty) {
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::fputs("\n", stderr);
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return password;
}

}  // namespace

int AccessOption::Handle(StationSettings& settings, ServerSettings& server) {
  if (option == "bad") return 2;
  std::string error;
  if (option == "--passwd") {
    const std::string path = settings.UsersFile.empty() || settings.UsersFile == "none" ? "station.users"
                                                                                         : settings.UsersFile;
    UserFile users;
    if (access(path.c_str(), F_OK) == 0 && !users.Load(path, error)) {
      std::fprintf(stderr, "station: %s\n", error.c_str());
      return 1;
    }
    const AccessLevel l = UserFile::ParseLevel(level);
    if (l == ZQSecurity::kNoAccess) {
      std::fprintf(stderr, "station: level '%s': expected viewer, operator or admin\n", level.c_str());
      return 2;
    }
    if (!users.Set(name, l, read_password(), error) || !users.Save(path, error)) {
      std::fprintf(stderr, "station: %s\n", error.c_str());
      return 1;
    }
    std::printf("user %s (%s) written to %s\n", name.c_str(), level.c_str(), path.c_str());
    return 0;
  }
  const std::string& folder = server.access_cfg.access.TLSFolder;
  if (option == "--issue-server-cert") {
    const int rc = ensure_certificates(folder, error) < 0 ? 1 : issue_server_certificate(folder, names, error);
    if (rc != 0) {
      std::fprintf(stderr, "station: %s\n", error.c_str());
      return rc;
    }
    std::string all;
    for (const std::string& n : names) all += (all.empty() ? "" : " ") + n;
    std::printf("%s/server.pem and %s/server.key written for %s (CA SHA-256 %s); the station uses them "
                "from its next start\n",
                folder.c_str(), folder.c_str(), all.c_str(), ca_fingerprint(folder).c_str());
    return 0;
  }
  if (name.empty() || name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-@") !=
                          std::string::npos || name[0] == '.' || name == "ca" || name == "server") {
    std::fprintf(stderr, "station: client name '%s': letters, digits, '.', '_', '-', '@'\n", name.c_str());
    return 2;
  }
  if (ensure_certificates(folder, error) < 0 || !issue_client_certificate(folder, name, error)) {
    std::fprintf(stderr, "station: %s\n", error.c_str());
    return 1;
  }
  std::printf("%s/%s.pem and %s/%s.key written (CA SHA-256 %s)\n", folder.c_str(), name.c_str(), folder.c_str(),
              name.c_str(), ca_fingerprint(folder).c_str());
  return 0;
}

}  // namespace station
