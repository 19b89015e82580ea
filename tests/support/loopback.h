// Test helpers: a free port and a plain TCP client socket on 127.0.0.1.
#ifndef ZQ_TESTS_LOOPBACK_H
#define ZQ_TESTS_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// A TCP port on 127.0.0.1 that was free a moment ago (for peers a test starts).
inline int free_local_port() {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  close(s);
  return ntohs(a.sin_port);
}

// A socket listening on a free 127.0.0.1 port, which goes to `port`; -1 when
// none could be had.
inline int listen_local(int& port, int backlog = 16) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, backlog) != 0) return close(s), -1;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return s;
}

// The connected descriptor, or -1 after 100 attempts 10 ms apart. With
// `from`, the client's end is bound to that loopback address first.
inline int connect_local(int port, const char* from = nullptr) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (from != nullptr) {
    addr.sin_addr.s_addr = inet_addr(from);
    if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return close(s), -1;
  }
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return s;
    usleep(10000);
  }
  close(s);
  return -1;
}

#endif
