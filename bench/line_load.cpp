// Load client for line servers: N clients on one thread, each sending a line
// and waiting for its echo, for a set time; prints lines/s and the p99 round
// trip. With "burst", connects N clients at the same instant instead and
// prints the time until every one of them was answered.
//
//   line_load PORT CLIENTS SECONDS        "lines/s X p99_ms Y"
//   line_load PORT CLIENTS burst          "burst_s X"
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;
double ms(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const int port = std::atoi(argv[1]), n = std::atoi(argv[2]);
  const bool burst = std::strcmp(argv[3], "burst") == 0;
  const double seconds = burst ? 30 : std::atof(argv[3]);
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  lim.rlim_cur = lim.rlim_max;
  setrlimit(RLIMIT_NOFILE, &lim);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::vector<pollfd> fds;
  const auto t0 = Clock::now();
  for (int i = 0; i < n; ++i) {  // non-blocking connects: all at once
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    fds.push_back({s, POLLOUT, 0});
  }
  const std::string line = std::string(60, 'x') + "\n";
  std::vector<Clock::time_point> sent(n);
  std::vector<size_t> got(n, 0);
  std::vector<double> trips;
  long long lines = 0;
  int answered = 0;
  char chunk[4096];
  const auto end = t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  Clock::time_point measure = t0;
  while (Clock::now() < end && (!burst || answered < n)) {
    if (poll(fds.data(), fds.size(), 100) <= 0) continue;
    for (int i = 0; i < n; ++i) {
      pollfd& p = fds[i];
      if (p.revents & POLLOUT) {  // connected: the first line
        p.events = POLLIN;
        sent[i] = Clock::now();
        send(p.fd, line.data(), line.size(), MSG_NOSIGNAL);
      } else if (p.revents & POLLIN) {
        const ssize_t r = recv(p.fd, chunk, sizeof chunk, 0);
        if (r <= 0) {
          p.events = 0;
          continue;
        }
        got[i] += static_cast<size_t>(r);
        if (got[i] < line.size() + 1) continue;  // each answer ends in "\r\n"
        got[i] -= line.size() + 1;
        const auto now = Clock::now();
        if (burst) {
          ++answered;
          p.events = 0;
          continue;
        }
        // Count from the moment every client is connected and answered once.
        if (answered < n && ++answered == n) measure = now;
        if (answered == n) {
          trips.push_back(ms(sent[i], now));
          ++lines;
        }
        sent[i] = now;
        send(p.fd, line.data(), line.size(), MSG_NOSIGNAL);
      }
    }
  }
  if (burst) {
    std::printf("burst_s %.3f answered %d of %d\n", ms(t0, Clock::now()) / 1000, answered, n);
  } else if (trips.empty()) {
    std::printf("lines/s 0 p99_ms 0\n");
  } else {
    std::sort(trips.begin(), trips.end());
    std::printf("lines/s %.0f p99_ms %.2f\n", lines / (ms(measure, Clock::now()) / 1000),
                trips[trips.size() * 99 / 100]);
  }
  for (auto& p : fds) close(p.fd);
  return 0;
}
