// Named enumerations and their sets.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "zqcommon/ew.h"
#include "zqcomponents/types.h"

using namespace zqcommon;
using Mode = SuperEnum<Config_DataAcessMode>;
using Modes = SuperEnumSet<Config_DataAcessMode>;
using Type = SuperEnum<Config_DataTypes>;

TEST(SuperEnum, TextValueAndValidity) {
  Type t = cfg_CHARS;  // no table row
  EXPECT_FALSE(t.isvalid());
  EXPECT_EQ(std::string(t) + "|" + t.Description(), "#undefined Enum value|#undefined Enum value");
  EXPECT_EQ(static_cast<Config_DataTypes>(t), cfg_SELF);  // beyond the table: the last row
  t = cfg_SELF;
  EXPECT_EQ(std::string(t) + "|" + t.Description(), "Config_Data|ConfigData");

  Mode m;
  EXPECT_EQ(static_cast<Config_DataAcessMode>(m), cfg_LOAD);  // default: the first row
  EXPECT_TRUE(m = std::string("W"));
  EXPECT_EQ(static_cast<Config_DataAcessMode>(m), cfg_WRITE);
  EXPECT_FALSE(m = std::string("r"));  // case matters
  EXPECT_FALSE(m.isvalid());
  EXPECT_EQ(static_cast<Config_DataAcessMode>(m), cfg_LOAD);  // below the table: the first row
  EXPECT_FALSE(m = std::string(" W"));

  components::Severity s = components::WARNING;
  EXPECT_EQ(std::string(s) + "|" + s.Description(), "W|WARNING");
  EXPECT_TRUE(s > components::INFO && s < components::Severity(components::PANIC));
  EXPECT_TRUE(s == components::WARNING && s != components::ERROR);
}

TEST(SuperEnum, SteppingAndIteration) {
  Mode m = cfg_WRITE;
  ++m;
  EXPECT_FALSE(m.isvalid());
  ++m;  // stays on the end position
  --m;
  EXPECT_EQ(static_cast<Config_DataAcessMode>(m), cfg_WRITE);
  Mode first = cfg_LOAD;
  EXPECT_EQ(static_cast<Config_DataAcessMode>(first--), cfg_LOAD);
  EXPECT_FALSE(first.isvalid());

  std::string forward, backward;
  for (auto it = Mode::begin(); it != Mode::end(); ++it) forward += std::string(*it);
  for (auto it = Mode::rbegin(); it != Mode::rend(); ++it) backward += std::string(*it);
  EXPECT_EQ(forward, "LSRW");
  EXPECT_EQ(backward, "WRSL");

  // resolve(): 0 reads the text, 1 writes it, anything else is refused.
  std::string text = "x";
  EXPECT_TRUE(Mode::resolve(0, &m, text) && text == "W");
  text = "S";
  EXPECT_TRUE(Mode::resolve(1, &m, text));
  EXPECT_EQ(static_cast<Config_DataAcessMode>(m), cfg_SAVE);
  EXPECT_FALSE(Mode::resolve(2, &m, text));
}

TEST(SuperEnumSet, TextAndSetOperations) {
  Modes set;
  EXPECT_EQ(std::string(set), "");
  set += cfg_WRITE;
  set += cfg_READ;
  EXPECT_EQ(std::string(set), "R,W");
  EXPECT_TRUE(set & cfg_WRITE);
  EXPECT_FALSE(Modes() & cfg_WRITE);
  EXPECT_EQ(static_cast<unsigned long long>(set), 0xCULL);

  // Pieces split at ',' or '|'; unknown ones are skipped, but the last piece
  // decides the answer.
  const std::tuple<const char*, bool, const char*> parses[] = {
      {"R|W", true, "R,W"}, {"R,,W", true, "R,W"}, {"W,R", true, "R,W"},
      {"R,X,W", true, "R,W"}, {"R,W,X", false, "R,W"}, {"", true, ""}};
  for (const auto& [text, ok, shown] : parses) {
    Modes parsed;
    EXPECT_EQ(parsed = std::string(text), ok) << text;
    EXPECT_EQ(std::string(parsed), shown) << text;
  }

  Modes all = Config_Data_INIT.FULL;
  EXPECT_EQ(std::string(all), "L,S,R,W");
  EXPECT_TRUE(all -= std::string("S|R"));
  EXPECT_EQ(std::string(all), "L,W");
  EXPECT_FALSE(all += std::string("Q"));
  EXPECT_EQ(std::string(all), "L,W");
  EXPECT_EQ(std::string(all & Config_Data_INIT.LS), "L");
  EXPECT_EQ(std::string(all ^ Config_Data_INIT.RW), "L,R");
  EXPECT_EQ(std::string((~all) & Config_Data_INIT.FULL), "S,R");
  all.clear();
  EXPECT_FALSE(static_cast<bool>(all));

  std::vector<std::string> visited;
  for (Mode m : Config_Data_INIT.RW) visited.push_back(m);
  EXPECT_EQ(visited, (std::vector<std::string>{"R", "W"}));

  // resolve(): 1 sets from the text, 2 adds, 3 removes, 0 reads, others refuse.
  Modes r;
  for (const auto& [op, in] : {std::pair<int, const char*>{1, "L"}, {2, "S"}, {0, ""}, {3, "L"}}) {
    std::string text = in;
    EXPECT_TRUE(Modes::resolve(op, &r, text)) << op;
    EXPECT_TRUE(op != 0 || text == "L,S") << text;
  }
  EXPECT_EQ(std::string(r), "S");
  std::string text;
  EXPECT_FALSE(Modes::resolve(4, &r, text));
}
