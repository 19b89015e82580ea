// Test helper: a plain TCP client socket connected to 127.0.0.1.
#ifndef ZQ_TESTS_LOOPBACK_H
#define ZQ_TESTS_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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
