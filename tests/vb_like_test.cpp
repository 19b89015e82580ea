// BASIC-style string functions: tokens, quoting, trimming and small tests.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>

#include "zqcommon/functions.h"

TEST(VbLike, GetExtTokenSkipsSeparatorsInsideQuotes) {
  std::string s = "a,\"b,c\",d";
  EXPECT_EQ(GetExtToken(&s, ","), "a");
  EXPECT_EQ(GetExtToken(&s, ","), "\"b,c\"");
  EXPECT_EQ(GetExtToken(&s, ","), "d");
  EXPECT_EQ(s, "");
  EXPECT_EQ(GetExtToken(&s, ","), "");

  std::string none = " x y ";
  EXPECT_EQ(GetExtToken(&none, ";"), " x y ");
  EXPECT_EQ(none, "");

  // A quote after one backslash does not open a quoted part; after two it does.
  std::string escaped = "a\\\",b";
  EXPECT_EQ(GetExtToken(&escaped, ","), "a\\\"");
  std::string doubled = "a\\\\\",b\",c";
  EXPECT_EQ(GetExtToken(&doubled, ","), "a\\\\\",b\"");
  EXPECT_EQ(doubled, "c");

  std::string multi = "k::v::w";
  EXPECT_EQ(GetExtToken(&multi, "::"), "k");
  EXPECT_EQ(multi, "v::w");

  EXPECT_EQ(GetExtToken(nullptr, ","), "");
  std::string empty_sep = "abc";
  EXPECT_EQ(GetExtToken(&empty_sep, ""), "abc");
  EXPECT_EQ(empty_sep, "");
}

TEST(VbLike, GetTokenKeepsLeadingBlanks) {
  std::string s = "  one two";
  EXPECT_EQ(GetToken(&s), "  one");
  EXPECT_EQ(s, "two");
  EXPECT_EQ(GetToken(&s), "two");
  EXPECT_EQ(s, "");

  std::string q = "\"a b\"  c";
  EXPECT_EQ(GetToken(&q), "\"a b\"");
  EXPECT_EQ(q, "c");

  std::string trailing = "word \t ";
  EXPECT_EQ(GetToken(&trailing), "word");
  EXPECT_EQ(trailing, "");

  std::string blanks = "   ";
  EXPECT_EQ(GetToken(&blanks), "   ");
  EXPECT_EQ(blanks, "");
  EXPECT_EQ(GetToken(nullptr), "");
}

TEST(VbLike, TrimmingNeverReadsBeforeTheStart) {
  std::string blanks = "  \t ";
  EXPECT_EQ(trim(blanks), "");
  for (const char* arg : {"", " ", "\t\n\r\v\f "}) {
    EXPECT_EQ(Trim(arg), "");
    EXPECT_EQ(Clean(arg), "");
    EXPECT_EQ(LTrim(arg), "");
    EXPECT_EQ(RTrim(arg), "");
    EXPECT_EQ(RClean(arg), "");
    EXPECT_EQ(LClean(arg), "");
  }
  EXPECT_EQ(LTrim("  a b  "), "a b  ");
  EXPECT_EQ(RTrim("  a b  "), "  a b");
  EXPECT_EQ(Trim("\xA0x\xA0"), "\xA0x\xA0");  // bytes above 127 are not blanks

  std::string text = "\r\nabc\r\n";
  EXPECT_EQ(chop(text), "abc");
  std::string only_ends = "\r\n\n\r";
  EXPECT_EQ(chop(only_ends), "");
  std::string inner = "a\r\nb";
  EXPECT_EQ(chop(inner), "a\r\nb");
}

TEST(VbLike, QuoteEscapesControlsButNotQuotesOrBackslashes) {
  EXPECT_EQ(quote("a\tb"), "\"a\\tb\"");
  EXPECT_EQ(quote(std::string("\0\a\b\n\v\f\r", 7)), "\"\\0\\a\\b\\n\\v\\f\\r\"");
  EXPECT_EQ(quote("\x1b"), "\"\\33\"");
  EXPECT_EQ(quote("say \"hi\" \\"), "\"say \"hi\" \\\"");
  EXPECT_EQ(quote("\xE4"), "\"\xE4\"");
}

TEST(VbLike, DequoteDecodesEscapesAndOctalNumbers) {
  EXPECT_EQ(dequote("\"x\\ty\""), "x\ty");
  EXPECT_EQ(dequote("\\101"), "A");
  EXPECT_EQ(dequote("\\0"), std::string("\0\0", 2));  // named escape plus the octal read
  EXPECT_EQ(dequote("a\\"), "a");                      // trailing backslash dropped
  EXPECT_EQ(dequote("\\q"), "");                       // unknown escape gives nothing
  EXPECT_EQ(dequote("\\\\n"), "\\n");
  EXPECT_EQ(dequote("\\\""), "");  // the decoded quote is then stripped as leading quote
  EXPECT_EQ(dequote(""), "");
  EXPECT_EQ(dequote("\"\""), "");
  EXPECT_EQ(dequote("\"only"), "only");
}

TEST(VbLike, QuoteAndBraceChecks) {
  EXPECT_TRUE(IsQuoted("  \"x\""));
  EXPECT_FALSE(IsQuoted("x\""));
  EXPECT_FALSE(IsQuoted("   "));
  EXPECT_TRUE(quote_check(" \"a\" \"b\""));
  EXPECT_FALSE(quote_check("\"a"));
  EXPECT_TRUE(quote_check("\"a\\\"\""));
  EXPECT_FALSE(brace_check("f(a[1])"));
  EXPECT_TRUE(brace_check(")("));
  EXPECT_FALSE(brace_check("f(\")\")"));
  EXPECT_TRUE(brace_check("{[}"));
}

TEST(VbLike, ReplaceNeverSearchesInsertedText) {
  std::string s = "banana";
  EXPECT_EQ(replace(s, "a", "aa"), "baanaanaa");
  EXPECT_EQ(Replace("x-y-z", "-", ""), "xyz");
  EXPECT_EQ(Replace("abc", "", "z"), "abc");
}

TEST(VbLike, NumbersAndText) {
  for (const char* yes : {"0x10", "017", "-5", "1.5e3", " 7"}) EXPECT_TRUE(IsNumeric(yes)) << yes;
  for (const char* no : {"", "1,5", "12 ", "x"}) EXPECT_FALSE(IsNumeric(no)) << no;
  EXPECT_TRUE(IsText("abc"));
  for (const char* no : {"Abc", "", "ab1", "a b", "\xE4"}) EXPECT_FALSE(IsText(no)) << no;
  EXPECT_EQ(itostr(-42), "-42");
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
    for (int m = 2; m <= month && m <= 12; ++m) {
      result += ((m - 1 == 2 && leap) ? 29 : len[m - 2]) * 86400L;
    }
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
