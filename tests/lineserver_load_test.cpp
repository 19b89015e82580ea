// The example line server as a separate process: many concurrent clients get
// every line back in order, and misbehaving peers do not disturb the others.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/loopback.h"
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// Runs the example server on a free port; stops it with SIGTERM on destruction.
class ServerProcess {
 public:
  ServerProcess() {
#ifdef ZQ_LINESERVER_PATH
    if (access(ZQ_LINESERVER_PATH, X_OK) != 0) return;
    child_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ZQ_LINESERVER_PATH, "0", "512", "127.0.0.1"}, SIGTERM);
    if (child_->out() == nullptr || std::fscanf(child_->out(), "listening on %d", &port_) != 1)
      port_ = 0;
#endif
  }
  int port() const { return port_; }

 private:
  std::unique_ptr<ChildProcess> child_;
  int port_ = 0;
};

// Reads until `want` bytes arrived or 30 s passed.
std::string receive(int s, size_t want) {
  timeval tv{30, 0};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  std::string data;
  char chunk[16384];
  while (data.size() < want) {
    const ssize_t n = recv(s, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    data.append(chunk, static_cast<size_t>(n));
  }
  return data;
}

bool send_all(int s, const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t n = send(s, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// One well-behaved client on socket `s`: sends `lines` numbered lines,
// expects them back, closes.
bool echo_lines(int s, int id, int lines) {
  if (s < 0) return false;
  std::string out, want;
  for (int i = 0; i < lines; ++i) {
    const std::string line = "client " + std::to_string(id) + " line " + std::to_string(i);
    out += line + "\n";
    want += line + "\r\n";
  }
  const bool ok = send_all(s, out) && receive(s, want.size()) == want;
  close(s);
  return ok;
}

bool echo_client(int port, int id, int lines) { return echo_lines(connect_local(port), id, lines); }

}  // namespace

TEST(LineServer, TwoHundredConcurrentClients) {
  ServerProcess server;
  if (server.port() == 0) GTEST_SKIP() << "the example server was not built";
  const int kClients = 200, kLines = 1000;
  // Connect all clients first, paced: the server's listen queue holds 5.
  std::vector<int> sockets;
  for (int id = 0; id < kClients; ++id) {
    sockets.push_back(connect_local(server.port()));
    usleep(5000);
  }
  std::atomic<int> good{0};
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> clients;
  for (int id = 0; id < kClients; ++id) {
    clients.emplace_back([&, id] {
      if (echo_lines(sockets[id], id, kLines)) ++good;
    });
  }
  for (auto& c : clients) c.join();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_EQ(good, kClients);
  EXPECT_LT(seconds, 120.0);
  std::printf("%d clients x %d lines echoed in %.2f s (%.0f lines/s)\n", kClients, kLines, seconds,
              kClients * kLines / seconds);
}

TEST(LineServer, MisbehavingPeersDoNotDisturbOthers) {
  ServerProcess server;
  if (server.port() == 0) GTEST_SKIP() << "the example server was not built";
  const int port = server.port();
  // A peer that vanishes mid-line, one that sends 140,000 bytes without a
  // line end, one that sends NUL bytes and noise, one that never reads.
  const int vanish = connect_local(port);
  send_all(vanish, "half a li");
  close(vanish);
  const int flood = connect_local(port);
  send_all(flood, std::string(140000, 'x'));
  const int noise = connect_local(port);
  std::string junk;
  for (int i = 0; i < 5000; ++i) junk += static_cast<char>((i * 7919) & 0xFF);
  send_all(noise, junk + std::string("\0\0\n", 3));
  const int deaf = connect_local(port);
  std::string lots;
  for (int i = 0; i < 200000; ++i) lots += "never read me " + std::to_string(i) + "\n";
  send_all(deaf, lots);  // its answers pile up until the server drops it
  EXPECT_TRUE(echo_client(port, 1, 100));
  EXPECT_EQ(receive(flood, 1), "");  // dropped: the line was too long
  close(flood);
  close(noise);
  close(deaf);
  EXPECT_TRUE(echo_client(port, 2, 100));
}
