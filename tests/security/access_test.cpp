// Certificate TLS contexts and handshakes, the users file and login throttling.
// (The privilege matrix, help by level and private session output are
// tests/station/station_access.py's checks, over the network.)
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/scratch_dir.h"
#include "zqsecurity/loginthrottle.h"
#include "zqsecurity/sslconnection.h"
#include "zqsecurity/tlscontext.h"
#include "zqsecurity/userfile.h"

using namespace ZQSecurity;

namespace {

// A scratch folder with two self-signed certificates made by the openssl
// command: "a" names localhost and 127.0.0.1, "b" is another key.
struct Folder : ScratchDir {
  Folder() {
    for (const char* n : {"a", "b"}) {
      const std::string cmd = "cd " + path + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
                              " -days 1 -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1"
                              " -keyout " + n + ".key -out " + n + ".pem 2>/dev/null";
      EXPECT_EQ(std::system(cmd.c_str()), 0);
      chmod((path + "/" + n + ".key").c_str(), 0600);
    }
  }
};

// A server's context with certificate "a", or a client's trusting it.
std::shared_ptr<TLSContext> context(const Folder& f, bool server, std::string& error) {
  TLSSettings s;
  s.CertificateFile = server ? f / "a.pem" : "";
  s.KeyFile = server ? f / "a.key" : "";
  s.CAFile = f / "a.pem";
  return TLSContext::Create(s, server, error);
}

}  // namespace

TEST(TLSContext, LoadTimeChecksNameTheFileAndTheReason) {
  Folder f;
  std::filesystem::copy_file(f / "a.key", f / "open.key");
  chmod((f / "open.key").c_str(), 0644);
  const struct { const char *key, *value, *expect; } cases[] = {
      {"CertificateFile", "missing.pem", "missing.pem: no such file"},
      {"KeyFile", "open.key", "open.key: readable by group or others"},
      {"KeyFile", "b.key", "b.key: key values mismatch"},  // OpenSSL's reason
      {"MinVersion", "1.1", "MinVersion '1.1'"},
      {"VerifyPeer", "maybe", "VerifyPeer 'maybe'"},
      {"Ciphers", "NOSUCHCIPHER", "Ciphers 'NOSUCHCIPHER'"},
      {"CAFile", "a.key", "CAFile"},
  };
  for (const auto& c : cases) {
    TLSSettings s;
    s.CertificateFile = f / "a.pem";
    s.KeyFile = f / "a.key";
    auto* e = &*s.begin();
    for (auto& entry : s) if (entry.first == c.key) e = &entry;
    const std::string v = std::string(c.value).find('.') != std::string::npos && c.key[0] != 'M' ? f / c.value : c.value;
    ASSERT_TRUE(e->second = v);
    std::string error;
    EXPECT_EQ(TLSContext::Create(s, true, error), nullptr) << c.key;
    EXPECT_NE(error.find(c.expect), std::string::npos) << error;
  }
}

// Both ends of our own, stepped in turn without ever waiting: the client
// checks the name it expects against the server's certificate.
TEST(SSLConnection, CertificateHandshakeChecksTheHostName) {
  Folder f;
  std::string error;
  auto server_ctx = context(f, true, error), client_ctx = context(f, false, error);
  ASSERT_TRUE(server_ctx && client_ctx);
  for (const auto& c : {std::make_pair("localhost", true), std::make_pair("127.0.0.1", true),
                        std::make_pair("other.example", false), std::make_pair("10.0.0.1", false)}) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    SSLConnection server, client;
    server.SetSocket(&fds[0]);
    client.SetSocket(&fds[1]);
    server.SSL_use_context(server_ctx);
    client.SSL_use_context(client_ctx, c.first);
    int s = 0, k = 0;
    for (int i = 0; i < 1000 && (s == 0 || k == 0); ++i) {
      if (k == 0) k = client.SSL_handshake_step(false);
      if (s == 0) s = server.SSL_handshake_step(true);
    }
    EXPECT_EQ(k == 1, c.second) << c.first << ": " << client.TLSError();
    if (!c.second) continue;
    EXPECT_EQ(client.TLSVersion(), "TLSv1.3");
    EXPECT_EQ(server.PeerIdentity(), "");  // no client certificate
  }
}

TEST(UserFile, SaveLoadVerifyAndRefusedLines) {
  ScratchDir f;
  UserFile users;
  std::string error;
  EXPECT_FALSE(users.Set("bad name", kViewer, "pw", error));
  ASSERT_TRUE(users.Set("otto", kOperator, "pw#1", error)) << error;
  ASSERT_TRUE(users.Save(f / "users", error)) << error;
  UserFile loaded;
  ASSERT_TRUE(loaded.Load(f / "users", error)) << error;
  EXPECT_EQ(loaded.Verify("otto", "pw#1"), kOperator);
  EXPECT_EQ(UserLevel(f / "users", "otto"), kOperator);

  using namespace std::string_literals;
  const std::string hash = UserFile::MakeHash("x");
  const struct { std::string text, expect; } cases[] = {
      {"[users]\nbob = king:" + hash, ":2: unknown level"},
      {"[users]\n\nbob = admin:md5$abc", ":3: malformed hash"},
      {"[users]\nbob = admin:scrypt$1073741824$8$1$00$00", ":2: malformed hash"},  // a cost nobody should pay
      {"[users]\nbob = admin:scrypt$16\0x$8$1$00$00"s, ":2: malformed hash"},  // NUL in a number
      {"[users]\nbob = admin:scrypt$16$8$1$0\0$00"s, ":2: malformed hash"},  // and in hex
      {"[users]\nb/b = admin:" + hash, ":2: invalid user name"},
      {"[users]\njust text", ":2: expected name = level:hash"},
  };
  for (const auto& c : cases) {
    std::ofstream(f / "bad") << c.text << "\n";
    EXPECT_FALSE(loaded.Load(f / "bad", error));
    EXPECT_NE(error.find(c.expect), std::string::npos) << error;
  }
  EXPECT_EQ(loaded.LevelOf("otto"), kOperator);  // a failed load keeps what was there
}

TEST(LoginThrottle, DelaysDoubleAndFailuresLockOut) {
  LoginThrottleSettings s;
  LoginThrottle t(s);
  const long long expected[] = {1000, 2000, 4000, 8000, 16000, 30000};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(t.Locked("a", i), i >= 5) << i;
    EXPECT_EQ(t.Failed("a", i), expected[i]);
  }
  EXPECT_FALSE(t.Locked("b", 10));
  EXPECT_TRUE(t.Locked("a", 600004));
  EXPECT_FALSE(t.Locked("a", 600005));  // Lockout after the last failure (at 5), exactly
  t.Failed("b", 700000);  // expires the old records
  EXPECT_EQ(t.Tracked(), 1u);
  t.Succeeded("b");
  EXPECT_EQ(t.Tracked(), 0u);
}

// Opt-in: guesses at one name lock out that name at the address, not the
// real admin there; a ceiling of failures locks the whole address.
TEST(LoginThrottle, PerAddressAndUserWithAnAddressCeiling) {
  LoginThrottleSettings s;
  LoginThrottle plain(s);
  for (int i = 0; i < 5; ++i) plain.Failed("a", "eve", i);
  EXPECT_TRUE(plain.Locked("a", "admin", 10)) << "without the setting: per address, as before";
  s.AddressMaxFailures = 12;
  LoginThrottle t(s);
  for (int i = 0; i < 5; ++i) t.Failed("a", "eve", i);
  EXPECT_TRUE(t.Locked("a", "eve", 10));
  EXPECT_FALSE(t.Locked("a", "admin", 10));
  EXPECT_FALSE(t.Locked("b", "eve", 10));
  t.Succeeded("a", "admin");
  for (int i = 0; i < 7; ++i) {
    EXPECT_FALSE(t.Locked("a", "u" + std::to_string(i), 20)) << i;
    t.Failed("a", "u" + std::to_string(i), 20);
  }
  EXPECT_TRUE(t.Locked("a", "admin", 30)) << "12 failures from one address lock it whatever the name";
  EXPECT_FALSE(t.Locked("b", "admin", 30));
}
