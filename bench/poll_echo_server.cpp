// The reference for the example line server: a minimal poll() line echo
// server on raw sockets (no library), same protocol ("quit" ends a session).
//
//   poll_echo_server [PORT]     prints "listening on PORT"
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const int ls = socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  setsockopt(ls, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(argc > 1 ? std::atoi(argv[1]) : 0));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(ls, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(ls, 512) != 0) return 1;
  getsockname(ls, reinterpret_cast<sockaddr*>(&a), &len);
  std::printf("listening on %d\n", ntohs(a.sin_port));
  std::fflush(stdout);
  fcntl(ls, F_SETFL, O_NONBLOCK);
  std::vector<pollfd> fds{{ls, POLLIN, 0}};
  std::vector<std::string> pending{""};
  char chunk[16384];
  for (;;) {
    if (poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[0].revents & POLLIN) {
      int c;
      while ((c = accept4(ls, nullptr, nullptr, SOCK_NONBLOCK)) >= 0) {
        setsockopt(c, IPPROTO_TCP, 1 /* TCP_NODELAY */, &one, sizeof one);
        fds.push_back({c, POLLIN, 0});
        pending.emplace_back();
      }
    }
    for (size_t i = fds.size(); i-- > 1;) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = recv(fds[i].fd, chunk, sizeof chunk, 0);
      bool done = n == 0 || (n < 0 && errno != EAGAIN);
      if (n > 0) {
        std::string& p = pending[i];
        p.append(chunk, static_cast<size_t>(n));
        size_t start = 0, end;
        while (!done && (end = p.find('\n', start)) != std::string::npos) {
          const std::string line = p.substr(start, end - start);
          start = end + 1;
          const std::string out = line == "quit" ? "bye\r\n" : line + "\r\n";
          send(fds[i].fd, out.data(), out.size(), MSG_NOSIGNAL);
          done = line == "quit";
        }
        p.erase(0, start);
      }
      if (done) {
        close(fds[i].fd);
        fds.erase(fds.begin() + static_cast<long>(i));
        pending.erase(pending.begin() + static_cast<long>(i));
      }
    }
  }
}
