// The station web page's parts that need no server: what clients send, taken
// apart, and the session store.
#include <gtest/gtest.h>

#include "../../apps/station/web_input.h"
#include "../../apps/station/web_session.h"

using namespace station::web;

TEST(WebInput, FormsAndQueries) {
  const auto f = parse_form("user=ada&password=a%2Bb+c%zz%4&user=eve&&flag&%3d=%3D");
  EXPECT_EQ(f.at("user"), "ada");  // the first of a repeated name
  EXPECT_EQ(f.at("password"), "a+b c%zz%4");  // bad escapes kept as they are
  EXPECT_EQ(f.at("flag"), "");
  EXPECT_EQ(f.at("="), "=");
  std::string many;
  for (int i = 0; i < 100; ++i) many += "k" + std::to_string(i) + "=v&";
  EXPECT_EQ(parse_form(many).size(), 32u);
  EXPECT_TRUE(parse_form("").empty());
}

TEST(WebInput, Cookies) {
  EXPECT_EQ(cookie_value("a=1; zqsid=abc; b=2", "zqsid"), "abc");
  EXPECT_EQ(cookie_value("xzqsid=bad;zqsid=good", "zqsid"), "good");
  EXPECT_EQ(cookie_value("zqsidx=1; zqsi=2", "zqsid"), "");
  EXPECT_EQ(cookie_value("", "zqsid"), "");
}

TEST(WebInput, CommandBodies) {
  std::string line, error;
  EXPECT_TRUE(parse_command("{\"command\": \"ack T1 checked the valve\"}", line, error));
  EXPECT_EQ(line, "ack T1 checked the valve");
  for (const char* bad : {"", "[]", "{\"command\": 5}", "{\"cmd\": \"x\"}", "{\"command\": \"\"}",
                          "{\"command\": \"io set 4\\nconfig save\"}", "{\"command\": \"a\\u0000b\"}", "{\"command\""}) {
    EXPECT_FALSE(parse_command(bad, line, error)) << bad;
    EXPECT_FALSE(error.empty());
  }
  EXPECT_FALSE(parse_command("{\"command\": \"" + std::string(5000, 'x') + "\"}", line, error));
}

TEST(WebInput, Subscriptions) {
  std::vector<std::string> names;
  bool io = false;
  EXPECT_TRUE(parse_subscribe("{\"subscribe\": [\"T1\", \"P1\"], \"io\": true}", names, io));
  EXPECT_EQ(names, (std::vector<std::string>{"T1", "P1"}));
  EXPECT_TRUE(io);
  EXPECT_FALSE(parse_subscribe("{\"subscribe\": [\"T1\", 7]}", names, io));
  EXPECT_FALSE(parse_subscribe("{\"io\": 1}", names, io));
  EXPECT_FALSE(parse_subscribe("{}", names, io));
  EXPECT_FALSE(parse_subscribe("{\"subscribe\": [\"" + std::string(65, 'x') + "\"]}", names, io));
}

TEST(WebInput, Times) {
  int64_t us = 0;
  ASSERT_TRUE(parse_time_us("1700000000.5", us));
  EXPECT_EQ(us, 1700000000500000);
  ASSERT_TRUE(parse_time_us("2026-11-25T19:00:00Z", us));
  EXPECT_EQ(us, 1795633200000000);
  ASSERT_TRUE(parse_time_us("2026-11-25T19:00", us));
  EXPECT_EQ(us, 1795633200000000);
  for (const char* bad : {"", "x", "-5", "1e300", "2026-11-25", "2026-11-25T19:00:00+01:00", "2026-13-45T99:00Z"}) {
    EXPECT_FALSE(parse_time_us(bad, us)) << bad;
  }
}

TEST(WebSessions, IdsTokensTimeOutAndCap) {
  WebSessions store(2, 1000);
  WebSession a, b, c, found;
  ASSERT_TRUE(store.Open("ada", 3, "127.0.0.1", 0, a));
  EXPECT_EQ(a.id.size(), 64u);
  EXPECT_EQ(a.csrf.size(), 64u);
  EXPECT_NE(a.id, a.csrf);
  ASSERT_TRUE(store.Open("otto", 2, "127.0.0.1", 10, b));
  EXPECT_NE(a.id, b.id);
  ASSERT_TRUE(store.Find(a.id, 900, found));  // renews a
  EXPECT_EQ(found.user, "ada");
  EXPECT_TRUE(same_token(found.csrf, a.csrf));
  EXPECT_FALSE(same_token(found.csrf, b.csrf));
  EXPECT_FALSE(same_token("", ""));
  ASSERT_TRUE(store.Open("vic", 1, "127.0.0.2", 950, c));  // the cap drops the least recently active (b)
  EXPECT_FALSE(store.Find(b.id, 950, found));
  EXPECT_TRUE(store.Find(a.id, 1800, found));   // idle 900 ms: still there
  EXPECT_FALSE(store.Find(c.id, 1951, found));  // idle 1001 ms: gone
  EXPECT_EQ(store.Count(), 1u);
  store.Close(a.id);
  EXPECT_FALSE(store.Find(a.id, 1800, found));
  EXPECT_EQ(session_cookie("ab"), "zqsid=ab; Path=/; HttpOnly; Secure; SameSite=Strict");
}
