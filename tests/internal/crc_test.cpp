// CRC-16 and CRC-32: check values and every engine against the definition.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "security/crc_impl.h"
#include "zqsecurity/crc16.h"
#include "zqsecurity/crc32.h"

TEST(Crc, TablesAndCheckValues) {
  EXPECT_EQ(crc32_tab[1], 0x77073096u);
  EXPECT_EQ(crc32_tab[128], 0xEDB88320u);
  EXPECT_EQ(crc16_tab[1], 0x1021u);
  EXPECT_EQ(crc16_tab[128], 0x9188u);

  EXPECT_EQ(mk_crc32("123456789", 9), 0x2DFD2D88u);
  EXPECT_EQ(mk_crc32("A", 1), 0x01DB7106u);
  EXPECT_EQ(mk_crc32(nullptr, 0), 0u);
  EXPECT_EQ(mk_crc16("123456789", 9), 0x77A129B1u);
  EXPECT_EQ(mk_crc16("A", 1), 0xFFFFB915u);
  EXPECT_EQ(mk_crc16(nullptr, 0), 0xFFFFFFFFu);

  const unsigned char high[] = {0x80, 0xFF, 0xC3};
  EXPECT_EQ(mk_crc32(high, 3), zqdetail::crc32_bytewise(0, high, 3));
  EXPECT_EQ(mk_crc16(high, 3), zqdetail::crc16_bytewise(0xFFFFFFFFu, high, 3));
}

// The public functions (the engine this processor gets) on every short and
// some long lengths at random alignments; every engine on every length up to
// 4096 is in crc_exhaustive_test.
TEST(Crc, PublicFunctionsMatchTheDefinition) {
  std::mt19937 rng(12345);
  std::vector<uint8_t> buffer(70000);
  for (auto& b : buffer) b = static_cast<uint8_t>(rng());
  for (size_t i = 0; i < 350; ++i) {
    const size_t length = i < 300 ? i : rng() % 66000, offset = rng() % 64;
    const uint8_t* p = buffer.data() + offset;
    ASSERT_EQ(mk_crc32(p, length), zqdetail::crc32_bytewise(0, p, length)) << length << "+" << offset;
    ASSERT_EQ(mk_crc16(p, length), zqdetail::crc16_bytewise(0xFFFFFFFFu, p, length)) << length << "+" << offset;
  }
}
