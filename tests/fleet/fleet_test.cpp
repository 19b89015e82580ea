// The fleet library without a broker: request payloads, JSON text, and the
// store-and-forward queue's bound and its file across a restart.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/scratch_dir.h"
#include "zqfleet/FleetCommand.h"
#include "zqfleet/JsonFields.h"
#include "zqfleet/MqttLink.h"

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
  };
  FleetCommand c;
  std::string error;
  for (const auto& r : rows) {
    error.clear();
    EXPECT_EQ(FleetCommand::Parse(r.payload, "s1", c, error), r.ok) << r.payload << " " << error;
    EXPECT_EQ(r.ok ? c.line : std::string(), r.line) << r.payload;
    EXPECT_EQ(error.empty(), r.ok) << r.payload;
  }
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
}
