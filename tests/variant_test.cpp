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

TEST(Variant, TextForms) {
  EXPECT_EQ(text(Variant()), "NULL");
  EXPECT_EQ(text(Variant(-42)), "-42");
  EXPECT_EQ(text(Variant(9007199254740993LL)), "9007199254740993");
  EXPECT_EQ(text(Variant(2.0)), "2.0");
  EXPECT_EQ(text(Variant(0.25)), "0.25");
  EXPECT_EQ(text(Variant(-1.5)), "-1.5");
  EXPECT_EQ(text(Variant(std::numeric_limits<double>::infinity())), "NULL");
  EXPECT_EQ(text(Variant(std::nan(""))), "NULL");
  EXPECT_EQ(text(Variant(1e300)).size(), 301u + 2);  // every digit, then ".0"
  EXPECT_EQ(text(Variant(VAL_DATE)), "00.00.0000 00:00:00");
  EXPECT_EQ(text(Variant(std::string("abc"))), "abc");
  EXPECT_EQ(static_cast<std::string>(Variant(7)), "7");

  EXPECT_EQ(Variant().length(), 5);
  EXPECT_EQ(Variant(1000).length(), 3);
  EXPECT_EQ(Variant(1001).length(), 4);
  EXPECT_EQ(Variant(0).length(), 0);
  EXPECT_EQ(Variant(-5).length(), 0);
  EXPECT_EQ(Variant(150.0).length(), 20);
  EXPECT_EQ(Variant(std::string("hello")).length(), 5);
  EXPECT_EQ(Variant(VAL_DATE).length(), 20);
}

TEST(Variant, NumericConversions) {
  EXPECT_EQ(static_cast<long long>(Variant(std::string("0x1F"))), 31);
  EXPECT_EQ(static_cast<long long>(Variant(std::string("017"))), 15);
  EXPECT_EQ(static_cast<long long>(Variant(std::string("12abc"))), 12);
  EXPECT_EQ(static_cast<long long>(Variant(std::string("volts"))), 0);
  // Text parses as a 32-bit long.
  EXPECT_EQ(static_cast<long long>(Variant(std::string("99999999999"))), 2147483647);
  EXPECT_EQ(static_cast<long long>(Variant(std::string("-99999999999"))), -2147483648LL);
  EXPECT_EQ(static_cast<long long>(Variant(-2.9)), -2);
  EXPECT_EQ(static_cast<long long>(Variant(1e30)), std::numeric_limits<long long>::max());
  EXPECT_EQ(static_cast<int>(Variant(5LL + (1LL << 32))), 5);
  EXPECT_EQ(static_cast<unsigned int>(Variant(-1)), 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<long long>(Variant()), 0);

  EXPECT_DOUBLE_EQ(static_cast<double>(Variant(std::string("2.5e3"))), 2500.0);
  EXPECT_DOUBLE_EQ(static_cast<double>(Variant(3)), 3.0);
  EXPECT_DOUBLE_EQ(static_cast<double>(Variant(VAL_DATE)), 0.0);
  EXPECT_TRUE(std::isnan(static_cast<double>(Variant())));

  Variant v(10);
  v += 5;
  v -= 2;
  EXPECT_EQ(static_cast<long long>(v), 13);
  Variant f(1.5);
  f += 5;
  EXPECT_DOUBLE_EQ(static_cast<double>(f), 1.5);
}

TEST(Variant, CastToNumbers) {
  Variant v(std::string("0x1F"));
  EXPECT_TRUE(v.casttyp(VAL_INT));
  EXPECT_EQ(v.Type(), VAL_INT);
  EXPECT_EQ(static_cast<long long>(v), 31);

  Variant bad(std::string("12abc"));
  EXPECT_FALSE(bad.casttyp(VAL_INT));
  EXPECT_TRUE(bad.Isnull());
  EXPECT_EQ(text(bad), "NULL");

  Variant real(std::string("2.75"));
  EXPECT_TRUE(real.casttyp(VAL_INT));
  EXPECT_EQ(static_cast<long long>(real), 2);

  Variant f(std::string("-0.5e1"));
  EXPECT_TRUE(f.casttyp(VAL_FLOAT));
  EXPECT_DOUBLE_EQ(static_cast<double>(f), -5.0);
  Variant nf(std::string("1.0 V"));
  EXPECT_FALSE(nf.casttyp(VAL_FLOAT));
  EXPECT_TRUE(nf.Isnull());

  Variant b(std::string("abcd"));
  b.casttyp(VAL_BINARY);
  EXPECT_TRUE(b.casttyp(VAL_INT));
  EXPECT_EQ(static_cast<long long>(b), 4);

  Variant n;
  EXPECT_TRUE(n.casttyp(VAL_STRING));
  EXPECT_TRUE(n.Isnull());
  ASSERT_NE(static_cast<std::string*>(n), nullptr);
  EXPECT_TRUE(n.casttyp(VAL_NULL));
  EXPECT_EQ(n.Type(), VAL_NULL);

  bool ok = false;
  Variant src(std::string("7"));
  Variant c = src.convert(VAL_FLOAT, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(src.Type(), VAL_STRING);
  EXPECT_DOUBLE_EQ(static_cast<double>(c), 7.0);
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

  // The number as text is what tostr gives.
  EXPECT_EQ(text(Variant(123456)), "123456");
}

TEST(Variant, BinaryBlocks) {
  Variant i(0x0102030405060708LL);
  ASSERT_TRUE(i.casttyp(VAL_BINARY));
  std::string* bytes = i;
  ASSERT_EQ(bytes->size(), 8u);
  EXPECT_EQ((*bytes)[0], 0x08);
  EXPECT_EQ(i.length(), 8);

  Variant f(1.0);
  ASSERT_TRUE(f.casttyp(VAL_BINARY));
  double back = 0;
  std::memcpy(&back, static_cast<std::string*>(f)->data(), 8);
  EXPECT_EQ(back, 1.0);

  Variant n;
  ASSERT_TRUE(n.casttyp(VAL_BINARY));
  EXPECT_TRUE(n.Isnull());

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
  EXPECT_EQ(blk.Type(), VAL_NULL);
  EXPECT_TRUE(blk.Isnull());
  EXPECT_EQ(static_cast<std::string*>(blk), nullptr);
  EXPECT_EQ(taken, big);
  delete taken;

  Variant s(std::string("x"));
  s = static_cast<const char*>(nullptr);
  EXPECT_EQ(s.Type(), VAL_NULL);
  s = "abc";
  EXPECT_EQ(s.Type(), VAL_STRING);
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
