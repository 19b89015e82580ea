#include "zqcommon/variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace {

std::string text(const Variant& v) {
  std::string s;
  v.tostr(s);
  return s;
}

TEST(Variant, TextFormsLengthsAndNumbers) {
  // The text form and length() (-1: not checked) of each kind.
  const double inf = std::numeric_limits<double>::infinity();
  const struct { Variant v; const char* text; int length; } rows[] = {
      {Variant(), "NULL", 5}, {Variant(-42), "-42", 0}, {Variant(0), "0", 0},
      {Variant(1000), "1000", 3}, {Variant(1001), "1001", 4},
      {Variant(9007199254740993LL), "9007199254740993", -1}, {Variant(2.0), "2.0", -1},
      {Variant(0.25), "0.25", -1}, {Variant(-1.5), "-1.5", -1}, {Variant(150.0), "150.0", 20},
      {Variant(inf), "NULL", -1}, {Variant(std::nan("")), "NULL", -1},
      {Variant(VAL_DATE), "00.00.0000 00:00:00", 20}, {Variant(std::string("hello")), "hello", 5},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(text(r.v), r.text);
    EXPECT_TRUE(r.length < 0 || r.v.length() == r.length) << r.text << " length " << r.v.length();
  }
  EXPECT_EQ(text(Variant(1e300)).size(), 301u + 2);  // every digit, then ".0"
  EXPECT_EQ(static_cast<std::string>(Variant(7)), "7");

  // Text parses as a 32-bit long, in any base the prefix names; reals are
  // cut toward zero and saturate.
  const auto str = [](const char* s) { return Variant(std::string(s)); };
  const std::pair<Variant, long long> ints[] = {
      {str("0x1F"), 31}, {str("017"), 15}, {str("12abc"), 12}, {str("volts"), 0},
      {str("99999999999"), 2147483647}, {str("-99999999999"), -2147483648LL}, {Variant(-2.9), -2},
      {Variant(1e30), std::numeric_limits<long long>::max()}, {Variant(), 0}};
  for (const auto& [v, want] : ints) EXPECT_EQ(static_cast<long long>(v), want) << text(v);
  EXPECT_EQ(static_cast<int>(Variant(5LL + (1LL << 32))), 5);
  EXPECT_EQ(static_cast<unsigned int>(Variant(-1)), 0xFFFFFFFFu);
  EXPECT_DOUBLE_EQ(static_cast<double>(Variant(std::string("2.5e3"))), 2500.0);
  EXPECT_DOUBLE_EQ(static_cast<double>(Variant(VAL_DATE)), 0.0);
  EXPECT_TRUE(std::isnan(static_cast<double>(Variant())));

  Variant v(10);
  v += 5;
  v -= 2;
  EXPECT_EQ(static_cast<long long>(v), 13);
  Variant f(1.5);
  f += 5;  // only integers add
  EXPECT_DOUBLE_EQ(static_cast<double>(f), 1.5);
}

TEST(Variant, CastToNumbers) {
  // Text that is not wholly a number casts to NULL and reports failure.
  const struct { const char* in; VariantType to; bool ok; double want; } casts[] = {
      {"0x1F", VAL_INT, true, 31},    {"12abc", VAL_INT, false, 0},  {"2.75", VAL_INT, true, 2},
      {"-0.5e1", VAL_FLOAT, true, -5}, {"1.0 V", VAL_FLOAT, false, 0}};
  for (const auto& c : casts) {
    Variant x{std::string(c.in)};
    EXPECT_EQ(x.casttyp(c.to), c.ok) << c.in;
    EXPECT_TRUE(x.Type() == c.to && x.Isnull() == !c.ok) << c.in;  // failures keep the type
    EXPECT_DOUBLE_EQ(c.ok ? static_cast<double>(x) : 0, c.want) << c.in;
  }

  Variant b(std::string("abcd"));
  b.casttyp(VAL_BINARY);
  EXPECT_TRUE(b.casttyp(VAL_INT));
  EXPECT_EQ(static_cast<long long>(b), 4);

  Variant n;  // NULL cast to text stays NULL but holds a string
  EXPECT_TRUE(n.casttyp(VAL_STRING) && n.Isnull());
  ASSERT_NE(static_cast<std::string*>(n), nullptr);
  EXPECT_TRUE(n.casttyp(VAL_NULL));
  EXPECT_EQ(n.Type(), VAL_NULL);

  bool ok = false;
  Variant src(std::string("7"));  // convert() leaves the source alone
  EXPECT_DOUBLE_EQ(static_cast<double>(src.convert(VAL_FLOAT, &ok)), 7.0);
  EXPECT_TRUE(ok && src.Type() == VAL_STRING);
}

// The cast stores the new string's address over the number before rendering.
// With 64-bit pointers an integer renders as that address in decimal, and a
// float as the tiny denormal those bits make, printed "0.0".
TEST(Variant, CastNumberToStringRendersAfterStoringThePointer) {
  Variant i(123456);
  ASSERT_TRUE(i.casttyp(VAL_STRING));
  std::string* held = i;
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(*held, std::to_string(reinterpret_cast<uintptr_t>(held)));

  Variant f(3.25);
  ASSERT_TRUE(f.casttyp(VAL_STRING));
  EXPECT_EQ(text(f), "0.0");

  Variant d(VAL_DATE);
  ASSERT_TRUE(d.casttyp(VAL_STRING));
  EXPECT_EQ(text(d), "00.00.0000 00:00:00");
}

TEST(Variant, BinaryBlocks) {
  Variant i(0x0102030405060708LL);
  ASSERT_TRUE(i.casttyp(VAL_BINARY));
  EXPECT_EQ(*static_cast<std::string*>(i), std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8));
  EXPECT_EQ(i.length(), 8);

  Variant f(1.0);
  ASSERT_TRUE(f.casttyp(VAL_BINARY));
  double back = 0;
  std::memcpy(&back, static_cast<std::string*>(f)->data(), 8);
  EXPECT_EQ(back, 1.0);

  Variant n;
  EXPECT_TRUE(n.casttyp(VAL_BINARY) && n.Isnull());

  // A large block with zero bytes survives copies and the text cast.
  std::string* big = new std::string(16u << 20, '\0');
  (*big)[12345] = 'x';
  Variant blk;
  blk.SetBinary(big);
  EXPECT_EQ(blk.Type(), VAL_BINARY);
  Variant copy(blk);
  EXPECT_NE(static_cast<std::string*>(copy), big);
  EXPECT_EQ(*static_cast<std::string*>(copy), *big);
  EXPECT_EQ(static_cast<long long>(copy), 16 << 20);
  EXPECT_TRUE(copy.casttyp(VAL_STRING));
  EXPECT_EQ(copy.length(), 16 << 20);

  // Ownership passes to whoever takes the pointer before RemoveBinary.
  std::string* taken = blk;
  blk.RemoveBinary();
  EXPECT_TRUE(blk.Type() == VAL_NULL && blk.Isnull() && static_cast<std::string*>(blk) == nullptr);
  EXPECT_EQ(taken, big);
  delete taken;

  Variant s(std::string("x"));
  s = static_cast<const char*>(nullptr);
  EXPECT_EQ(s.Type(), VAL_NULL);
  s = "abc";
  s = s;
  EXPECT_EQ(text(s), "abc");
}

TEST(Variant, TotalOrder) {
  const Variant values[] = {Variant(),           Variant(-1e300),
                            Variant(-3),         Variant(2),
                            Variant(2.0),        Variant(2.5),
                            Variant(1LL << 62),  Variant(std::nan("")),
                            Variant(VAL_DATE),   Variant(std::string("a")),
                            Variant(std::string("b")), Variant(std::string("a")).convert(VAL_BINARY)};
  const int n = sizeof values / sizeof values[0];
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      EXPECT_EQ(values[a] < values[b], a < b) << a << " < " << b;
      EXPECT_EQ(values[a] > values[b], a > b) << a << " > " << b;
    }
  }
  // 2^53 + 1 is not a double; the comparison must not round it.
  EXPECT_TRUE(Variant(9007199254740992.0) < Variant(9007199254740993LL));
}

}  // namespace
