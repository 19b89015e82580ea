// Formatting, case handling, renderers, file names and clocks.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <tuple>

#include "zqcommon/functions.h"

TEST(StringHelp, FormatKeepsThe128CharacterBoundary) {
  const std::string s127(127, 'x'), s128(128, 'y'), s129(129, 'z');
  EXPECT_EQ(Format("%s", s127.c_str()), s127);
  EXPECT_EQ(Format("%s", s128.c_str()), s128.substr(0, 127) + '\0');  // NUL in place of the 128th
  EXPECT_EQ(Format("%s", s129.c_str()), s129);

  const std::string big(1 << 20, 'b');  // results up to and beyond 1 MiB come out whole
  EXPECT_EQ(Format("<%s>", big.c_str()).size(), big.size() + 2);

  std::string out = "old";
  EXPECT_EQ(&Format(out, "%d-%s", 7, "x"), &out);
  EXPECT_EQ(out, "7-x");
}

TEST(StringHelp, ListsBitsAndLines) {
  EXPECT_EQ(strlist({1, -2, 3}), "1, -2, 3");
  EXPECT_EQ(strlist({}), "");
  EXPECT_EQ(binstr(5, 3), "0101");
  EXPECT_EQ(binstr(0), "");
  EXPECT_EQ(binstr(0x80000000u), "1" + std::string(31, '0'));
  EXPECT_EQ(binstr(1, 33), std::string(33, '0') + "1");

  // Up to n characters -> where the split falls and the lines before it.
  const struct { size_t n, at; int lines; } splits[] = {{4, 4, 2}, {0, std::string::npos, 0}, {100, 7, 3}};
  for (const auto& s : splits) {
    int lines = -1;
    EXPECT_EQ(count_split_lines("a\r\nb\r\nc\r\n", s.n, lines), s.at) << s.n;
    EXPECT_EQ(lines, s.lines) << s.n;
  }
}

TEST(StringHelp, CoolHeaderFramesAndCentres) {
  EXPECT_EQ(cool_header("ab", 1, 0), "******\r\n* ab *\r\n******");
  EXPECT_EQ(cool_header("ab\nabc", 1, 9), "*********\r\n*  ab   *\r\n*  abc  *\r\n*********");
  // Style 0: the width grows until the inner width is a multiple of the fill.
  EXPECT_EQ(cool_header("abc\r\n", 0, 0), " /\\/\\/\\ \r\n< abc  >\r\n \\/\\/\\/ ");
  EXPECT_EQ(cool_header("x", 7, 0), "\r\nx\r\n");  // no frame, and no crash
}

TEST(StringHelp, CaseHandling) {
  std::string s = "aBc1";
  EXPECT_EQ(++s, "ABC1");
  EXPECT_EQ(--s, "abc1");
  s = "aBc\xE4";
  EXPECT_EQ(!s, "AbC\xE4");
  EXPECT_TRUE(std::string("Abc") ^= std::string("aBC"));
  EXPECT_FALSE(std::string("Abc") ^= std::string("aBCd"));
  EXPECT_EQ(ifind("Hello World", "world", 0), 6u);
  EXPECT_EQ(ifind("Hello World", "o", 5), 7u);
  EXPECT_EQ(ifind("Hello", "xyz", 0), std::string::npos);
}

TEST(StringHelp, FilenameParts) {
  // Text -> name, extension, base name, path, absolute; blanks around are cut.
  const struct { const char *in, *name, *ext, *base, *path; bool absolute; } rows[] = {
      {" /etc/app/x.tar.gz ", "x.tar.gz", ".gz", "x.tar", "/etc/app/", true},
      {"dir.d/README", "README", "", "README", "dir.d/", false}, {"", "", "", "", "", false}};
  for (const auto& r : rows) {
    Filename f(r.in);
    EXPECT_EQ(f.Name() + "|" + f.Ext() + "|" + f.Basename() + "|" + f.Path(),
              std::string(r.name) + "|" + r.ext + "|" + r.base + "|" + r.path);
    EXPECT_EQ(f.IsAbsolute(), r.absolute) << r.in;
  }
  EXPECT_EQ(std::string(Filename(" /etc/app/x.tar.gz ")), "/etc/app/x.tar.gz");
}

TEST(StringHelp, CalendarAndClocks) {
  const std::pair<double, const char*> stamps[] = {
      {0, "01.01.1970 00:00:00.000"}, {951782400.25, "29.02.2000 00:00:00.250"},
      {-86400, "31.12.1969 00:00:00.000"}, {59.9996, "01.01.1970 00:01:00.000"},
      {3599.0, "01.01.1970 00:59:59.000"}};
  for (const auto& [t, text] : stamps) EXPECT_EQ(mktimestr(t), text) << t;
  EXPECT_FALSE(mktimestr(NAN).empty());
  EXPECT_FALSE(mktimestr(1e300).empty());

  // The calendar agrees with the C library over a spread of days.
  for (long t = 0; t < 4102444800L; t += 86400L * 97 + 3671) {
    int y, mo, d, h, mi;
    double sec;
    split_unix_time(static_cast<double>(t), y, mo, d, h, mi, sec);
    const time_t tt = t;
    struct tm tm {};
    gmtime_r(&tt, &tm);
    ASSERT_EQ(std::make_tuple(y, mo, d, h, mi),
              std::make_tuple(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min)) << t;
    ASSERT_NEAR(sec, tm.tm_sec, 1e-3) << t;
  }

  EXPECT_NEAR(GetUTC(), static_cast<double>(GetLLTicks()) / 1e6, 1.0);
  EXPECT_NEAR(GetUTC(), get_systime(), 1.0);
  EXPECT_NEAR(GetMTickCount() * 1000.0, GetUTickCount(), 1e6);
}
