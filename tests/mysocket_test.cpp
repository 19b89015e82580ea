// Addresses, sockets, access lists, the listening socket and MAC addresses.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "support/loopback.h"
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "zqcommon/mysocket.h"

namespace {

std::string read_all(int s) {
  std::string data;
  char chunk[256];
  ssize_t n;
  while ((n = recv(s, chunk, sizeof chunk, 0)) > 0) data.append(chunk, static_cast<size_t>(n));
  return data;
}

}  // namespace

TEST(InetAddress, LookupsAndTheirFailures) {
  InetAddress local("127.0.0.1");
  EXPECT_EQ(local.IPList(), std::vector<std::string>{"127.0.0.1"});
  EXPECT_FALSE(local.AliasList().empty());  // the reverse look-up found a name
  local.Resolve("127.0.0.1", true);
  EXPECT_EQ(local.IPList(), std::vector<std::string>{"127.0.0.1"});
  EXPECT_TRUE(local.AliasList().empty());

  InetAddress nowhere("no-such-host.invalid");
  EXPECT_TRUE(nowhere.AliasList().empty());
  EXPECT_EQ(nowhere.IPList(), std::vector<std::string>{"255.255.255.255"});
  InetAddress copy = local;  // copies share the resolved entry
  copy.update_lists();

  MySocketClient client;
  EXPECT_EQ(client.Connect("no-such-host.invalid", 1, true), -1);
  client.port = 5;
  client.Disconnect();  // no descriptor: no system call, fields cleared
  EXPECT_EQ(client.Port(), 0);
  EXPECT_FALSE(client.issetup);
}

TEST(AccessList, MasksAndRuleOrder) {
  EXPECT_EQ(AccessList::str2ip("192.168.1.10"), 0xC0A8010Au);
  EXPECT_EQ(AccessList::str2ip("10.1"), 0x0A010000u);
  InetAddress peer("10.1.2.3");
  peer.Resolve("10.1.2.3", true);
  InetAddress other("192.168.7.9");
  other.Resolve("192.168.7.9", true);

  AccessList empty;
  EXPECT_EQ(empty.match(peer), ACL_DENY);

  AccessList net(ACL_ALLOW, "10.0.0.0/8");
  EXPECT_EQ(net.match(peer), ACL_ALLOW);
  EXPECT_EQ(net.match(other), ACL_DENY);
  AccessList dotted(ACL_ALLOW, "10.0.0.0", "255.0.0.0");
  EXPECT_EQ(dotted.match(peer), ACL_ALLOW);
  AccessList no_mask(ACL_ALLOW, "10.1.2.3");  // ignored: every rule needs a mask
  EXPECT_EQ(no_mask.match(peer), ACL_DENY);
  AccessList zero_prefix(ACL_ALLOW, "192.0.0.0/0.0.0.0");  // a first octet below 33 is a length
  EXPECT_EQ(zero_prefix.match(peer), ACL_ALLOW);

  AccessList all(ACL_ALLOW, "0.0.0.0/0");
  EXPECT_EQ(all.match(other), ACL_ALLOW);
  all.Add(ACL_DENY, "1.2.3.4/0");  // a deny rule with mask 0 refuses everyone
  EXPECT_EQ(all.match(other), ACL_DENY);

  const std::string path = ::testing::TempDir() + "zq_acl.cfg";
  std::ofstream(path) << "[hosts]\nallow = 192.168.0.0/16  10.1.2.3/32\ndeny = 192.168.7.0/255.255.255.0\n";
  AccessList file;
  file.load_ACL(path);
  EXPECT_EQ(file.match(peer), ACL_ALLOW);
  EXPECT_EQ(file.match(other), ACL_DENY);
  InetAddress near("192.168.8.1");
  near.Resolve("192.168.8.1", true);
  EXPECT_EQ(file.match(near), ACL_ALLOW);
  std::remove(path.c_str());
}

TEST(MySocketServer, AcceptRefuseStopAndResume) {
  MySocketServer server;
  ASSERT_TRUE(server.Start("127.0.0.1", 0, 5));
  const int port = server.LocalPort();
  ASSERT_GT(port, 0);
  EXPECT_FALSE(server.IsPending());
  EXPECT_FALSE(server.Resume());  // not stopped

  const int c = connect_local(port);
  ASSERT_GE(c, 0);
  MySocket* peer = server.WaitConnection();
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(peer->IPList(), std::vector<std::string>{"127.0.0.1"});
  EXPECT_EQ(peer->write("hello\n", 0), 6);
  char got[16] = {};
  EXPECT_EQ(recv(c, got, sizeof got, 0), 6);
  EXPECT_STREQ(got, "hello\n");
  EXPECT_EQ(send(c, "x\0y", 3, 0), 3);
  EXPECT_EQ(peer->read(16, 0), std::string("x\0y", 3));
  close(c);
  EXPECT_EQ(peer->read(16, 0), "");  // the peer closed
  delete peer;  // the caller's

  server.SetAcl(new AccessList());  // denies everybody
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_EQ(server.WaitConnection(), nullptr);  // stopped while waiting
    returned = true;
  });
  const int refused = connect_local(port);
  ASSERT_GE(refused, 0);
  EXPECT_EQ(read_all(refused), std::string("Your IP is not allowed to connect\r\n\0", 36));
  close(refused);
  usleep(20000);
  EXPECT_FALSE(returned);  // still waiting for an allowed peer
  EXPECT_TRUE(server.Stop());
  waiter.join();
  EXPECT_FALSE(server.Stop());

  EXPECT_TRUE(server.Resume());  // listens again on the same interface
  EXPECT_GT(server.LocalPort(), 0);
  EXPECT_TRUE(server.isactive);
}

TEST(MacAddress, LoopbackAndUnknownInterfaces) {
  std::string mac = "old";
  EXPECT_EQ(get_ifmac("lo", mac), 0);
  EXPECT_EQ(mac, "00:00:00:00:00:00");
  EXPECT_NE(get_ifmac("zq-no-such-if", mac), 0);
  EXPECT_EQ(mac, "");
  std::string all;
  EXPECT_EQ(get_allmac(all), 0);
  EXPECT_NE(all.find("lo;00:00:00:00:00:00;"), std::string::npos) << all;
}
