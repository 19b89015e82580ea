// Session caps, and the example line server under a connect burst, thousands
// of idle peers and bad peers.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/mysocket.h>
#include <zqcommon/sessionlimits.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/child_process.h"

namespace {

bool sanitized() { return std::getenv("ZQ_SANITIZE") != nullptr && *std::getenv("ZQ_SANITIZE") != 0; }

double since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Reads from `s` until `want` appears, the peer closes or 10 s pass.
std::string read_until(int s, const std::string& want) {
  std::string got;
  char chunk[4096];
  const auto t0 = std::chrono::steady_clock::now();
  while (got.find(want) == std::string::npos && since(t0) < 10) {
    pollfd p{s, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = recv(s, chunk, sizeof chunk, 0);
    if (n <= 0) break;
    got.append(chunk, static_cast<size_t>(n));
  }
  return got;
}

bool send_all(int s, const std::string& data) {
  for (size_t sent = 0; sent < data.size();) {
    const ssize_t n = send(s, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

int connect_to(int port) {
  MySocketClient c;
  const int s = c.ConnectAny("127.0.0.1", port);
  c.sock = -1;  // ours now
  return s;
}

}  // namespace

TEST(SessionLimits, TotalAndPerAddressCaps) {
  SessionLimits limits(3, 2);
  std::string why;
  EXPECT_TRUE(limits.Admit("a") && limits.Admit("a"));
  EXPECT_FALSE(limits.Admit("a", &why));
  EXPECT_NE(why.find("from a"), std::string::npos);
  EXPECT_TRUE(limits.Admit("b"));
  EXPECT_FALSE(limits.Admit("c", &why));  // 3 in total
  limits.Release("a");
  limits.Release("zzz");  // unknown: ignored
  EXPECT_TRUE(limits.Admit("c"));
  EXPECT_EQ(limits.Count(), 3u);
  EXPECT_EQ(limits.CountOf("a"), 1u);
}

#ifdef ZQ_LINESERVER_PATH
// The example server: a connect burst is served at once with every client's
// lines back in order, thousands of idle peers do not slow a working one,
// peers beyond the cap are refused, and peers that stall, reset, flood, send
// noise or never read disturb nobody.
TEST(LineServerLoad, BurstIdleCrowdAndBadPeers) {
  const int burst = sanitized() ? 100 : 500, idle = sanitized() ? 300 : 5000, cap = idle + 50;
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  lim.rlim_cur = std::min<rlim_t>(lim.rlim_max, 2 * idle + 1000);
  setrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur < static_cast<rlim_t>(2 * idle + 200)) GTEST_SKIP() << "descriptor limit too low";
  ChildProcess server({ZQ_LINESERVER_PATH, "0", std::to_string(cap), "127.0.0.1"}, SIGTERM);
  int port = 0;
  ASSERT_EQ(std::fscanf(server.out(), "listening on %d", &port), 1);

  // The burst: all connect at once, then each sends 20 lines of its own.
  const auto lines = [](int id, const char* end) {
    std::string text;
    for (int i = 0; i < 20; ++i) text += "client " + std::to_string(id) + " line " + std::to_string(i) + end;
    return text;
  };
  std::vector<int> peers;
  auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < burst; ++i) peers.push_back(connect_to(port));
  for (int i = 0; i < burst; ++i) send_all(peers[i], lines(i, "\n"));
  int answered = 0;
  for (int i = 0; i < burst; ++i) answered += read_until(peers[i], lines(i, "\r\n")) == lines(i, "\r\n");
  const double burst_s = since(t0);
  EXPECT_EQ(answered, burst);
  EXPECT_LT(burst_s, 10.0);
  // The idle crowd, then one client's round trips among them.
  t0 = std::chrono::steady_clock::now();
  while (static_cast<int>(peers.size()) < idle) peers.push_back(connect_to(port));
  const double crowd_s = since(t0);
  EXPECT_GE(*std::min_element(peers.begin(), peers.end()), 0);
  const int worker = connect_to(port);
  std::vector<double> trips;
  for (int i = 0; i < 200; ++i) {
    const auto t = std::chrono::steady_clock::now();
    send_all(worker, "ping\n");
    ASSERT_EQ(read_until(worker, "ping\r\n"), "ping\r\n");
    trips.push_back(since(t) * 1000);
  }
  std::sort(trips.begin(), trips.end());
  const double p99 = trips[trips.size() * 99 / 100];
  EXPECT_LT(p99, 250.0);
  std::printf("burst of %d answered in %.3f s; %d idle connected in %.2f s; p99 %.2f ms\n", burst,
              burst_s, idle, crowd_s, p99);
  // Beyond the cap: one refusal line and the end of the stream.
  std::vector<int> extra;
  for (int i = 0; i < 60; ++i) extra.push_back(connect_to(port));
  EXPECT_EQ(read_until(extra.back(), "\n").rfind("busy: ", 0), 0u);
  for (int s : extra) close(s);
  // Half a line then stalled; reset mid-line; 140,000 bytes without a line
  // end (dropped); noise and NUL bytes; answers never read (dropped once they
  // pile up). Peer 2 stays silent throughout. The worker goes on.
  send_all(peers[3], "half a li");
  const linger abort_now{1, 0};
  setsockopt(peers[4], SOL_SOCKET, SO_LINGER, &abort_now, sizeof abort_now);
  send_all(peers[4], "reset mid");
  close(std::exchange(peers[4], -1));
  send_all(peers[5], std::string(140000, 'x'));
  std::string noise;
  for (int i = 0; i < 5000; ++i) noise += static_cast<char>((i * 7919) & 0xFF);
  send_all(peers[6], noise + std::string("\0\0\n", 3));
  std::string unread;
  for (int i = 0; i < 200000; ++i) unread += "never read me " + std::to_string(i) + "\n";
  send_all(peers[7], unread);
  EXPECT_EQ(read_until(peers[5], "x"), "");
  send_all(worker, lines(-1, "\n"));
  EXPECT_EQ(read_until(worker, lines(-1, "\r\n")), lines(-1, "\r\n"));
  close(worker);
  for (int s : peers) close(s);
}
#endif
