// Connection server: the accept thread, the peer limit and configuration.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "support/eventually.h"
#include "support/loopback.h"
#include "support/scratch_dir.h"
#include "zqcommon/connserv.h"

TEST(ConnectionServer, HoldsUpToMaxConnAndHandsPeersOver) {
  Connection_Server server(0, 1, "127.0.0.1");
  ASSERT_TRUE(server.isactive);
  server.Start(nullptr);
  const int a = connect_local(server.LocalPort()), b = connect_local(server.LocalPort());
  ASSERT_TRUE(a >= 0 && b >= 0);
  ASSERT_TRUE(eventually([&] { return server.IsPending(); }));
  MySocket* first = server[0];
  ASSERT_NE(first, nullptr);
  usleep(100000);
  EXPECT_EQ(server[1], nullptr);  // the second waits in the listen queue
  server.Remove(first, true);     // done with the first (deleted, closed)
  ASSERT_TRUE(eventually([&] { return server[0] != nullptr; }));
  MySocket* second = server[0];
  server.Remove(second, false);  // taken: now ours
  EXPECT_FALSE(server.IsPending());
  delete second;
  close(a);
  close(b);

  // SetMaxConn(0) empties the list without closing the held sockets.
  server.SetMaxConn(2);
  const int c = connect_local(server.LocalPort());
  ASSERT_TRUE(eventually([&] { return server.IsPending(); }));
  MySocket* held = server[0];
  server.SetMaxConn(0);
  EXPECT_FALSE(server.IsPending());
  EXPECT_GE(held->Socket(), 0);
  delete held;
  close(c);
  server.stop();
  EXPECT_TRUE(server.IsCancelled());
}

TEST(ConnectionServer, ConfigurationKeys) {
  ScratchDir dir;
  const std::string path = dir / "connserv.cfg";
  std::ofstream(path) << "[srv]\nListenPort = 0\nInterface = 127.0.0.1\n";  // no MaxConnections
  Connection_Server nobody(path, "srv");
  ASSERT_TRUE(nobody.isactive);
  EXPECT_EQ(nobody.MaxConn(), 0u);
  nobody.Start(nullptr);
  const int s = connect_local(nobody.LocalPort());
  usleep(100000);
  EXPECT_FALSE(nobody.IsPending());  // listens, accepts nobody
  close(s);
  EXPECT_FALSE(Connection_Server("", "srv").isactive);  // no file: not started
}

// A refused peer leaves the accept thread waiting for the next one; the
// application must still be able to take the peers already held.
TEST(ConnectionServer, RefusedPeerDoesNotBlockTheList) {
  Connection_Server server(0, 4, "127.0.0.1");
  ASSERT_TRUE(server.isactive);
  server.SetAcl(new AccessList(ACL_ALLOW, "127.0.0.1/32"));
  server.Start(nullptr);
  const int allowed = connect_local(server.LocalPort());
  ASSERT_TRUE(eventually([&] { return server.IsPending(); }));
  const int denied = connect_local(server.LocalPort(), "127.0.0.2");
  ASSERT_GE(denied, 0);
  char refusal[64] = {};
  timeval tv{5, 0};
  setsockopt(denied, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  ASSERT_EQ(recv(denied, refusal, sizeof refusal, MSG_WAITALL), 36);
  EXPECT_STREQ(refusal, "Your IP is not allowed to connect\r\n");

  // The accept thread now sits in accept(); the list stays usable.
  MySocket* peer = server[0];
  ASSERT_NE(peer, nullptr);
  server.Remove(peer, true);
  EXPECT_FALSE(server.IsPending());
  close(denied);
  close(allowed);
  server.stop();
}
