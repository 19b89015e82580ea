// BASIC-style string functions: tokens, quoting, trimming and small tests.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <tuple>

#include "zqcommon/functions.h"

TEST(VbLike, TokensSkipSeparatorsInsideQuotes) {
  // Input, separator -> first token and what is left. A quote after one
  // backslash does not open a quoted part; after two it does.
  const struct { const char *in, *sep, *token, *rest; } ext[] = {
      {"a,\"b,c\",d", ",", "a", "\"b,c\",d"}, {"\"b,c\",d", ",", "\"b,c\"", "d"}, {"d", ",", "d", ""},
      {"", ",", "", ""}, {" x y ", ";", " x y ", ""}, {"a\\\",b", ",", "a\\\"", "b"},
      {"a\\\\\",b\",c", ",", "a\\\\\",b\"", "c"}, {"k::v::w", "::", "k", "v::w"}, {"abc", "", "abc", ""},
  };
  for (const auto& c : ext) {
    std::string s = c.in;
    EXPECT_EQ(GetExtToken(&s, c.sep), c.token) << c.in;
    EXPECT_EQ(s, c.rest) << c.in;
  }
  EXPECT_EQ(GetExtToken(nullptr, ","), "");

  // GetToken keeps leading blanks and splits at blanks outside quotes.
  const std::pair<const char*, const char*> plain[][2] = {
      {{"  one two", "  one"}, {"two", ""}}, {{"\"a b\"  c", "\"a b\""}, {"c", ""}},
      {{"word \t ", "word"}, {"", ""}},     {{"   ", "   "}, {"", ""}}};
  for (const auto& c : plain) {
    std::string s = c[0].first;
    EXPECT_EQ(GetToken(&s), c[0].second) << c[0].first;
    EXPECT_EQ(s, c[1].first) << c[0].first;
  }
  EXPECT_EQ(GetToken(nullptr), "");
}

TEST(VbLike, TrimmingNeverReadsBeforeTheStart) {
  std::string blanks = "  \t ";
  EXPECT_EQ(trim(blanks), "");
  for (const char* arg : {"", " ", "\t\n\r\v\f "}) {
    for (auto f : {Trim, Clean, LTrim, RTrim, RClean, LClean}) EXPECT_EQ(f(arg), "") << arg;
  }
  EXPECT_EQ(LTrim("  a b  "), "a b  ");
  EXPECT_EQ(RTrim("  a b  "), "  a b");
  EXPECT_EQ(Trim("\xA0x\xA0"), "\xA0x\xA0");  // bytes above 127 are not blanks
  for (const auto& [in, out] : {std::pair<std::string, std::string>{"\r\nabc\r\n", "abc"},
                                {"\r\n\n\r", ""}, {"a\r\nb", "a\r\nb"}}) {
    std::string text = in;
    EXPECT_EQ(chop(text), out);
  }
}

TEST(VbLike, QuotingBothWays) {
  // quote escapes controls but not quotes, backslashes or high bytes.
  EXPECT_EQ(quote(std::string("a\t\0\a\b\n\v\f\r", 9)), "\"a\\t\\0\\a\\b\\n\\v\\f\\r\"");
  EXPECT_EQ(quote("\x1f"), "\"\\37\"");  // the last control character
  EXPECT_EQ(quote("say \"hi\" \\"), "\"say \"hi\" \\\"");
  EXPECT_EQ(quote("\xE4"), "\"\xE4\"");
  // dequote: a named escape is followed by an octal read; a trailing backslash
  // and unknown escapes give nothing; a decoded quote is then stripped.
  const std::pair<const char*, std::string> back[] = {
      {"\"x\\ty\"", "x\ty"}, {"\\101", "A"}, {"\\0", std::string("\0\0", 2)}, {"a\\", "a"},
      {"\\q", ""}, {"\\\\n", "\\n"}, {"\\\"", ""}, {"", ""}, {"\"\"", ""}, {"\"only", "only"}};
  for (const auto& [in, out] : back) EXPECT_EQ(dequote(in), out) << in;

  // brace_check answers true for a fault.
  using Check = bool (*)(const std::string&);
  const std::tuple<Check, const char*, bool> checks[] = {
      {IsQuoted, "  \"x\"", true},       {IsQuoted, "x\"", false},         {IsQuoted, "   ", false},
      {quote_check, " \"a\" \"b\"", true}, {quote_check, "\"a", false},      {quote_check, "\"a\\\"\"", true},
      {brace_check, "f(a[1])", false},   {brace_check, ")(", true},         {brace_check, "f(\")\")", false},
      {brace_check, "{[}", true}};
  for (const auto& [check, text, want] : checks) EXPECT_EQ(check(text), want) << text;
}

TEST(VbLike, ReplaceNumbersAndText) {
  std::string s = "banana";
  EXPECT_EQ(replace(s, "a", "aa"), "baanaanaa");  // inserted text is not searched
  EXPECT_EQ(Replace("x-y-z", "-", ""), "xyz");
  EXPECT_EQ(Replace("abc", "", "z"), "abc");
  for (const char* yes : {"0x10", "017", "-5", "1.5e3", " 7"}) EXPECT_TRUE(IsNumeric(yes)) << yes;
  for (const char* no : {"", "1,5", "12 ", "x"}) EXPECT_FALSE(IsNumeric(no)) << no;
  EXPECT_TRUE(IsText("abc"));
  for (const char* no : {"Abc", "", "ab1", "a b", "\xE4"}) EXPECT_FALSE(IsText(no)) << no;
  EXPECT_EQ(itostr(INT_MIN), "-2147483648");
  EXPECT_FALSE(Like("a", "a"));
  EXPECT_EQ(dehex("41"), "");
}

// The year loop exactly as it has always run, to check the closed form.
static long make_sec_loop(int year, int month, int day) {
  static const long len[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  long result = 0;
  for (int y = 1970; y < year; ++y) {
    const bool leap = y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
    day = std::abs(day);
    month = std::abs(month);
    if (day != 0) result = (day - 1) * 86400L;
    for (int m = 2; m <= month && m <= 12; ++m) result += ((m - 1 == 2 && leap) ? 29 : len[m - 2]) * 86400L;
  }
  return result;
}

TEST(VbLike, MakeSecCountsNoWholeYears) {
  EXPECT_EQ(make_sec(1970, 5, 3), 0);
  EXPECT_EQ(make_sec(1971, 3, 2), 5184000);
  EXPECT_EQ(make_sec(1900, 3, 2), 0);
  for (int year : {1971, 1973, 2001, 2101, 2401})
    for (int month : {-3, 0, 1, 2, 3, 12, 14})
      for (int day : {-2, 0, 1, 29})
        EXPECT_EQ(make_sec(year, month, day), make_sec_loop(year, month, day))
            << year << "-" << month << "-" << day;
  EXPECT_GT(make_sec(INT_MAX, 12, 0), 0);  // closed form: no hour-long loop
}
