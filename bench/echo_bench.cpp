// Line echo over loopback: a Connection (readln/writeln with delayed writing)
// against a minimal raw-socket echo (read-ahead buffer, one send per line),
// in one run (command-line argument: the number of passes, default 7). The client pipelines 200,000 lines of 64 bytes in windows of 100.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/connection.h>
#include <zqcommon/mysocket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kLines = 200000;
constexpr int kWindow = 100;

void connection_echo(int fd) {
  Connection c;
  c.SetSocket(&fd);
  std::string line;
  int r;
  // 0 is an empty line or a connection that has gone: only then ask which.
  while ((r = c.readln(line, false, -1)) > 0 || (r == 0 && c.IsConnected())) c.writeln(line);
}

void raw_echo(int fd) {
  std::string pending, out;
  char chunk[16384];
  ssize_t n;
  while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0) {
    pending.append(chunk, static_cast<size_t>(n));
    size_t start = 0, end;
    while ((end = pending.find('\n', start)) != std::string::npos) {
      out.assign(pending, start, end - start);
      out += "\r\n";
      if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0) return;
      start = end + 1;
    }
    pending.erase(0, start);
  }
  close(fd);
}

// Serves one client with `echo` (called directly, no wrapper) and measures
// the client's run.
template <class Echo>
double run(Echo echo) {
  MySocketServer server;
  server.Start("127.0.0.1", 0, 5);
  const int port = server.LocalPort();
  std::thread serving([&] {
    MySocket* peer = server.WaitConnection();
    const int fd = peer->sock;
    peer->sock = -1;  // the echo owns the descriptor now
    delete peer;
    echo(fd);
  });
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);

  const std::string line = std::string(63, 'x') + "\n";
  std::string window;
  for (int i = 0; i < kWindow; ++i) window += line;
  const size_t answer = kWindow * (line.size() + 1);  // each line comes back with "\r\n"
  char chunk[65536];
  const auto t0 = std::chrono::steady_clock::now();
  for (int w = 0; w < kLines / kWindow; ++w) {
    send(s, window.data(), window.size(), MSG_NOSIGNAL);
    size_t got = 0;
    while (got < answer) {
      const ssize_t n = recv(s, chunk, sizeof chunk, 0);
      if (n <= 0) return -1;
      got += static_cast<size_t>(n);
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  shutdown(s, SHUT_RDWR);
  close(s);
  serving.join();
  return seconds;
}

}  // namespace

// The median of `v` (sorted in place).
double median(std::vector<double>& v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int main(int argc, char** argv) {
  const int passes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  // Each pass runs both echoes back to back, so a busy machine slows both.
  std::vector<double> conn, raw, ratio;
  for (int pass = 0; pass < passes; ++pass) {
    conn.push_back(kLines / run(connection_echo));
    raw.push_back(kLines / run(raw_echo));
    ratio.push_back(conn.back() / raw.back());
  }
  std::printf("Line echo over loopback, %d lines of 64 bytes in windows of %d, medians of %d passes\n",
              kLines, kWindow, passes);
  std::printf("  Connection readln/writeln  %10.0f lines/s\n", median(conn));
  std::printf("  raw recv/send echo         %10.0f lines/s   Connection/raw = %4.2f\n", median(raw),
              median(ratio));
  return 0;
}
