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

// Every engine must give the byte-at-a-time value on any length and alignment.
TEST(Crc, EnginesMatchTheDefinition) {
  std::mt19937 rng(12345);
  std::vector<uint8_t> buffer(70000);
  for (auto& b : buffer) b = static_cast<uint8_t>(rng());
  std::vector<size_t> lengths = {0,   1,   2,   3,   7,   8,   15,  16,  17,   63,   64,
                                 65,  127, 128, 129, 255, 256, 257, 319, 320, 4096, 4097};
  for (int i = 0; i < 200; ++i) lengths.push_back(rng() % 66000);
  const bool clmul = zqdetail::crc32_clmul_available();
  const bool vclmul = zqdetail::crc32_vclmul_available();
  if (!clmul) std::printf("note: no PCLMULQDQ here, folding path not exercised\n");
  if (!vclmul) std::printf("note: no VPCLMULQDQ here, 512-bit path not exercised\n");
  for (size_t length : lengths) {
    const size_t offset = rng() % 64;
    const uint8_t* p = buffer.data() + offset;
    const uint32_t r0 = static_cast<uint32_t>(rng());
    const uint32_t want = zqdetail::crc32_bytewise(r0, p, length);
    ASSERT_EQ(zqdetail::crc32_slice8(r0, p, length), want) << length << "+" << offset;
    if (clmul) {
      ASSERT_EQ(zqdetail::crc32_clmul(r0, p, length), want) << length << "+" << offset;
    }
    if (vclmul) {
      ASSERT_EQ(zqdetail::crc32_vclmul(r0, p, length), want) << length << "+" << offset;
    }
    ASSERT_EQ(mk_crc32(p, length), zqdetail::crc32_bytewise(0, p, length));

    const uint32_t want16 = zqdetail::crc16_bytewise(0xFFFFFFFFu, p, length);
    ASSERT_EQ(mk_crc16(p, length), want16) << length << "+" << offset;
    ASSERT_EQ(zqdetail::crc16_slice8(0xFFFF, p, length), want16 & 0xFFFF);
  }
}
