// Session caps, and the example line server under a connect burst.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/sessionlimits.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/loopback.h"

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
// The example server takes a connect burst at once (its listen queue holds
// 512) and sends every client's lines back in order. Its idle crowd, caps and
// bad peers are the station's too: tests/station/station_network_e2e.py and
// tests/station/station_hostile.py run them against the same server classes.
TEST(LineServerLoad, ConnectBurstIsServedInOrder) {
  const int burst = sanitized() ? 100 : 500;
  ChildProcess server({ZQ_LINESERVER_PATH, "0", std::to_string(burst), "127.0.0.1"}, SIGTERM);
  int port = 0;
  ASSERT_EQ(std::fscanf(server.out(), "listening on %d", &port), 1);
  const auto lines = [](int id, const char* end) {
    std::string text;
    for (int i = 0; i < 20; ++i) text += "client " + std::to_string(id) + " line " + std::to_string(i) + end;
    return text;
  };
  std::vector<int> peers;
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < burst; ++i) peers.push_back(connect_local(port));
  for (int i = 0; i < burst; ++i) {
    const std::string text = lines(i, "\n");  // a few hundred bytes: one send
    ASSERT_EQ(send(peers[i], text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  int answered = 0;
  for (int i = 0; i < burst; ++i) answered += read_until(peers[i], lines(i, "\r\n")) == lines(i, "\r\n");
  EXPECT_EQ(answered, burst);
  EXPECT_LT(since(t0), 10.0);
  for (int s : peers) close(s);
}
#endif
