// Addresses, sockets, access lists of both families, the listening socket
// (also dual-stack) and MAC addresses.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "support/loopback.h"
#include "support/scratch_dir.h"
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "zqcommon/mysocket.h"

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

TEST(AccessList, RulesOfBothFamiliesInOrder) {
  EXPECT_EQ(AccessList::str2ip("192.168.1.10"), 0xC0A8010Au);
  EXPECT_EQ(AccessList::str2ip("10.1"), 0x0A010000u);
  AccessList none, net(ACL_ALLOW, "10.0.0.0/8"), dotted(ACL_ALLOW, "10.0.0.0", "255.0.0.0");
  AccessList no_mask(ACL_ALLOW, "10.1.2.3");  // ignored: every rule needs a mask
  AccessList short_mask(ACL_ALLOW, "192.0.0.0/0.0.0.0");  // a first octet below 33 is a length
  AccessList any4(ACL_ALLOW, "0.0.0.0/0"), all4(ACL_ALLOW, "0.0.0.0/0"), all6(ACL_ALLOW, "::/0"), six;
  all4.Add(ACL_DENY, "1.2.3.4/0");  // a deny rule with mask 0 refuses everyone
  for (const char* rule : {"127.0.0.1/32", "::1/128", "2001:db8::/32", "::/129", "fe80::/x"}) {
    six.Add(ACL_ALLOW, rule);  // the last two are not rules: ignored
  }
  six.Add(ACL_DENY, "fe80::/10");
  AccessList odd6(ACL_ALLOW, "2001:db8:8000::/33");  // a length that ends inside a byte
  const struct { AccessList& acl; const char* peer; ACL_Mode want; } cases[] = {
      {none, "10.1.2.3", ACL_DENY},         {net, "10.1.2.3", ACL_ALLOW},        {net, "192.168.7.9", ACL_DENY},
      {dotted, "10.1.2.3", ACL_ALLOW},      {no_mask, "10.1.2.3", ACL_DENY},     {short_mask, "10.1.2.3", ACL_ALLOW},
      {all4, "192.168.7.9", ACL_DENY},      {six, "127.0.0.1", ACL_ALLOW},       {six, "::ffff:127.0.0.1", ACL_ALLOW},
      {six, "::ffff:127.0.0.2", ACL_DENY},  {six, "127.0.0.2", ACL_DENY},        {six, "::1", ACL_ALLOW},
      {six, "::2", ACL_DENY},               {six, "fe80::1", ACL_DENY},          {six, "2001:db8:ffff::1", ACL_ALLOW},
      {six, "2001:db9::", ACL_DENY},        {six, "::", ACL_DENY},               {all6, "10.1.2.3", ACL_ALLOW},
      {all6, "::5", ACL_ALLOW},             {all6, "::ffff:10.0.0.1", ACL_ALLOW}, {any4, "192.168.7.9", ACL_ALLOW},
      {odd6, "2001:db8:ffff::1", ACL_ALLOW},  {odd6, "2001:db8:7fff:ffff::", ACL_DENY},
  };
  for (const auto& c : cases) {
    InetAddress peer(c.peer, true);
    EXPECT_EQ(c.acl.match(peer), c.want) << c.peer;
  }
}

TEST(AccessList, FilesAndTheCheckedLoadNamingEachBadLine) {
  ScratchDir dir;
  std::ofstream(dir / "plain") << "[hosts]\nallow = 192.168.0.0/16  10.1.2.3/32\ndeny = 192.168.7.0/255.255.255.0\n";
  AccessList file;
  file.load_ACL(dir / "plain");  // the deny rule wins inside the allowed network
  for (const auto& [ip, want] : {std::pair<const char*, ACL_Mode>{"10.1.2.3", ACL_ALLOW},
                                 {"192.168.7.9", ACL_DENY}, {"192.168.8.1", ACL_ALLOW}}) {
    InetAddress peer(ip, true);
    EXPECT_EQ(file.match(peer), want) << ip;
  }

  const std::string checked = dir / "checked";
  std::ofstream(checked) << "# list\n[hosts]\nallow = 127.0.0.1/32 ::1/128\ndeny = ::1/129 10.0.0.1\n"
                            "allow = localhost/32 10.0.0.0/255.0.0.0\nallo = 1.2.3.4/32\n";
  AccessList acl;
  std::vector<std::string> problems;
  EXPECT_FALSE(acl.load_checked(checked, &problems));
  const std::vector<std::string> starts = {":4: rule '::1/129'", ":4: rule '10.0.0.1'",
                                           ":5: rule 'localhost/32'", ":6: unknown key"};
  ASSERT_EQ(problems.size(), starts.size());
  for (size_t i = 0; i < starts.size(); ++i) EXPECT_EQ(problems[i].rfind(checked + starts[i], 0), 0u) << problems[i];
  InetAddress ten("10.9.8.7", true), six("::1", true);
  EXPECT_EQ(acl.match(ten), ACL_ALLOW);  // the good rules were kept
  EXPECT_EQ(acl.match(six), ACL_ALLOW);
  EXPECT_FALSE(acl.load_checked("/nonexistent/acl", &problems));
}

TEST(MySocketServer, AcceptStopAndResume) {
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

  // (A refused peer leaves the wait going: connserv_test.cpp.)
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_EQ(server.WaitConnection(), nullptr);  // stopped while waiting
    returned = true;
  });
  usleep(20000);
  EXPECT_FALSE(returned);
  EXPECT_TRUE(server.Stop());
  waiter.join();
  EXPECT_FALSE(server.Stop());

  EXPECT_TRUE(server.Resume());  // listens again on the same interface
  EXPECT_GT(server.LocalPort(), 0);
  EXPECT_TRUE(server.isactive);
}

TEST(MySocketServer6, DualStackPeers) {
  std::string error;  // (a host name refused: tests/station/station_network_e2e.py)
  MySocketServer server;
  if (!server.ListenNumeric("::", 0, 16, &error)) GTEST_SKIP() << "no IPv6 here: " << error;
  server.SetPeerLookup(false);
  EXPECT_EQ(server.LocalAddress(), "[::]:" + std::to_string(server.LocalPort()));
  for (const char* host : {"127.0.0.1", "::1"}) {
    MySocketClient client;
    ASSERT_GE(client.ConnectAny(host, server.LocalPort()), 0) << host;
    std::unique_ptr<MySocket> peer(server.WaitConnection());
    ASSERT_NE(peer, nullptr);
    EXPECT_EQ(peer->IPList().front(), std::string(host) == "::1" ? "::1" : "::ffff:127.0.0.1");
  }
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
