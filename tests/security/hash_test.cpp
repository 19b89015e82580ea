// Digests by name: OpenSSL digests, the built-in CRCs and the method listing.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>

#include "zqsecurity/hash.h"

using ZQSecurity::Hash;

// OpenSSL digests (ripemd160 from the legacy provider) and the built-in CRCs
// in host byte order, each chosen by name after another method.
TEST(Hash, MethodsByName) {
  const struct { const char* method; const char* text; const char* digest; unsigned bytes; } kCases[] = {
      {"sha1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d", 20},
      {"ripemd160", "abc", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc", 20},
      {"sha256", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", 32},
      {"crc32", "123456789", "882dfd2d", 4},
      {"crc16", "123456789", "b129", 2},
  };
  for (const auto& c : kCases) {
    Hash hash("md5");
    ASSERT_TRUE(hash.SetMethod(c.method)) << c.method;
    EXPECT_EQ(hash.GetMethod(), c.method);
    EXPECT_EQ(hash.mkHashText(c.text, std::strlen(c.text)), c.digest) << c.method;
    EXPECT_EQ(hash.blocksize(), c.bytes) << c.method;
    EXPECT_EQ(hash.size(), 8 * c.bytes) << c.method;
  }
}

// Every OpenSSL method the library lists (the built-ins, listed last, are
// MethodsByName's) is usable and gives EVP's digest, call after call.
TEST(Hash, EveryListedMethodGivesOpenSSLsDigest) {
  const std::string list = "," + Hash::supportedMethods();
  EXPECT_EQ(list.substr(list.size() - 12), ",crc32,crc16");
  EXPECT_NE(list.find(",sha1,"), std::string::npos) << list;
  unsigned char buffer[1003];
  for (size_t i = 0; i < sizeof buffer; ++i) buffer[i] = static_cast<unsigned char>(i * 131 + 7);
  std::string rest = list.substr(1, list.size() - 13) + ",";
  for (size_t comma; (comma = rest.find(',')) != std::string::npos; rest.erase(0, comma + 1)) {
    const std::string name = rest.substr(0, comma);
    Hash hash(name);
    ASSERT_EQ(hash.GetMethod(), name);
    EVP_MD* fetched = EVP_get_digestbyname(name.c_str()) ? nullptr : EVP_MD_fetch(nullptr, name.c_str(), nullptr);
    const EVP_MD* md = fetched != nullptr ? fetched : EVP_get_digestbyname(name.c_str());
    for (const unsigned length : {1000u, 0u}) {
      unsigned char got[EVP_MAX_MD_SIZE], want[EVP_MAX_MD_SIZE];
      unsigned int n = 0, m = 0;
      ASSERT_TRUE(hash.mkHash(buffer + 3, length, got, &n)) << name;
      ASSERT_EQ(EVP_Digest(buffer + 3, length, want, &m, md, nullptr), 1) << name;
      ASSERT_EQ(std::string(got, got + n), std::string(want, want + m)) << name << " " << length;
    }
    EVP_MD_free(fetched);
  }
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
  Hash crc16("crc16");
  EXPECT_TRUE(crc16.mkHash("", 0, out, nullptr));  // the length pointer is optional

  Hash none("");
  EXPECT_FALSE(none.mkHash("a", 1, out, nullptr));
  Hash sha1("sha1");
  EXPECT_FALSE(sha1.mkHash(nullptr, 0, out, nullptr));
  EXPECT_FALSE(sha1.mkHash("a", 1, nullptr, nullptr));
  EXPECT_FALSE(sha1.SetMethod("no-such-digest"));
  EXPECT_EQ(sha1.GetMethod(), "");
  EXPECT_EQ(sha1.mkHashText("abc", 3), "");
}
