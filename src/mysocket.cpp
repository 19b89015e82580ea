// Host look-ups, TCP sockets, the access list and the listening socket.
#include "zqcommon/mysocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
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

}  // namespace

// ----------------------------------------------------------- InetAddress

struct InetAddress::Entry {
  hostent host{};
  std::vector<char> buffer = std::vector<char>(1024);
};

InetAddress::InetAddress(const std::string& name) { Resolve(name, false); }

void InetAddress::Resolve(const std::string& name, bool noreverse) {
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
  const long n = std::labs(std::atol(mask.c_str()));
  unsigned int bits;
  if (n < 33) {
    bits = n == 0 ? 0u : ~0u << (32 - n);
  } else {
    bits = str2ip(mask);
  }
  Add(m, new InetAddress(host), bits);
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

ACL_Mode AccessList::match(InetAddress& peer) {
  if (empty() || peer.IPList().empty()) return ACL_DENY;
  // One pass over a rule list: whether any rule covers any peer address.
  auto covers = [&peer](Access_Addr* rules) {
    for (const std::string& address : peer.IPList()) {
      const unsigned int ip = str2ip(address);
      for (auto& rule : *rules) {
        if (rule.second == 0) return true;
        for (const std::string& host : rule.first->IPList()) {
          if ((ip & rule.second) == (str2ip(host) & rule.second)) return true;
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
  sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock == -1) {
    ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Cannot create Socket\n");
    return false;
  }
  if (address != kResumeMarker) {
    if (!address.empty()) {
      Resolve(address, false);
    } else {
      hinfo = nullptr;
    }
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(p));
  addr.sin_addr.s_addr = INADDR_ANY;
  if (hinfo != nullptr && hinfo->h_addr_list != nullptr && hinfo->h_addr_list[0] != nullptr) {
    std::memcpy(&addr.sin_addr.s_addr, hinfo->h_addr_list[0], sizeof addr.sin_addr.s_addr);
  }
  const int one = 1;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const linger lg{1, 1};
  setsockopt(sock, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
  if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Bind to Socket Failed [port %i]\n", p);
    return false;
  }
  if (listen(sock, backlog) != 0) {
    ZQ_DEBUG(0, "MySocketServer::Start() ERROR: Listen Failed\n");
    return false;
  }
  issetup = true;
  isactive = true;
  return true;
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
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  if (sock == -1 || getsockname(sock, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
  return ntohs(addr.sin_port);
}

MySocket* MySocketServer::WaitConnection() {
  if (sock == -1) return nullptr;
  if (!from_returned_) delete from;  // a refused peer of the previous call
  from = nullptr;
  from_returned_ = false;
  for (;;) {
    const int listening = __atomic_load_n(&sock, __ATOMIC_SEQ_CST);
    if (listening == -1) return nullptr;  // stopped while waiting
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int fd = accept4(listening, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    ZQ_DEBUG(49, "MySocketServer::WaitConnection() Got a Connection (%i)\n", fd);
    if (fd == -1) {
      // A non-blocking listening socket with nobody waiting (after a refused
      // peer): the caller polls again rather than this loop spinning.
      if (errno == EAGAIN || errno == EWOULDBLOCK) return nullptr;
      usleep(10000);  // back off: a failing accept (no descriptors left) would spin
      continue;
    }
    getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len);
    delete from;  // a refused peer from the previous round
    // The peer's port is kept in network byte order, as accept() gave it.
    from = new MySocket(dotted(peer.sin_addr.s_addr), fd, peer.sin_port);
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
