// Addresses, sockets, access lists, the listening socket and MAC addresses.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "support/loopback.h"
#include "support/scratch_dir.h"
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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
  const auto match = [](auto&& acl, const char* ip) {
    InetAddress peer(ip);
    peer.Resolve(ip, true);
    return acl.match(peer);
  };
  EXPECT_EQ(match(AccessList(), "10.1.2.3"), ACL_DENY);
  AccessList net(ACL_ALLOW, "10.0.0.0/8");
  EXPECT_EQ(match(net, "10.1.2.3"), ACL_ALLOW);
  EXPECT_EQ(match(net, "192.168.7.9"), ACL_DENY);
  EXPECT_EQ(match(AccessList(ACL_ALLOW, "10.0.0.0", "255.0.0.0"), "10.1.2.3"), ACL_ALLOW);
  EXPECT_EQ(match(AccessList(ACL_ALLOW, "10.1.2.3"), "10.1.2.3"), ACL_DENY);  // every rule needs a mask
  // A first octet below 33 is a length.
  EXPECT_EQ(match(AccessList(ACL_ALLOW, "192.0.0.0/0.0.0.0"), "10.1.2.3"), ACL_ALLOW);
  AccessList all(ACL_ALLOW, "0.0.0.0/0");
  EXPECT_EQ(match(all, "192.168.7.9"), ACL_ALLOW);
  all.Add(ACL_DENY, "1.2.3.4/0");  // a deny rule with mask 0 refuses everyone
  EXPECT_EQ(match(all, "192.168.7.9"), ACL_DENY);

  // From a file: the deny rule wins inside the allowed network.
  ScratchDir dir;
  std::ofstream(dir / "acl") << "[hosts]\nallow = 192.168.0.0/16  10.1.2.3/32\ndeny = 192.168.7.0/255.255.255.0\n";
  AccessList file;
  file.load_ACL(dir / "acl");
  for (const auto& [ip, want] : {std::pair<const char*, ACL_Mode>{"10.1.2.3", ACL_ALLOW},
                                 {"192.168.7.9", ACL_DENY}, {"192.168.8.1", ACL_ALLOW}})
    EXPECT_EQ(match(file, ip), want) << ip;
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
