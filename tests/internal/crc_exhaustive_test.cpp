// Every CRC engine against the byte-at-a-time definition on every length
// from 0 to 4096 at every alignment within a cache line, and the engine
// choice on a processor without the carry-less multiply instructions.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "security/crc_impl.h"
#include "zqsecurity/crc16.h"
#include "zqsecurity/crc32.h"

namespace {

constexpr size_t kMaxLength = 4096, kAlignments = 64;

std::vector<uint8_t> random_bytes(size_t n) {
  std::mt19937 rng(4711);
  std::vector<uint8_t> bytes(n);
  for (auto& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

}  // namespace

TEST(CrcExhaustive, EveryEngineEveryLengthEveryAlignment) {
  const std::vector<uint8_t> buffer = random_bytes(kMaxLength + kAlignments);
  struct Engine {
    const char* name;
    unsigned features;
  } const engines[] = {{"portable", 0}, {"clmul", zqdetail::kCrcClmul}, {"vclmul", zqdetail::kCrcVclmul}};
  const unsigned here = zqdetail::crc32_features();
  for (const Engine& engine : engines) {
    if ((engine.features & ~here) != 0) {
      std::printf("note: the %s engine needs instructions this processor lacks\n", engine.name);
      continue;
    }
    const zqdetail::Crc32Engine crc = zqdetail::crc32_engine(engine.features);
    for (size_t offset = 0; offset < kAlignments; ++offset) {
      const uint8_t* p = buffer.data() + offset;
      const uint32_t start = 0x9E3779B9u * static_cast<uint32_t>(offset + 1);
      uint32_t want = start;  // the definition, one byte further each round
      for (size_t length = 0; length <= kMaxLength; ++length) {
        ASSERT_EQ(crc(start, p, length), want) << engine.name << " " << length << "+" << offset;
        if (length < kMaxLength) want = zqdetail::crc32_bytewise(want, p + length, 1);
      }
    }
  }
  // Without the instructions mk_crc32 falls back to the table engine.
  EXPECT_EQ(zqdetail::crc32_engine(0), &zqdetail::crc32_slice8);
}

TEST(CrcExhaustive, Crc16EveryLengthManyAlignments) {
  const std::vector<uint8_t> buffer = random_bytes(kMaxLength + kAlignments);
  for (size_t offset = 0; offset < kAlignments; offset += 3) {
    const uint8_t* p = buffer.data() + offset;
    uint32_t want = 0xFFFFFFFFu;
    for (size_t length = 0; length <= kMaxLength; ++length) {
      ASSERT_EQ(mk_crc16(p, static_cast<unsigned>(length)), want) << length << "+" << offset;
      if (length < kMaxLength) want = zqdetail::crc16_bytewise(want, p + length, 1);
    }
  }
}
