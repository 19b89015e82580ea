// Start-TLS connections against Python's ssl module as server and between two
// of our own (joined by a socket pair), plus the set-up pieces. (Python as the client of our server is
// the station's end-to-end script.)
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <thread>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/dh.h>

#include "support/child_process.h"
#include "zqcommon/bug.h"
#include "zqcommon/functions.h"
#include "zqcommon/mysocket.h"
#include "zqsecurity/sslcommon.h"
#include "zqsecurity/sslconnection.h"

using ZQSecurity::SSLConnection;

namespace {

// DEBUG_LEVEL at `level` for a scope.
struct DebugLevel {
  int saved = DEBUG_LEVEL;
  explicit DebugLevel(int level) { DEBUG_LEVEL = level; }
  ~DebugLevel() { DEBUG_LEVEL = saved; }
};

std::string line_of(Connection& c) {
  std::string line;
  c.readln(line, false, 10 * Connection::wait_1s);
  return line;
}

// Either side of the exchange on an open connection: clear text, the switch
// to TLS, and a line each way encrypted.
void exchange(Connection& c, bool server) {
  if (server) {
    EXPECT_EQ(line_of(c), "PLAIN hello");
    c.writeln("PLAIN ok");
    EXPECT_EQ(line_of(c), "STARTTLS");
    c.writeln("GO");
    EXPECT_EQ(c.flush(), 0);
  } else {
    c.writeln("PLAIN hello");
    EXPECT_EQ(line_of(c), "PLAIN ok");
    c.writeln("STARTTLS");
    EXPECT_EQ(line_of(c), "GO");
  }
  c.SSL_setup(server, "", "", "");
  ASSERT_TRUE(c.SSL_start_TLS(server));
  EXPECT_TRUE(c.IsEncrypted());
  if (!server) c.writeln("SECRET ping");
  EXPECT_EQ(line_of(c), server ? "SECRET ping" : "SECRET pong");
  if (server) c.writeln("SECRET pong");
  EXPECT_EQ(c.flush(), 0);
}

// Two connections joined by a socket pair; the descriptors outlive them.
struct Pair {
  int sv[2] = {-1, -1};
  SSLConnection a, b;
  Pair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    a.SetSocket(&sv[0]);
    b.SetSocket(&sv[1]);
  }
  // The exchange with `a` as the server, on a thread of its own.
  void Encrypt() {
    std::thread server_side([&] { exchange(a, true); });
    exchange(b, false);
    server_side.join();
  }
};

}  // namespace

TEST(SSLConnection, OurClientAgainstPythonServer) {
  DebugLevel quiet(-1);
  ChildProcess peer({"python3", ZQ_TLS_PEER, "server"});
  int port = 0;
  ASSERT_TRUE(peer.out() != nullptr && std::fscanf(peer.out(), "%d", &port) == 1 && port > 0);
  MySocketClient client;
  ASSERT_GE(client.Connect("127.0.0.1", port, true), 0);
  SSLConnection c;
  ASSERT_TRUE(c.SetSocket(&client.sock));
  exchange(c, false);
  EXPECT_EQ(peer.wait(), 0);
}

TEST(SSLConnection, AGonePeerAndClearTextFallback) {
  std::optional<DebugLevel> quiet(-1);
  Pair p;
  p.Encrypt();
  p.a.close();
  // The peer has gone: writes fail, and with SIGPIPE at its default action
  // the process lives on (OpenSSL's writes cannot pass MSG_NOSIGNAL).
  const auto old_action = signal(SIGPIPE, SIG_DFL);
  for (int i = 0; i < 50 && p.b.IsConnected(); ++i) {
    p.b.writeln("after the peer left");
    p.b.flush();
    usleep(2000);
  }
  signal(SIGPIPE, old_action);
  EXPECT_FALSE(p.b.IsConnected());
  quiet.reset();

  // Without SSL_setup the switch is refused and clear text goes on.
  Pair clear;
  SSLConnection& a = clear.a;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(a.SSL_start_TLS(true));
  const std::string refusal = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(refusal.find("cannot setup ssl object, since no SSL_CTX was prepared"), std::string::npos);
  EXPECT_FALSE(a.IsEncrypted());
  a.writeln("still clear");
  EXPECT_EQ(line_of(clear.b), "still clear");

  // create_connection keeps the class. A copy of `a` closes the shared
  // descriptor when it goes; `a` notices.
  Connection plain;
  EXPECT_FALSE(std::unique_ptr<Connection>(ZQSecurity::create_connection(plain))->SSL_support());
  EXPECT_TRUE(std::unique_ptr<Connection>(ZQSecurity::create_connection(a))->SSL_support());
  EXPECT_TRUE(std::unique_ptr<Connection>(ZQSecurity::create_connection())->SSL_support());
}

TEST(SSLSetup, LockTableAndDHGroups) {
  ZQSecurity::SSLLocking table;
  table.lock(3);
  table.lock(3);  // recursive
  std::atomic<bool> got{false};
  std::thread other([&] {
    table.lock(4);  // another number is not held up by 3
    table.unlock(4);
    table.lock(3);
    got = true;
    table.unlock(3);
  });
  usleep(50000);
  EXPECT_FALSE(got);
  table.unlock(3);
  table.unlock(3);
  other.join();
  EXPECT_TRUE(got);
  table.unlock(99);  // unknown: nothing
  ZQSecurity::locking_callback(1, 7, __FILE__, __LINE__);
  ZQSecurity::locking_callback(0, 7, __FILE__, __LINE__);
  EXPECT_NE(ZQSecurity::id_callback(), 0u);

  std::optional<DebugLevel> loud(0);
  ::testing::internal::CaptureStderr();
  auto dh = [](int bits) { return ZQSecurity::tmp_dh_callback(nullptr, 0, bits); };
  DH *a = dh(1024), *b = dh(1024), *odd = dh(777), *big = dh(4096);  // in this order
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "tmp_dh_callback for keylen 1024 called!\ntmp_dh_callback for keylen 1024 called!\n"
            "tmp_dh_callback for keylen 777 called!\n"
            "tmp_dh_callback wants keylen 777, which is not provided!\n"
            "tmp_dh_callback for keylen 4096 called!\n");
  loud.reset();
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(a, b);  // cached
  EXPECT_EQ(odd, big);  // the strongest group
  for (DH* (*make)() : {ZQSecurity::get_dh512, ZQSecurity::get_dh2048}) {
    DH* dh = make();
    EXPECT_NE(dh, nullptr);
    DH_free(dh);
  }
}

// Keys of a raw-mode peer: what has arrived, read ahead or still inside the
// TLS layer, within the time-out, and the end of the stream.
TEST(SSLConnection, ReadAvailableInClearTextAndOverTLS) {
  DebugLevel quiet(-1);
  for (const bool encrypted : {false, true}) {
    Pair p;
    if (encrypted) p.Encrypt();
    SSLConnection &a = p.a, &b = p.b;
    std::string s;
    // A read with a time-out waits alike in clear text and encrypted.
    EXPECT_EQ(b.readln(s, false, 50 * Connection::wait_1ms), -2) << encrypted;
    b.writeln("line\nkeys", false);
    EXPECT_EQ(line_of(a), "line");
    EXPECT_EQ(a.read_available(s, 100, 1000), 4);  // the read-ahead
    b.writeln("0123456789", false);
    EXPECT_EQ(a.read_available(s, 4, 1000), 4);
    EXPECT_EQ(a.read_available(s, 100, 0), 6) << encrypted;  // held by TLS: the socket shows nothing
    EXPECT_EQ(s, "456789");
    const int64_t start = GetLLTicks();
    EXPECT_EQ(a.read_available(s, 100, 30), 0);
    EXPECT_TRUE(GetLLTicks() - start >= 25000 && GetLLTicks() - start < 1000000);  // the wait, bounded
    b.writeln("bye", false);
    b.close();
    EXPECT_EQ(a.read_available(s, 100, 1000), 3);
    EXPECT_EQ(a.read_available(s, 100, 1000), -1);
    EXPECT_FALSE(a.IsConnected());
  }
}
