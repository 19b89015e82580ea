// Host look-ups, TCP sockets, the access list and the listening socket.
#include "zqcommon/mysocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zqcommon/bug.h"
#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"

namespace {

constexpr char kResumeMarker[] = "@@Magic_resume@@";
constexpr char kRefusal[] = "Your IP is not allowed to connect\r\n";  // sent with its zero byte

std::string dotted(in_addr_t a) {
  char text[INET_ADDRSTRLEN];
  in_addr ia{};
  ia.s_addr = a;
  return inet_ntop(AF_INET, &ia, text, sizeof text) != nullptr ? text : "";
}

// An IPv6 literal (the text holds a colon) as its 16 bytes.
bool parse_v6(const std::string& text, unsigned char out[16]) {
  return text.find(':') != std::string::npos && inet_pton(AF_INET6, text.c_str(), out) == 1;
}

std::string v6_text(const void* bytes) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, bytes, text, sizeof text) != nullptr ? text : "";
}

// A socket address as text (IPv6 without brackets) and its port as stored
// (network byte order); "" for another family.
std::string address_text(const sockaddr_storage& a, int* port) {
  if (a.ss_family == AF_INET) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(a);
    *port = in.sin_port;
    return dotted(in.sin_addr.s_addr);
  }
  if (a.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(a);
    *port = in6.sin6_port;
    return v6_text(&in6.sin6_addr);
  }
  *port = 0;
  return "";
}

// Any address as 16 bytes, IPv4 in its mapped form (::ffff:a.b.c.d).
bool as_v6(const std::string& text, unsigned char out[16]) {
  if (parse_v6(text, out)) return true;
  in_addr a{};
  if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
  std::memset(out, 0, 10);
  out[10] = out[11] = 0xFF;
  std::memcpy(out + 12, &a, 4);
  return true;
}

bool is_mapped(const unsigned char a[16]) {
  static const unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::memcmp(a, prefix, 12) == 0;
}

// Whether the first `bits` bits of two 16-byte addresses agree.
bool same_prefix(const unsigned char* a, const unsigned char* b, unsigned int bits) {
  const unsigned int whole = bits / 8, rest = bits % 8;
  if (std::memcmp(a, b, whole) != 0) return false;
  if (rest == 0) return true;
  const unsigned char mask = static_cast<unsigned char>(0xFF00u >> rest);
  return (a[whole] & mask) == (b[whole] & mask);
}

// A prefix length of at most `limit` written as 1 to 3 digits; -1 otherwise.
int prefix_length(const std::string& text, int limit) {
  if (text.empty() || text.size() > 3) return -1;
  for (const char c : text) {
    if (c < '0' || c > '9') return -1;
  }
  const int n = std::atoi(text.c_str());
  return n <= limit ? n : -1;
}

// The IPv4 mask of a rule: up to 32 a prefix length, else a dotted mask
// (decided by the number before the first dot).
unsigned int v4_mask(const std::string& mask) {
  const long n = std::labs(std::atol(mask.c_str()));
  if (n < 33) return n == 0 ? 0u : ~0u << (32 - n);
  return AccessList::str2ip(mask);
}

// Why `rule` is not a numeric "address/mask" rule; "" when it is one.
std::string rule_problem(const std::string& rule, std::string* host, std::string* mask) {
  const auto slash = rule.find('/');
  if (slash == std::string::npos) return "has no mask (address/prefix)";
  *host = rule.substr(0, slash);
  *mask = rule.substr(slash + 1);
  unsigned char v6[16];
  in_addr v4{};
  if (parse_v6(*host, v6)) {
    return prefix_length(*mask, 128) < 0 ? "needs an IPv6 prefix length of 0 to 128" : "";
  }
  if (inet_pton(AF_INET, host->c_str(), &v4) != 1) return "is not a numeric IPv4 or IPv6 address";
  in_addr dotted_mask{};
  if (prefix_length(*mask, 32) >= 0) return "";
  if (inet_pton(AF_INET, mask->c_str(), &dotted_mask) == 1 && std::atoi(mask->c_str()) >= 33) return "";
  return "needs a prefix length of 0 to 32 or a dotted mask";
}

}  // namespace

// ----------------------------------------------------------- InetAddress

struct InetAddress::Entry {
  hostent host{};
  std::vector<char> buffer = std::vector<char>(1024);
};

InetAddress::InetAddress(const std::string& name) { Resolve(name, false); }
InetAddress::InetAddress(const std::string& name, bool noreverse) { Resolve(name, noreverse); }

void InetAddress::Resolve(const std::string& name, bool noreverse) {
  unsigned char v6[16];
  if (parse_v6(name, v6)) {
    entry_.reset();
    hinfo = nullptr;
    alist.clear();
    ips.assign(1, v6_text(v6));
    if (noreverse) return;
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    std::memcpy(&sa.sin6_addr, v6, sizeof v6);
    char host[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, host, sizeof host, nullptr, 0,
                    NI_NAMEREQD) == 0) {
      h_name = host;
      alist.push_back(h_name);
    }
    return;
  }
  const in_addr_t a = inet_addr(name.c_str());
  auto entry = std::make_shared<Entry>();
  hostent* result = nullptr;
  int herr = 0;
  for (;;) {
    int rc;
    if (a == 0) {
      rc = gethostbyname_r("", &entry->host, entry->buffer.data(), entry->buffer.size(), &result,
                           &herr);
    } else if (a == INADDR_NONE) {
      rc = gethostbyname_r(name.c_str(), &entry->host, entry->buffer.data(), entry->buffer.size(),
                           &result, &herr);
    } else if (!noreverse) {
      rc = gethostbyaddr_r(&a, sizeof a, AF_INET, &entry->host, entry->buffer.data(),
                           entry->buffer.size(), &result, &herr);
    } else {
      rc = 0;
      result = nullptr;
    }
    if (rc != ERANGE || entry->buffer.size() > (1u << 20)) break;
    entry->buffer.resize(entry->buffer.size() * 2);
  }
  if (result == nullptr) {
    entry_.reset();
    hinfo = nullptr;
    alist.clear();
    ips.clear();
    ips.push_back(dotted(a));
    return;
  }
  entry_ = std::move(entry);
  hinfo = &entry_->host;
  update_lists();
}

void InetAddress::update_lists() {
  alist.clear();
  ips.clear();
  if (hinfo == nullptr) return;
  h_name = hinfo->h_name != nullptr ? hinfo->h_name : "";
  alist.push_back(h_name);
  for (char** alias = hinfo->h_aliases; alias != nullptr && *alias != nullptr; ++alias) {
    alist.emplace_back(*alias);
  }
  // A freed-heap fill pattern in place of the list ends the walk at once.
  if (hinfo->h_addr_list == reinterpret_cast<char**>(static_cast<uintptr_t>(0xFEEEFEEEu))) return;
  for (char** addr = hinfo->h_addr_list; addr != nullptr && *addr != nullptr; ++addr) {
    in_addr_t a;
    std::memcpy(&a, *addr, sizeof a);
    ips.push_back(dotted(a));
  }
}

// -------------------------------------------------------------- MySocket

MySocket::MySocket(const std::string& name, int s, int p)
    : InetAddress(name), sock(s), port(p), issetup(true), isactive(false), isvalid(true) {}

MySocket::MySocket(const std::string& name, int s, int p, bool noreverse)
    : InetAddress(name, noreverse), sock(s), port(p), issetup(true), isactive(false), isvalid(true) {}

MySocket::~MySocket() { Disconnect(); }

void MySocket::Disconnect() {
  if (sock != -1) {
    shutdown(sock, SHUT_RDWR);
    ::close(sock);
  }
  sock = -1;
  port = 0;
  issetup = false;
  isactive = false;
}

int MySocket::write(const std::string& s, int flags) { return write(s.data(), s.size(), flags); }

int MySocket::write(const void* buf, unsigned int len, int flags) {
  return static_cast<int>(send(sock, buf, len, flags | MSG_NOSIGNAL));
}

std::string MySocket::read(unsigned int len, int flags) {
  std::string data(len, '\0');
  const ssize_t n = recv(sock, &data[0], len, flags);
  data.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return data;
}

int MySocketClient::Connect(const std::string& host, int p, bool noreverse) {
  if (sock != -1) Disconnect();
  Resolve(host, noreverse);
  if (ips.empty()) return -1;
  sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock == -1) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(p));
  addr.sin_addr.s_addr = inet_addr(ips.front().c_str());
  if (connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return sock;
  Disconnect();
  return -1;
}

int MySocketClient::ConnectAny(const std::string& host, int p) {
  if (sock != -1) Disconnect();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(p).c_str(), &hints, &list) != 0) return -1;
  for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
    const int s = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (s == -1) continue;
    if (connect(s, a->ai_addr, a->ai_addrlen) == 0) {
      sockaddr_storage peer{};
      std::memcpy(&peer, a->ai_addr, a->ai_addrlen);
      int unused;
      ips.assign(1, address_text(peer, &unused));
      sock = s;
      port = p;
      break;
    }
    ::close(s);
  }
  freeaddrinfo(list);
  return sock;
}

// ------------------------------------------------------------ AccessList

AccessList::AccessList() {
  (*this)[ACL_DENY] = nullptr;
  (*this)[ACL_ALLOW] = nullptr;
}

AccessList::AccessList(ACL_Mode m, InetAddress* a, unsigned int mask) { Add(m, a, mask); }
AccessList::AccessList(ACL_Mode m, const std::string& spec) { Add(m, spec); }
AccessList::AccessList(ACL_Mode m, const std::string& host, const std::string& mask) {
  Add(m, host, mask);
}

AccessList::~AccessList() {
  for (auto& item : *this) {
    if (item.second == nullptr) continue;
    for (auto& entry : *item.second) delete entry.first;
    delete item.second;
  }
}

void AccessList::Add(ACL_Mode m, InetAddress* a, unsigned int mask) {
  if (a == nullptr) return;
  Access_Addr*& list = (*this)[m];
  if (list == nullptr) list = new Access_Addr;
  list->emplace_back(a, mask);
}

void AccessList::Add(ACL_Mode m, const std::string& spec) {
  std::string rest = spec;
  const std::string host = Trim(GetExtToken(&rest, "/"));
  const std::string mask = Trim(rest);
  if (!host.empty() && !mask.empty()) Add(m, host, mask);
}

void AccessList::Add(ACL_Mode m, const std::string& host, const std::string& mask) {
  if (host.empty() || mask.empty()) return;
  unsigned char v6[16];
  if (parse_v6(host, v6)) {  // an IPv6 rule: the mask is a prefix length
    const int bits = prefix_length(mask, 128);
    if (bits >= 0) Add(m, new InetAddress(host, true), static_cast<unsigned int>(bits));
    return;
  }
  Add(m, new InetAddress(host), v4_mask(mask));
}

unsigned int AccessList::str2ip(const std::string& text) {
  std::string rest = text;
  unsigned int ip = 0;
  for (int i = 0; i < 4; ++i) {
    const unsigned int octet = static_cast<unsigned int>(std::atoi(Trim(GetExtToken(&rest, ".")).c_str()));
    ip |= (octet & 0xFFu) << ((3 - i) * 8);
  }
  return ip;
}

void AccessList::load_ACL(const std::string& file) {
  if (file.empty()) return;
  Config_File cfg(file, "", true);
  static const std::pair<const char*, ACL_Mode> kKeys[] = {{"allow", ACL_ALLOW}, {"deny", ACL_DENY}};
  for (const auto& key : kKeys) {
    std::string rules = cfg.get_entry("hosts", key.first, "");
    while (!rules.empty()) Add(key.second, Trim(GetExtToken(&rules, " ")));
  }
}

bool AccessList::load_checked(const std::string& file, std::vector<std::string>* problems) {
  auto refuse = [&](int line, const std::string& why) {
    if (problems != nullptr) problems->push_back(file + ":" + std::to_string(line) + ": " + why);
    return false;
  };
  if (access(file.c_str(), R_OK) != 0) return refuse(0, std::string("cannot read: ") + std::strerror(errno));
  Config_File cfg(file, "", true);
  SECTION hosts;
  try {
    hosts = cfg.get_section("hosts");
  } catch (const std::exception&) {
    return refuse(0, "no [hosts] section");
  }
  bool ok = true;
  for (LINE* line : hosts) {
    if (line == nullptr || !line->IsEntry()) continue;
    const std::string key = line->Name();
    const bool allow = strcasecmp(key.c_str(), "allow") == 0;
    if (!allow && strcasecmp(key.c_str(), "deny") != 0) {
      ok = refuse(line->Line(), "unknown key '" + key + "' (allow or deny)");
      continue;
    }
    std::string rules = line->Value();
    while (!rules.empty()) {
      const std::string rule = Trim(GetExtToken(&rules, " "));
      if (rule.empty()) continue;
      std::string host, mask;
      const std::string why = rule_problem(rule, &host, &mask);
      if (!why.empty()) {
        ok = refuse(line->Line(), "rule '" + rule + "' " + why);
        continue;
      }
      unsigned char v6[16];
      const bool is_v6 = parse_v6(host, v6);
      Add(allow ? ACL_ALLOW : ACL_DENY, new InetAddress(host, true),
          is_v6 ? static_cast<unsigned int>(prefix_length(mask, 128)) : v4_mask(mask));
    }
  }
  return ok;
}

ACL_Mode AccessList::match(InetAddress& peer) {
  if (empty() || peer.IPList().empty()) return ACL_DENY;
  // One pass over a rule list: whether any rule covers any peer address.
  // IPv4 rules see IPv4 peers (mapped ones too) as the host-order number;
  // IPv6 rules see every peer as 16 bytes, IPv4 in its mapped form.
  auto covers = [&peer](Access_Addr* rules) {
    for (const std::string& address : peer.IPList()) {
      unsigned char peer16[16];
      const bool has16 = as_v6(address, peer16);
      const bool v4 = address.find(':') == std::string::npos || (has16 && is_mapped(peer16));
      unsigned int ip = 0;
      if (address.find(':') == std::string::npos) {
        ip = str2ip(address);
      } else if (v4) {
        ip = (unsigned{peer16[12]} << 24) | (unsigned{peer16[13]} << 16) | (unsigned{peer16[14]} << 8) |
             peer16[15];
      }
      for (auto& rule : *rules) {
        if (rule.second == 0) return true;
        for (const std::string& host : rule.first->IPList()) {
          unsigned char rule16[16];
          if (parse_v6(host, rule16)) {
            if (has16 && same_prefix(peer16, rule16, rule.second)) return true;
          } else if (v4 && (ip & rule.second) == (str2ip(host) & rule.second)) {
            return true;
          }
        }
      }
    }
    return false;
  };
  auto deny = find(ACL_DENY);
  if (deny != end() && deny->second != nullptr && !deny->second->empty() && covers(deny->second)) {
    return ACL_DENY;
  }
  auto allow = find(ACL_ALLOW);
  if (allow == end() || allow->second == nullptr || allow->second->empty()) return ACL_DENY;
  return covers(allow->second) ? ACL_ALLOW : ACL_DENY;
}

// -------------------------------------------------------- MySocketServer

MySocketServer::MySocketServer(AccessList* list) : MySocket("", -1, 0), acl(list) {
  issetup = false;
  isactive = false;
}

MySocketServer::~MySocketServer() {
  if (!from_returned_) delete from;
  delete acl;
  issetup = false;
  isactive = false;
}

bool MySocketServer::Start(const std::string& address, int p, int queue) {
  backlog = queue;
  if (sock != -1) Disconnect();
  if (address != kResumeMarker) {
    family_ = 0;
    if (parse_v6(address, bound_)) {  // IPv6: the literal itself, no look-up
      family_ = AF_INET6;
      Resolve(address, true);
    } else if (!address.empty()) {
      Resolve(address, false);
    } else {
      hinfo = nullptr;
    }
  }
  return family_ != 0 ? bind_bound(p) : bind_resolved(p);
}

bool MySocketServer::bind_resolved(int p) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(p));
  addr.sin_addr.s_addr = INADDR_ANY;
  if (hinfo != nullptr && hinfo->h_addr_list != nullptr && hinfo->h_addr_list[0] != nullptr) {
    std::memcpy(&addr.sin_addr.s_addr, hinfo->h_addr_list[0], sizeof addr.sin_addr.s_addr);
  }
  return bind_and_listen(&addr, sizeof addr, p);
}

bool MySocketServer::bind_bound(int p, bool report) {
  if (family_ == AF_INET) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(p));
    std::memcpy(&addr.sin_addr, bound_ + 12, 4);
    return bind_and_listen(&addr, sizeof addr, p, report);
  }
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(static_cast<uint16_t>(p));
  std::memcpy(&addr.sin6_addr, bound_, sizeof bound_);
  return bind_and_listen(&addr, sizeof addr, p, report);
}

bool MySocketServer::bind_and_listen(const void* address, unsigned int length, int p, bool report) {
  const int family = static_cast<const sockaddr*>(address)->sa_family;
  sock = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock == -1) {
    if (report) ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Cannot create Socket\n");
    return false;
  }
  const int one = 1, zero = 0;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const linger lg{1, 1};
  setsockopt(sock, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
  // "::" takes IPv4 peers too (as ::ffff:a.b.c.d).
  if (family == AF_INET6) setsockopt(sock, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
  if (bind(sock, static_cast<const sockaddr*>(address), length) != 0) {
    if (report) ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Bind to Socket Failed [port %i]\n", p);
    return false;
  }
  if (listen(sock, backlog) != 0) {
    if (report) ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Listen Failed\n");
    return false;
  }
  issetup = true;
  isactive = true;
  return true;
}

bool MySocketServer::ListenNumeric(const std::string& address, int p, int queue, std::string* error) {
  backlog = queue;
  if (sock != -1) Disconnect();
  if (!as_v6(address, bound_)) {
    if (error != nullptr) *error = "'" + address + "' is not a numeric IPv4 or IPv6 address";
    errno = EINVAL;
    return false;
  }
  family_ = parse_v6(address, bound_) ? AF_INET6 : AF_INET;
  Resolve(address, true);
  const bool ok = bind_bound(p, false);  // the reason goes to the caller instead
  if (!ok) {
    const int failure = errno;
    if (error != nullptr) {
      *error = "cannot listen on '" + address + "' port " + std::to_string(p) + ": " + std::strerror(failure);
    }
    if (sock != -1) Disconnect();
    errno = failure;
  }
  return ok;
}

std::string MySocketServer::LocalAddress() const {
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  if (sock == -1 || getsockname(sock, reinterpret_cast<sockaddr*>(&a), &len) != 0) return "";
  int p = 0;
  const std::string text = address_text(a, &p);
  return (a.ss_family == AF_INET6 ? "[" + text + "]" : text) + ":" + std::to_string(ntohs(static_cast<uint16_t>(p)));
}

bool MySocketServer::Stop() {
  const int listening = sock;
  if (listening == -1) return false;
  // A WaitConnection() blocked on another thread re-reads the field: mark it
  // gone first (atomically), then wake that accept() by shutting down.
  __atomic_store_n(&sock, -1, __ATOMIC_SEQ_CST);
  shutdown(listening, SHUT_RDWR);
  ::close(listening);
  isactive = false;
  return true;
}

bool MySocketServer::Resume() {
  if (!issetup || isactive) return false;
  return Start(kResumeMarker, port, backlog);
}

bool MySocketServer::IsPending() const {
  if (sock == -1) return false;
  pollfd p{sock, POLLIN, 0};
  return poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0;
}

int MySocketServer::LocalPort() const {
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  if (sock == -1 || getsockname(sock, reinterpret_cast<sockaddr*>(&a), &len) != 0) return -1;
  int p = 0;
  address_text(a, &p);
  return ntohs(static_cast<uint16_t>(p));
}

MySocket* MySocketServer::WaitConnection() {
  // Stop() may run on another thread: read the field the way it writes it.
  if (__atomic_load_n(&sock, __ATOMIC_SEQ_CST) == -1) return nullptr;
  if (!from_returned_) delete from;  // a refused peer of the previous call
  from = nullptr;
  from_returned_ = false;
  for (;;) {
    const int listening = __atomic_load_n(&sock, __ATOMIC_SEQ_CST);
    if (listening == -1) return nullptr;  // stopped while waiting
    sockaddr_storage peer{};
    socklen_t len = sizeof peer;
    const int fd = accept4(listening, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    ZQ_DEBUG(49, "MySocketServer::WaitConnection() Got a Connection (%i)\n", fd);
    if (fd == -1) {
      // A non-blocking listening socket with nobody waiting (after a refused
      // peer): the caller polls again rather than this loop spinning.
      const int failure = errno;
      if (failure == EAGAIN || failure == EWOULDBLOCK) return nullptr;
      usleep(10000);  // back off: a failing accept (no descriptors left) would spin
      // Non-blocking, the caller gets its thread back to see a stop request.
      if (failure != EINTR && failure != ECONNABORTED && (fcntl(listening, F_GETFL) & O_NONBLOCK) != 0) {
        return nullptr;
      }
      continue;
    }
    len = sizeof peer;
    getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len);
    delete from;  // a refused peer from the previous round
    // The peer's port is kept in network byte order, as accept() gave it.
    int peer_port = 0;
    const std::string text = address_text(peer, &peer_port);
    from = peer_lookup_ ? new MySocket(text, fd, peer_port) : new MySocket(text, fd, peer_port, true);
    if (acl != nullptr && acl->match(*from) == ACL_DENY) {
      ZQ_DEBUG(9, "MySocketServer::WaitConnection() Connection is not allowed to connect\n");
      send(fd, kRefusal, sizeof kRefusal, MSG_NOSIGNAL);  // 36 bytes: the zero byte too
      from->Disconnect();
      continue;
    }
    from_returned_ = true;  // the caller's now
    return from;
  }
}

void MySocketServer::SetAcl(AccessList* list) {
  delete acl;
  acl = list;
}
