// Ciphers by name: raw and pass-phrase keys, the key-length rule, round trips.
#include <gtest/gtest.h>

#include <cstring>

#include "zqsecurity/encryption.h"

using ZQSecurity::Cipher;

TEST(Cipher, UnknownNamesAreResults) {
  Cipher none("no-such-cipher");
  EXPECT_EQ(none.GetMethod(), "");
  EXPECT_EQ(none.blocksize() + none.keysize(), 0u);
  EXPECT_FALSE(none.setkey("phrase"));
  unsigned char key[16] = {}, out[64];
  EXPECT_FALSE(none.setkey(key, 16, key));
  EXPECT_EQ(none.encrypt("abc", 3, out), 0u);
}

TEST(Cipher, PassPhraseKeysAreDerivedBitExactly) {
  // Key and vector for "open sesame" computed independently from the
  // published definition of EVP_BytesToKey (Python, hashlib RIPEMD-160, three
  // iterations, the first eight bytes of the fixed salt text).
  const unsigned char key[] = "\xd6\x25\x6c\x00\xc2\x5d\xda\x16\x55\xff\x1e\x22\x19\x99\x4a\xfd";
  const unsigned char iv[] = "\x33\x91\xec\xdd\x06\xbe\xdf\x8d\xbf\x5f\x0c\x87\x00\x03\x0d\xf2";
  Cipher phrase("aes-128-cbc"), raw("aes-128-cbc");
  ASSERT_TRUE(phrase.setkey(std::string("open sesame")));
  ASSERT_TRUE(raw.setkey(key, 16, iv));
  unsigned char a[64], b[64], back[64];
  EXPECT_EQ(phrase.encrypt("hello", 5, a), 16u);
  EXPECT_EQ(raw.encrypt("hello", 5, b), 16u);
  EXPECT_EQ(std::memcmp(a, b, 16), 0);

  Cipher other("aes-128-cbc");
  other.setkey(std::string("open sesame"));
  EXPECT_EQ(other.decrypt(a, 16, back), 5u);
  EXPECT_EQ(std::memcmp(back, "hello", 5), 0);

  // Blowfish comes from the legacy provider.
  Cipher bf("bf-cbc"), bf_raw("bf-cbc");
  ASSERT_EQ(bf.GetMethod(), "bf-cbc");
  ASSERT_TRUE(bf.setkey(std::string("open sesame")));
  ASSERT_TRUE(bf_raw.setkey(key, 16, iv));
  EXPECT_EQ(bf.encrypt("blowfish", 8, a), bf_raw.encrypt("blowfish", 8, b));
  EXPECT_EQ(std::memcmp(a, b, 16), 0);
}

TEST(Cipher, RawKeyLengthRuleAndBurn) {
  Cipher bf("bf-cbc");
  unsigned char key[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const unsigned char iv[16] = {};
  EXPECT_TRUE(bf.setkey(key, 16, iv));
  EXPECT_FALSE(bf.setkey(key, 8, iv));  // shorter than the key in force
  EXPECT_EQ(bf.keysize(), 16u);
  EXPECT_TRUE(bf.setkey(key, 24, iv));
  EXPECT_EQ(bf.keysize(), 24u);

  Cipher aes("aes-256-cbc");
  EXPECT_TRUE(aes.setkey(key, 32, iv));
  unsigned char out[64], back[64];
  const char text[] = "thirty-two bytes of clear text!";
  const unsigned int n = aes.encrypt(text, sizeof text, out);
  EXPECT_EQ(n, 48u);
  EXPECT_EQ(aes.decrypt(out, n, back), sizeof text);
  EXPECT_STREQ(reinterpret_cast<char*>(back), text);
  aes.burn();
  EXPECT_EQ(aes.keysize(), 0u);
  EXPECT_EQ(aes.encrypt(text, 4, out), 0u);  // no key: nothing

  const std::string list = Cipher::supportedMethods();
  EXPECT_NE(list.find("aes-128-cbc"), std::string::npos);
  EXPECT_EQ(list.find(' '), std::string::npos);
}
