// Digests by name: OpenSSL digests, the built-in CRCs and the method listing.
#include <gtest/gtest.h>

#include <cstring>

#include "zqsecurity/hash.h"

using ZQSecurity::Hash;

TEST(Hash, OpenSslDigestsByName) {
  Hash sha1("sha1");
  EXPECT_EQ(sha1.GetMethod(), "sha1");
  EXPECT_EQ(sha1.mkHashText("abc", 3), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(sha1.blocksize(), 20u);
  EXPECT_EQ(sha1.size(), 160u);
  EXPECT_EQ(sha1.mkHashText("abc", 3), "a9993e364706816aba3e25717850c26c9cd0d89d");  // reusable

  Hash md5("md5");
  EXPECT_EQ(md5.mkHashText("", 0), "d41d8cd98f00b204e9800998ecf8427e");
  Hash ripemd("ripemd160");  // served by the legacy provider
  EXPECT_EQ(ripemd.mkHashText("abc", 3), "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc");
  Hash md4("md4");
  EXPECT_EQ(md4.mkHashText("abc", 3), "a448017aaf21d8525fc10ae87aa6729d");
  Hash sha512("sha512");
  unsigned char out[64];
  unsigned int n = 0;
  EXPECT_TRUE(sha512.mkHash("x", 1, out, &n));
  EXPECT_EQ(n, 64u);

  ASSERT_TRUE(sha1.SetMethod("sha256"));
  EXPECT_EQ(sha1.mkHashText("abc", 3),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Hash, BuiltinCrcsInHostByteOrder) {
  Hash crc32("crc32");
  EXPECT_EQ(crc32.mkHashText("123456789", 9), "882dfd2d");
  EXPECT_EQ(crc32.blocksize(), 4u);
  Hash crc16("crc16");
  unsigned char out[64] = {};
  unsigned int n = 0;
  ASSERT_TRUE(crc16.mkHash("123456789", 9, out, &n));
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(crc16.mkHashText("123456789", 9), "b129");
  EXPECT_EQ(crc16.size(), 16u);
  EXPECT_TRUE(crc16.mkHash("", 0, out, nullptr));
}

TEST(Hash, FailuresAreResults) {
  Hash upper("CRC32");  // built-in names are case-sensitive; OpenSSL knows no CRC32
  EXPECT_EQ(upper.GetMethod(), "");
  unsigned char out[64];
  unsigned int n = 99;
  EXPECT_FALSE(upper.mkHash("a", 1, out, &n));
  EXPECT_EQ(n, 99u);
  EXPECT_EQ(upper.mkHashText("a", 1), "");
  EXPECT_EQ(upper.blocksize(), 0u);

  Hash none("");
  EXPECT_FALSE(none.mkHash("a", 1, out, nullptr));
  Hash sha1("sha1");
  EXPECT_FALSE(sha1.mkHash(nullptr, 0, out, nullptr));
  EXPECT_FALSE(sha1.mkHash("a", 1, nullptr, nullptr));
  EXPECT_FALSE(sha1.SetMethod("no-such-digest"));
  EXPECT_EQ(sha1.GetMethod(), "");
  EXPECT_EQ(sha1.mkHashText("abc", 3), "");
}

TEST(Hash, SupportedMethodsEndWithTheBuiltins) {
  const std::string list = Hash::supportedMethods();
  ASSERT_GE(list.size(), std::strlen("crc32,crc16"));
  EXPECT_EQ(list.substr(list.size() - 11), "crc32,crc16");
  EXPECT_EQ(list.find(",,"), std::string::npos);
  EXPECT_EQ(list.find(' '), std::string::npos);
  EXPECT_NE(list.find("sha1,"), std::string::npos) << list;
  // Every listed name is accepted.
  std::string rest = list;
  while (!rest.empty()) {
    const size_t comma = rest.find(',');
    const std::string name = rest.substr(0, comma);
    rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
    Hash h(name);
    EXPECT_EQ(h.GetMethod(), name);
  }
}
