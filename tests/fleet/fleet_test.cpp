// The fleet library without a broker: request payloads, signed requests,
// JSON text, the request queue's fairness, and the store-and-forward
// queue's bound and its file across a restart.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <fstream>

#include "fleet/requestqueue.h"
#include "support/scratch_dir.h"
#include "zqfleet/FleetCommand.h"
#include "zqfleet/JsonFields.h"
#include "zqfleet/MqttLink.h"
#include "zqfleet/SignedRequest.h"

using zqfleet::FleetCommand;

TEST(FleetCommand, AcceptsOneFlatObjectAndRefusesTheRest) {
  const struct { const char* payload; bool ok; const char* line; } rows[] = {
      {R"({"cmd":"status"})", true, "status"},
      {R"( { "cmd" : "io set 4", "station":"s1", "n": -1.5e3, "t": true, "z": null } )", true, "io set 4"},
      {R"({"cmd":"echo \"a\\b\" \u0041\u00e9"})", true, "echo \"a\\b\" A\xc3\xa9"},
      {R"({"cmd":"status","station":"s2"})", false, ""},   // another station
      {R"({"cmd":"status")", false, ""},                   // cut short
      {R"({"cmd":"a"} x)", false, ""},                     // text after the object
      {R"({"cmd":"a","cmd":"b"})", false, ""},             // twice
      {R"({"cmd":1})", false, ""},
      {R"({"cmd":"a\nb"})", false, ""},                    // two lines
      {R"({"cmd":"a","x":{"y":1}})", false, ""},           // nested
      {R"({"cmd":"\q"})", false, ""},
      {R"({"cmd":"\u12"})", false, ""},
      {R"(["cmd"])", false, ""},
      {R"({})", false, ""},
      {"", false, ""},
      {R"({"cmd":"a","sig":"00","sig":"01"})", false, ""},  // a signed member twice
      {R"({"cmd":"a","user":1})", false, ""},
      {R"({"cmd":"\ud83d\ude00"})", true, "\xf0\x9f\x98\x80"},  // a surrogate pair
      {"{\"cmd\":\"\xff\"}", false, ""},                   // not UTF-8
      {R"({"cmd":"a","n":01})", false, ""},                 // not a JSON number
  };
  FleetCommand c;
  std::string error;
  for (const auto& r : rows) {
    error.clear();
    EXPECT_EQ(FleetCommand::Parse(r.payload, "s1", c, error), r.ok) << r.payload << " " << error;
    EXPECT_EQ(r.ok ? c.line : std::string(), r.line) << r.payload;
    EXPECT_EQ(error.empty(), r.ok) << r.payload;
  }
  EXPECT_FALSE(FleetCommand::Parse(R"({"cmd":"status")", "s1", c, error));
  EXPECT_EQ(error.rfind("bad JSON at byte 15: syntax error", 0), 0u) << error;
  EXPECT_FALSE(FleetCommand::Parse("{\"cmd\":\"" + std::string(5000, 'x') + "\"}", "s1", c, error));
  EXPECT_NE(error.find("exceeds"), std::string::npos);
}

TEST(JsonFields, EscapesWhatJsonNeeds) {
  zqfleet::JsonFields f;
  f.Add("t", std::string("q\"b\\c\x01\n\xff", 8)).Add("n", 0.0 / 0.0).Add("i", -3).Add("s", 1764101045.123456);
  EXPECT_EQ(f.Text(), R"("t":"q\"b\\c\u0001\n)" "\xef\xbf\xbd" R"(","n":null,"i":-3,"s":1764101045.123456)");
  EXPECT_EQ(zqfleet::JsonFields::UtcTime(86400.25), "1970-01-02T00:00:00.250Z");
}

TEST(MqttLink, QueueDropsTheOldestAndKeepsTheRestOnDiskAcrossARestart) {
  ScratchDir dir;
  const std::string file = dir / "q1.queue";
  zqfleet::MqttSettings s;
  s.Host = "127.0.0.1";
  s.Port = 1;  // nothing listens: every record waits
  s.QueueDir = dir.path;
  s.QueueLimit = 1024;
  std::string error;
  ASSERT_TRUE(s.Resolve("q1", error)) << error;
  uint64_t kept = 0;
  {
    zqfleet::MqttLink link(s, "q1");
    ASSERT_TRUE(link.Start("", error)) << error;
    for (int i = 0; i < 40; ++i) link.Publish("samples", zqfleet::JsonFields().Add("i", i).Text());
    const auto c = link.Read();
    EXPECT_FALSE(c.connected);
    EXPECT_GT(c.dropped, 0u);
    EXPECT_EQ(c.dropped + c.queued, 40u);
    EXPECT_LE(c.queued_bytes, 1024u);
    kept = c.queued;
    std::string notice;
    EXPECT_TRUE(link.TakeNotice(notice));  // the refused connection, once
    link.Stop(0);
  }
  std::ifstream in(file);
  std::string line, last;
  while (std::getline(in, line)) {
    if (line[0] == 'R') last = line;
  }
  EXPECT_NE(last.find("\"i\":39"), std::string::npos) << last;  // the newest survive
  {
    zqfleet::MqttLink again(s, "q1");
    ASSERT_TRUE(again.Start("", error)) << error;
    EXPECT_EQ(again.Read().queued, kept);
    again.Stop(0);
  }
  struct stat st {};
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

namespace {

// An Ed25519 key pair made here; Sign() makes a request as a sender would.
struct TestKey {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  ~TestKey() { EVP_PKEY_free(key); }
  std::string PublicHex() const {
    unsigned char raw[32];
    size_t n = sizeof raw;
    EVP_PKEY_get_raw_public_key(key, raw, &n);
    char hex[65];
    for (size_t i = 0; i < n; ++i) std::snprintf(hex + 2 * i, 3, "%02x", raw[i]);
    return hex;
  }
  FleetCommand Sign(const std::string& line, const std::string& time, const std::string& nonce) const {
    FleetCommand c;
    c.line = line;
    c.station = "s1";
    c.user = "alice";
    c.time = time;
    c.nonce = nonce;
    const std::string text = zqfleet::SignedRequest::SignedText(c);
    unsigned char sig[64];
    size_t n = sizeof sig;
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key);
    EVP_DigestSign(ctx, sig, &n, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    EVP_MD_CTX_free(ctx);
    char hex[129];
    for (size_t i = 0; i < n; ++i) std::snprintf(hex + 2 * i, 3, "%02x", sig[i]);
    c.sig = hex;
    return c;
  }
};

constexpr double kNow = 1795000000;  // 2026-11-18T11:06:40Z
const char kStamp[] = "2026-11-18T11:06:40Z";

}  // namespace

TEST(SignedRequest, AcceptsTheKeyOwnersFreshRequestOnce) {
  TestKey alice, mallory;
  zqfleet::SignedRequest v(30);
  ASSERT_TRUE(v.AddKey("alice", alice.PublicHex()));
  std::string error;
  const FleetCommand good = alice.Sign("io set inject", kStamp, "00112233445566778899aabbccddeeff");
  EXPECT_TRUE(v.Verify(good, "s1", kNow + 29, error)) << error;
  EXPECT_FALSE(v.Verify(good, "s1", kNow + 1, error));  // replayed
  EXPECT_EQ(error, "nonce already used");

  FleetCommand tampered = alice.Sign("config get Station.Setpoint", kStamp, "0011223344556677");
  tampered.line = "config set Station.Setpoint 77";
  FleetCommand other_station = alice.Sign("status", kStamp, "1011223344556677");
  other_station.station = "s2";
  FleetCommand stranger = mallory.Sign("status", kStamp, "2011223344556677");
  FleetCommand unknown = alice.Sign("status", kStamp, "3011223344556677");
  unknown.user = "bob";
  const FleetCommand rows[] = {
      tampered, other_station, stranger, unknown,
      alice.Sign("status", "2026-11-18T11:05:50Z", "4011223344556677"),    // 50 s old
      alice.Sign("status", "2026-11-18T11:06:40", "5011223344556677"),     // no Z
      alice.Sign("status", "2026-11-18 11:06:40Z", "6011223344556677"),
      alice.Sign("status", "+026-11-18T11:06:40Z", "7011223344556677"),
      alice.Sign("status", kStamp, "short"),
      alice.Sign("status", kStamp, ""),                                     // unsigned
  };
  for (const FleetCommand& c : rows) {
    EXPECT_FALSE(v.Verify(c, "s1", kNow, error)) << c.line << " " << c.time << " " << c.nonce;
  }
  EXPECT_TRUE(v.Verify(alice.Sign("status", "2026-11-18T11:06:50.5Z", "8011223344556677"), "s1", kNow, error))
      << error;
}

TEST(SignedRequest, KeysFileIsWrittenPrivatelyAndReadStrictly) {
  ScratchDir dir;
  TestKey alice;
  const std::string pem = dir / "alice.pub", keys = dir / "users.keys";
  FILE* f = std::fopen(pem.c_str(), "w");
  PEM_write_PUBKEY(f, alice.key);
  std::fclose(f);
  std::string error;
  EXPECT_FALSE(zqfleet::SignedRequest::RegisterKey(keys, "al/ice", pem, error));
  EXPECT_FALSE(zqfleet::SignedRequest::RegisterKey(keys, "alice", keys, error));  // not a key
  ASSERT_TRUE(zqfleet::SignedRequest::RegisterKey(keys, "alice", pem, error)) << error;
  struct stat st {};
  ASSERT_EQ(stat(keys.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  zqfleet::SignedRequest v;
  ASSERT_TRUE(v.LoadKeys(keys, error)) << error;
  EXPECT_TRUE(v.Verify(alice.Sign("status", kStamp, "9011223344556677"), "s1", kNow, error)) << error;
  std::ofstream(keys, std::ios::app) << "# comment\n\nbob = 12ab\n";
  EXPECT_FALSE(v.LoadKeys(keys, error));
  EXPECT_EQ(error, keys + ":4: expected NAME = 64 hex digits of an Ed25519 public key");
}

TEST(RequestQueue, OneSendersFloodNeitherGrowsTheQueueNorCrowdsOutOthers) {
  zqdetail::RequestQueue q(64 * 1024);
  zqdetail::RequestQueue::Request r;
  r.identity = "flood";
  r.payload = std::string(900, 'x');
  int kept = 0;
  for (int i = 0; i < 20000; ++i) kept += q.Push(r) ? 1 : 0;
  EXPECT_LE(q.Bytes(), 64u * 1024);
  EXPECT_LT(kept, 20000);
  r.identity = "alice";
  r.payload = "{\"cmd\":\"status\"}";
  EXPECT_TRUE(q.Push(r));
  zqdetail::RequestQueue::Request got;
  bool alice_served = false;
  for (int i = 0; i < 2 && q.Take(got); ++i) alice_served = alice_served || got.identity == "alice";
  EXPECT_TRUE(alice_served);
}

TEST(MqttLink, QueueFileIsBoundedAndCheckedAtLoadAndNotNeededToRun) {
  ScratchDir dir;
  const std::string file = dir / "q2.queue";
  {
    // A wildcard topic at the head, another station's topic, a line with no
    // topic, and far more than the limit of good records.
    std::ofstream out(file);
    out << "R 1 zq/q2/# {\"x\":1}\nR 2 zq/other/status {\"x\":2}\nR 3 nothing\n";
    for (int i = 10; i < 5000; ++i) out << "R " << i << " zq/q2/status {\"i\":" << i << "}\n";
  }
  zqfleet::MqttSettings s;
  s.Host = "127.0.0.1";
  s.Port = 1;
  s.QueueDir = dir.path;
  s.QueueLimit = 1024;
  std::string error;
  ASSERT_TRUE(s.Resolve("q2", error)) << error;
  {
    zqfleet::MqttLink link(s, "q2");
    ASSERT_TRUE(link.Start("", error)) << error;
    auto c = link.Read();
    EXPECT_LE(c.queued_bytes, 1024u);
    EXPECT_GT(c.queued, 0u);
    std::string notice, all;
    while (link.TakeNotice(notice)) all += notice + "\n";
    EXPECT_NE(all.find("3 unusable line(s) skipped"), std::string::npos) << all;
    // While the broker is away the file is compacted as records are dropped.
    for (int i = 0; i < 5000; ++i) link.Publish("samples", zqfleet::JsonFields().Add("i", i).Text());
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_LT(st.st_size, 3 * 65536);
    link.Stop(0);
  }
  // A queue folder that cannot be made: the link runs on memory and says so.
  s.QueueDir = file + "/sub";
  zqfleet::MqttLink memory(s, "q2");
  ASSERT_TRUE(memory.Start("", error)) << error;
  memory.Publish("samples", "\"i\":1");
  EXPECT_EQ(memory.Read().queued, 1u);
  std::string notice, all;
  while (memory.TakeNotice(notice)) all += notice + "\n";
  EXPECT_NE(all.find("keeping the queue in memory"), std::string::npos) << all;
  memory.Stop(0);
}

TEST(MqttSettings, ResolveChecksRangesAndFillsDefaults) {
  zqfleet::MqttSettings s;
  std::string error;
  EXPECT_TRUE(s.Resolve("lab-7", error));
  EXPECT_EQ(s.ClientId + " " + s.TopicPrefix, "lab-7 zq/lab-7");
  s.QoS = 2;
  EXPECT_FALSE(s.Resolve("lab-7", error));
  EXPECT_NE(error.find("MQTT.QoS = 2"), std::string::npos) << error;
  s.QoS = 1;
  EXPECT_FALSE(s.Resolve("a/b", error));
  EXPECT_EQ(s.Commands, "off");
  s.Commands = "broker";  // without TLS and a login the broker's word is worth nothing
  EXPECT_FALSE(s.Resolve("lab-7", error));
  EXPECT_NE(error.find("MQTT.CAFile"), std::string::npos) << error;
  s.Commands = "signed";
  s.ReplyPrefix = "zq";  // answers could land on stations' topics
  EXPECT_FALSE(s.Resolve("lab-7", error));
  EXPECT_NE(error.find("MQTT.ReplyPrefix"), std::string::npos) << error;
}
