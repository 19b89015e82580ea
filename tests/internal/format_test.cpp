// The log's formatter against the C library's vsnprintf: the same return
// value and the same bytes for random formats and values, for every buffer size.
#include <gtest/gtest.h>

#include <cfenv>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>

#include "support/format_call.h"

namespace {

template <typename... Args>
void expect_same(size_t size, const char* format, Args... args) {
  char want[1200], got[1200];
  std::memset(want, 'W', sizeof want);
  std::memset(got, 'W', sizeof got);
  const int n_want = std::snprintf(want, size, format, args...);
  const int n_got = format_call(got, size, format, args...);
  ASSERT_EQ(0, std::memcmp(want, got, sizeof want)) << format << " size " << size << ": \"" << want
                                                    << "\" vs \"" << got << '"';
  ASSERT_EQ(n_want, n_got) << format;
}

bool quick() { return std::getenv("ZQ_SANITIZE") != nullptr && *std::getenv("ZQ_SANITIZE") != 0; }

// Doubles that hit the rounding paths: ties at every decimal place, values
// next to powers of ten, random bit patterns and the special values.
double random_double(std::mt19937_64& rng) {
  static const double special[] = {0.0, -0.0, INFINITY, -INFINITY, NAN, DBL_MIN, DBL_TRUE_MIN, DBL_MAX,
                                   0.5, 1.5, 2.5, 9.5, 0.05, 0.125, 999999.5, 1e22, 1e23};
  const uint64_t r = rng();
  double any;  // any bit pattern
  std::memcpy(&any, &r, sizeof any);
  const double power = std::pow(10.0, static_cast<int>(r % 40) - 20);
  switch (rng() % 8) {
    case 0: return static_cast<double>(static_cast<int64_t>(r % 2000001) - 1000000) / 1000.0;
    case 1: return (static_cast<double>(r % 100000) + 0.5) / std::pow(10.0, rng() % 8);
    case 2: return std::nextafter(power, rng() % 2 ? 0.0 : 1e300);
    case 3: return any;
    case 4: return special[r % (sizeof special / sizeof special[0])];
    case 5: return std::ldexp(static_cast<double>(r % 1000003), static_cast<int>(rng() % 120) - 60);
    default: return (static_cast<double>(r % 20000000) - 1e7) * std::pow(10.0, static_cast<int>(rng() % 12) - 8);
  }
}

int64_t random_integer(std::mt19937_64& rng) {
  const int64_t edges[] = {0, 1, -1, 9, 10, 99, 100, INT_MAX, INT_MIN, LLONG_MAX, LLONG_MIN, 255, 65535};
  switch (rng() % 3) {
    case 0: return edges[rng() % (sizeof edges / sizeof edges[0])];
    case 1: return static_cast<int64_t>(rng() % 2000) - 1000;
    default: return static_cast<int64_t>(rng());
  }
}

// One random conversion with its arguments, surrounded by text.
void random_case(std::mt19937_64& rng) {
  static const char* const kFlags[] = {"", "", "-", "+", " ", "#", "0", "-0", "+0", "# ", "#0", "-+#0 "};
  static const char* const kWidth[] = {"", "", "1", "5", "12", "30", "*"};
  static const char* const kPrecision[] = {"", "", ".", ".0", ".1", ".3", ".6", ".10", ".17", ".25", ".*"};
  static const char* const kIntLength[] = {"", "", "hh", "h", "l", "ll", "z", "j", "t"};
  static const char* const kConv = "diuxXocsfFeEgG";
  const char conv = kConv[rng() % std::strlen(kConv)];
  const char *const width = kWidth[rng() % 7], *const precision = kPrecision[rng() % 11];
  const char* length = "";
  if (std::strchr("diuxXo", conv) != nullptr) length = kIntLength[rng() % 9];
  if (std::strchr("fFeEgG", conv) != nullptr && rng() % 4 == 0) length = "l";
  std::string format = std::string(rng() % 2 ? "value " : "") + "%" + kFlags[rng() % 12] + width +
                       precision + length + conv + (rng() % 2 ? " end %%" : "");
  const int w = static_cast<int>(rng() % 41) - 20, p = static_cast<int>(rng() % 30) - 5;
  const size_t sizes[] = {1024, 1024, 1024, 0, 1, 7, 20}, size = sizes[rng() % 7];
  const char* f = format.c_str();
  const bool star_w = *width == '*', star_p = std::strcmp(precision, ".*") == 0;
  auto run = [&](auto value) {
    if (star_w && star_p) return expect_same(size, f, w, p, value);
    if (star_w || star_p) return expect_same(size, f, star_w ? w : p, value);
    expect_same(size, f, value);
  };
  const int64_t i = random_integer(rng);
  if (std::strchr("fFeEgG", conv) != nullptr) {
    run(random_double(rng));
  } else if (conv == 's') {
    const char* const texts[] = {"", "a", "sensor", "a longer text of forty characters, about"};
    run(texts[rng() % 4]);
  } else if (conv == 'c') {
    run(static_cast<int>('A' + rng() % 26));
  } else if (*length == 0 || std::strcmp(length, "h") == 0 || std::strcmp(length, "hh") == 0) {
    run(static_cast<int>(i));
  } else {
    run(static_cast<long long>(i));  // l, ll, z, j and t are 64 bits here
  }
}

TEST(Format, RandomConversionsMatchVsnprintf) {
  std::mt19937_64 rng(20261123);
  const int rounds = quick() ? 20000 : 300000;
  for (int k = 0; k < rounds && !testing::Test::HasFatalFailure(); ++k) random_case(rng);
}

TEST(Format, RoundingAndLayoutBoundaries) {
  const struct { const char* format; double value; } cases[] = {
      {"%.0f", 0.5},        {"%.0f", 1.5},       {"%.0f", 2.5},       {"%.2f", 1.005},
      {"%.3f", 2.0005},     {"%.1f", 0.25},      {"%.1f", -0.05},     {"%f", 1e19},
      {"%f", 1.8446744073709552e19}, {"%.20f", 0.1}, {"%.22f", 1e-22},  {"%e", 9.9999995},
      {"%.0e", 9.5},        {"%.16e", 1.0 / 3},  {"%g", 100000},      {"%g", 1000000},
      {"%g", 0.0001},       {"%g", 0.00001},     {"%g", 999999.5},    {"%#g", 1.0},
      {"%#.0e", 1.0},       {"%#.0f", 3.0},      {"%.0g", 0.5},       {"%G", 1e-300},
      {"%e", 5e-324},       {"%08.3f", -1.5},    {"%-9.2e|", 3.14159}, {"%+ .3g", 2.0},
  };
  for (const auto& c : cases) expect_same(64, c.format, c.value);
  // Another rounding mode goes to the C library.
  ASSERT_EQ(0, std::fesetround(FE_UPWARD));
  expect_same(64, "%.2f %e", 1.001, 1.0 / 3);
  std::fesetround(FE_TONEAREST);
}

TEST(Format, EverythingElseGoesToTheCLibrary) {
  int n = 0;
  char buf[64];
  format_call(buf, sizeof buf, "%2$s %1$d%3$n", 7, "x", &n);
  EXPECT_STREQ("x 7", buf);
  EXPECT_EQ(3, n);
  expect_same(64, "%p %a %Lf %ls", static_cast<void*>(buf), 0.1, 1.0L, L"w");
  expect_same(64, "%s|%.3s|%5.1s", static_cast<const char*>(nullptr), static_cast<const char*>(nullptr), "q");
  expect_same(64, "%'d %1000000d %", 1234567, 1);
  const std::string wide(1500, 'x');  // longer than the buffer
  expect_same(1024, "%s and %d", wide.c_str(), 5);
}

}  // namespace
