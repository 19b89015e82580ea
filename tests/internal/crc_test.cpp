// CRC-16 and CRC-32: check values, and the public functions and every engine
// against the byte-at-a-time definition.
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
}

// The public functions (the engine this processor gets) on every short and
// some long lengths at random alignments.
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

// Every engine on every length up to 4096 at every alignment within a cache
// line, including the table engines a processor without the carry-less
// multiply instructions gets.
TEST(Crc, EveryEngineEveryLengthEveryAlignment) {
  constexpr size_t kMaxLength = 4096, kAlignments = 64;
  std::mt19937 rng(4711);
  std::vector<uint8_t> buffer(kMaxLength + kAlignments);
  for (auto& b : buffer) b = static_cast<uint8_t>(rng());
  const unsigned here = zqdetail::crc_features();
  for (const unsigned features : {0u, 0u + zqdetail::kCrcClmul, zqdetail::kCrcClmul | zqdetail::kCrcVclmul256,
                                  zqdetail::kCrcClmul | zqdetail::kCrcVclmul256 | zqdetail::kCrcVclmul}) {
    if ((features & ~here) != 0) {
      std::printf("note: engine mask %u needs instructions this processor lacks\n", features);
      continue;
    }
    const zqdetail::Crc32Engine crc32 = zqdetail::crc32_engine(features);
    const zqdetail::Crc16Engine crc16 = zqdetail::crc16_engine(features);
    const zqdetail::Crc16Message whole16 = zqdetail::crc16_message(features);
    for (size_t offset = 0; offset < kAlignments; ++offset) {
      const uint8_t* p = buffer.data() + offset;
      const uint32_t start = 0x9E3779B9u * static_cast<uint32_t>(offset + 1);
      uint32_t want32 = start, want16 = start & 0xFFFF;  // the definitions, one byte further each round
      uint32_t register16 = 0xFFFFFFFFu;                  // mk_crc16's unmasked register
      for (size_t length = 0; length <= kMaxLength; ++length) {
        ASSERT_EQ(crc32(start, p, length), want32) << features << ": " << length << "+" << offset;
        ASSERT_EQ(crc16(static_cast<uint16_t>(start), p, length), want16 & 0xFFFF)
            << features << ": " << length << "+" << offset;
        ASSERT_EQ(whole16(p, length), register16) << features << ": " << length << "+" << offset;
        if (length == kMaxLength) break;
        want32 = zqdetail::crc32_bytewise(want32, p + length, 1);
        want16 = zqdetail::crc16_bytewise(want16, p + length, 1);
        register16 = zqdetail::crc16_bytewise(register16, p + length, 1);
      }
    }
  }
  EXPECT_EQ(zqdetail::crc32_engine(0), &zqdetail::crc32_slice8);
  EXPECT_EQ(zqdetail::crc16_engine(0), &zqdetail::crc16_slice8);
}
