// Digests by name: OpenSSL digests, the built-in CRCs and the method listing.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <random>
#include <vector>

#include "zqsecurity/crc16.h"
#include "zqsecurity/crc32.h"
#include "zqsecurity/hash.h"

using ZQSecurity::Hash;

TEST(Hash, OpenSslDigestsByName) {
  Hash sha1("sha1");
  EXPECT_EQ(sha1.GetMethod(), "sha1");
  EXPECT_EQ(sha1.mkHashText("abc", 3), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(sha1.blocksize(), 20u);
  EXPECT_EQ(sha1.size(), 160u);

  Hash ripemd("ripemd160");  // served by the legacy provider
  EXPECT_EQ(ripemd.mkHashText("abc", 3), "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc");
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

// Every method the library offers on every length 0-4096 at a random
// misalignment, against OpenSSL's EVP called directly and the CRCs'
// byte-at-a-time definitions (host byte order, as mkHash gives them).
TEST(Hash, EveryMethodEveryLengthUnaligned) {
  std::mt19937 rng(5);
  std::vector<unsigned char> buffer(4096 + 8);
  for (auto& b : buffer) b = static_cast<unsigned char>(rng());
  std::string rest = Hash::supportedMethods() + ",";
  for (size_t comma; (comma = rest.find(',')) != std::string::npos; rest.erase(0, comma + 1)) {
    const std::string name = rest.substr(0, comma);
    Hash hash(name);
    ASSERT_EQ(hash.GetMethod(), name);
    EVP_MD* fetched = EVP_get_digestbyname(name.c_str()) ? nullptr : EVP_MD_fetch(nullptr, name.c_str(), nullptr);
    const EVP_MD* md = fetched != nullptr ? fetched : EVP_get_digestbyname(name.c_str());
    for (unsigned length = 0; length <= 4096; ++length) {
      const unsigned char* p = buffer.data() + rng() % 8;
      unsigned char got[EVP_MAX_MD_SIZE], want[EVP_MAX_MD_SIZE];
      unsigned int n = 0, m = 0;
      ASSERT_TRUE(hash.mkHash(p, length, got, &n)) << name;
      if (name == "crc32" || name == "crc16") {
        const bool c32 = name == "crc32";
        uint32_t r = c32 ? 0 : 0xFFFFFFFFu;
        for (unsigned i = 0; i < length; ++i) {
          r = c32 ? crc32_tab[(p[i] ^ r) & 0xFF] ^ (r >> 8) : crc16_tab[(p[i] ^ (r >> 8)) & 0xFF] ^ (r << 8);
        }
        const uint16_t low = static_cast<uint16_t>(r);
        m = c32 ? 4 : 2;
        std::memcpy(want, c32 ? static_cast<const void*>(&r) : &low, m);
      } else {
        ASSERT_EQ(EVP_Digest(p, length, want, &m, md, nullptr), 1) << name;
      }
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
}
