// stationctl's session with a station.
#include "link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <zqsecurity/tlscontext.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace stationctl {

namespace {

const char kPrompt[] = "station> ";
// The longest answer taken (a piece of `get` is under 70 KB).
const size_t kMaxAnswer = 16u << 20;

long long now_us() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000000LL + t.tv_nsec / 1000;
}

// The certificate the station showed, taken while OpenSSL checks it; with
// `g_chain_decides` false its verdict is overruled (the fingerprint decides).
std::string g_leaf_fingerprint;
bool g_chain_decides = true;

std::string fingerprint_of(X509* cert) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (X509_digest(cert, EVP_sha256(), md, &n) != 1) return "";
  std::string text;
  char pair[4];
  for (unsigned int i = 0; i < n; ++i) {
    std::snprintf(pair, sizeof pair, i == 0 ? "%02X" : ":%02X", md[i]);
    text += pair;
  }
  return text;
}

int on_verify(int ok, X509_STORE_CTX* store) {
  // The certificate being verified is the peer's own, whose key the handshake proves.
  X509* cert = X509_STORE_CTX_get0_cert(store);
  if (g_leaf_fingerprint.empty() && cert != nullptr) g_leaf_fingerprint = fingerprint_of(cert);
  return g_chain_decides ? ok : 1;
}

}  // namespace

std::string normalize_fingerprint(const std::string& text) {
  std::string hex;
  for (char c : text) {
    if (c == ':') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return "";
    hex += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (hex.size() != 64) return "";
  std::string out;
  for (size_t i = 0; i < hex.size(); i += 2) out += (i == 0 ? "" : ":") + hex.substr(i, 2);
  return out;
}

void make_folders_for(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  const std::string folder = path.substr(0, slash);
  for (std::string::size_type p = folder.find('/', 1);; p = folder.find('/', p + 1)) {
    mkdir(folder.substr(0, p).c_str(), 0700);
    if (p == std::string::npos) break;
  }
}

Link::~Link() { conn_.close(); }

void Link::Arm(double seconds) { deadline_us_ = now_us() + static_cast<long long>(seconds * 1e6); }

int Link::fail(int code, const std::string& why) {
  error_ = why;
  return code;
}

bool Link::read_line(std::string& line) {
  for (;;) {
    const long long left = deadline_us_ - now_us();
    if (!conn_.IsConnected()) {
      error_ = "the station closed the connection";
      return false;
    }
    if (left <= 0) {
      error_ = "no answer in time (--timeout)";
      return false;
    }
    const int r = conn_.readln(line, false, static_cast<int>(std::min<long long>(left, 1000000000LL)));
    if (r > 0) return true;
    if (r < 0 && r != -2) {  // -2: not in time, looked at above
      error_ = r == -3 ? "an answer line beyond the limit" : "the station closed the connection";
      return false;
    }
  }
}

Answer Link::Ask(const std::string& line) {
  if (line.find_first_of("\r\n") != std::string::npos) {  // one line, one answer: not sent
    Answer refused;
    refused.code = kFailed;
    refused.lines.push_back("stationctl: a command cannot hold a line break");
    return refused;
  }
  if (conn_.writeln(line + "\n", false, 0) < 0 || conn_.flush(1000000) < 0) {
    error_ = "the station closed the connection";
    return Answer();
  }
  return Read(false);
}

Answer Link::Read(bool after_prompt) {
  Answer a;
  std::string text;
  size_t bytes = 0;
  while (read_line(text)) {
    if ((bytes += text.size()) > kMaxAnswer) {
      error_ = "an answer beyond " + std::to_string(kMaxAnswer >> 20) + " MiB";
      conn_.close();
      break;
    }
    while (after_prompt && text.compare(0, sizeof kPrompt - 1, kPrompt) == 0) text.erase(0, sizeof kPrompt - 1);
    int code = 0;
    if (frame_end(text, code)) {
      a.code = code;
      return a;
    }
    a.lines.push_back(text[0] == '.' ? text.substr(1) : text);
    const std::string kLoggedIn = "logged in as ";
    if (text.compare(0, kLoggedIn.size(), kLoggedIn) == 0) {
      logged_in_ = text.substr(kLoggedIn.size(), text.find(' ', kLoggedIn.size()) - kLoggedIn.size());
    }
  }
  a.code = -1;
  return a;
}

int Link::Open(const std::string& host, int port, const Trust& trust) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int gai = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (gai != 0) return fail(kNoStation, "cannot resolve " + host + ": " + gai_strerror(gai));
  std::string why = "no address";
  for (addrinfo* ai = found; ai != nullptr && fd_ < 0; ai = ai->ai_next) {
    fd_ = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
    if (fd_ < 0) continue;
    int r = connect(fd_, ai->ai_addr, ai->ai_addrlen);
    if (r != 0 && errno == EINPROGRESS) {
      pollfd p{fd_, POLLOUT, 0};
      const long long left = std::max(0LL, deadline_us_ - now_us());
      r = poll(&p, 1, static_cast<int>(left / 1000)) == 1 ? 0 : -1;
      int err = r == 0 ? 0 : ETIMEDOUT;
      socklen_t len = sizeof err;
      if (r == 0) getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
      errno = err;
      r = err == 0 ? 0 : -1;
    }
    if (r != 0) {
      why = std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
    }
  }
  freeaddrinfo(found);
  const std::string where = host + " port " + service;
  if (fd_ < 0) return fail(kNoStation, "cannot connect to " + where + ": " + why);
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  conn_.SetSocket(&fd_);
  conn_.Set_Modify(false);  // answers are taken as sent ('#' is no comment)

  // A station greets with "station ready" (or refuses with one line).
  std::string line;
  if (!read_line(line)) return fail(kNoStation, where + " does not greet like a station: " + error_);
  if (line.compare(0, 5, "busy:") == 0) return fail(kNoStation, where + " refused the session: " + line);
  if (line.find("station ready") == std::string::npos) {
    return fail(kNoStation, where + " is not a station (it said: " + line.substr(0, 200) + ")");
  }
  // The greeting's prompt has no line end: it comes before the frame.
  if (conn_.writeln("mode machine\n", false, 0) < 0) return fail(kNoStation, "the station closed the connection");
  Answer a = Read(true);
  if (a.code != kDone) return fail(kNoStation, where + " has no machine mode (" + error_ + ")");
  a = Ask("starttls");
  if (a.code != kDone) {
    return fail(kNoStation, where + ": starttls: " + (a.lines.empty() ? error_ : a.lines.front()));
  }
  if (!handshake(host, trust)) return kNoStation;
  if (!trust.ca.empty() || trust.insecure) {
    // checked by OpenSSL, or not at all
  } else if (!check_pinned(host, port, trust)) {
    return kNoStation;
  }
  // After the handshake the station tells whether a certificate logged in.
  a = Read(false);
  if (a.code != kDone) return fail(kNoStation, "no answer after the TLS handshake: " + error_);
  return kDone;
}

bool Link::handshake(const std::string& host, const Trust& trust) {
  ZQSecurity::TLSSettings settings;
  settings.CAFile = trust.ca;
  settings.CertificateFile = trust.cert;
  settings.KeyFile = trust.key;
  std::string why;
  std::shared_ptr<ZQSecurity::TLSContext> context = ZQSecurity::TLSContext::Create(settings, false, why);
  if (context == nullptr) {
    error_ = why;
    return false;
  }
  // Made here and not shared yet: the check of the chain is ours to set.
  g_chain_decides = !trust.ca.empty();
  g_leaf_fingerprint.clear();
  SSL_CTX_set_verify(context->Native(), SSL_VERIFY_PEER, on_verify);
  conn_.SSL_use_context(context, trust.ca.empty() ? "" : host);
  for (;;) {
    const int r = conn_.SSL_handshake_step(false);
    if (r > 0) break;
    const long long left = deadline_us_ - now_us();
    if (r < 0 || left <= 0) {
      error_ = "TLS handshake with " + host + " failed: " + (r < 0 ? conn_.TLSError() : "no answer in time");
      if (r < 0 && !trust.ca.empty()) error_ += " (checked against " + trust.ca + ")";
      return false;
    }
    pollfd p{fd_, conn_.HandshakeEvents(), 0};
    poll(&p, 1, static_cast<int>(std::min(left / 1000 + 1, 1000LL)));
  }
  fingerprint_ = g_leaf_fingerprint;
  return true;
}

bool Link::check_pinned(const std::string& host, int port, const Trust& trust) {
  if (fingerprint_.empty()) {
    error_ = "the station showed no certificate";
    return false;
  }
  if (!trust.fingerprint.empty()) {
    if (normalize_fingerprint(trust.fingerprint) == fingerprint_) return true;
    error_ = "the station's certificate has SHA-256 " + fingerprint_ +
             ", not the one given with --fingerprint (which takes the station's certificate's, tls/server.pem, "
             "not its CA's)";
    return false;
  }
  // Trust on first use: "HOST:PORT FINGERPRINT" lines.
  const std::string name = host + ":" + std::to_string(port);
  std::ifstream in(trust.known_file);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    std::istringstream words(line);
    std::string who, fp;
    if (!(words >> who >> fp) || who != name) continue;
    if (fp == fingerprint_) return true;
    error_ = "@@@ THE CERTIFICATE OF STATION " + name + " HAS CHANGED @@@\n"
             "Someone could be listening in (a man in the middle), or the station got a new certificate.\n"
             "Known: " + fp + "\nNow:   " + fingerprint_ + "\n"
             "If the change is expected, remove line " + std::to_string(number) + " of " + trust.known_file +
             " and connect again.";
    return false;
  }
  // The folder 0700 and the file 0600, made here when missing.
  make_folders_for(trust.known_file);
  const int fd = open(trust.known_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
  const std::string entry = name + " " + fingerprint_ + "\n";
  if (fd < 0 || write(fd, entry.data(), entry.size()) != static_cast<ssize_t>(entry.size())) {
    error_ = "cannot write " + trust.known_file + ": " + std::strerror(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  fchmod(fd, 0600);
  close(fd);
  std::fprintf(stderr, "stationctl: first connection to %s: its certificate (SHA-256 %s) is now trusted, kept in %s\n",
               name.c_str(), fingerprint_.c_str(), trust.known_file.c_str());
  return true;
}

int Link::Login(const std::string& user, const std::string& password) {
  if (user.empty()) return kDone;
  Answer a = Ask("login " + user);
  if (a.code != 3) {
    return fail(a.code < 0 ? kNoStation : kRefused,
                "login: " + (a.lines.empty() ? error_ : a.lines.front()));
  }
  a = Ask(password);
  if (a.code == kDone) return kDone;
  return fail(a.code < 0 ? kNoStation : kRefused,
              "login as " + user + ": " + (a.lines.empty() ? error_ : a.lines.front()));
}


}  // namespace stationctl
