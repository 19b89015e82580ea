// CRC-16/CCITT: table, the 32-bit register definition, slicing-by-8 and the
// choice of engine.
#include "zqsecurity/crc16.h"

#include "security/crc_impl.h"

namespace {

using zqdetail::Crc16Tables;

// t[0] is the classic table; t[k][i] is the CRC of byte i followed by k zero
// bytes (16-bit state), so eight bytes can be folded with eight look-ups.
constexpr Crc16Tables make_crc16_tables() {
  Crc16Tables tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t r = i << 8;
    for (int bit = 0; bit < 8; ++bit) r = (r & 0x8000u) ? (r << 1) ^ 0x1021u : r << 1;
    tables.t[0][i] = static_cast<uint16_t>(r);
  }
  for (int k = 1; k < 8; ++k) {
    for (int i = 0; i < 256; ++i) {
      const uint16_t prev = tables.t[k - 1][i];
      tables.t[k][i] = static_cast<uint16_t>((prev << 8) ^ tables.t[0][prev >> 8]);
    }
  }
  for (int i = 0; i < 256; ++i) tables.back[tables.t[0][i] & 0xFF] = static_cast<uint8_t>(i);
  return tables;
}

}  // namespace

namespace zqdetail {
alignas(64) extern const Crc16Tables crc16_tables = make_crc16_tables();
}

const uint16_t (&crc16_tab)[256] = zqdetail::crc16_tables.t[0];

namespace zqdetail {

uint32_t crc16_bytewise(uint32_t r, const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i) r = crc16_tables.t[0][(p[i] ^ (r >> 8)) & 0xFF] ^ (r << 8);
  return r;
}

uint16_t crc16_slice8(uint16_t c, const uint8_t* p, size_t n) {
  const auto& t = crc16_tables.t;
  uint32_t s = c;
  while (n >= 8) {
    s ^= static_cast<uint32_t>(p[0]) << 8 | p[1];
    s = t[7][s >> 8] ^ t[6][s & 0xFF] ^ t[5][p[2]] ^ t[4][p[3]] ^ t[3][p[4]] ^ t[2][p[5]] ^
        t[1][p[6]] ^ t[0][p[7]];
    p += 8;
    n -= 8;
  }
  for (size_t i = 0; i < n; ++i) s = ((s << 8) ^ t[0][((s >> 8) ^ p[i]) & 0xFF]) & 0xFFFF;
  return static_cast<uint16_t>(s);
}

Crc16Engine crc16_engine(unsigned features) {
  if ((features & kCrcVclmul) != 0) return crc16_vclmul;
  if ((features & kCrcVclmul256) != 0) return crc16_vclmul256;
  if ((features & kCrcClmul) != 0) return crc16_clmul;
  return crc16_slice8;
}

}  // namespace zqdetail

namespace zqdetail {

namespace {

uint32_t crc16_message_slice8(const void* data, unsigned int length) {
  const auto* p = static_cast<const uint8_t*>(data);
  const size_t n = length;
  if (n < 2) return crc16_bytewise(0xFFFFFFFFu, p, n);
  return crc16_register(crc16_slice8(0xFFFF, p, n), p, n);
}

}  // namespace

Crc16Message crc16_message(unsigned features) {
  if ((features & kCrcVclmul) != 0) return crc16_message_vclmul;
  if ((features & kCrcVclmul256) != 0) return crc16_message_vclmul256;
  if ((features & kCrcClmul) != 0) return crc16_message_clmul;
  return crc16_message_slice8;
}

}  // namespace zqdetail

// gcc says a sanitizer is on by a macro, clang by __has_feature.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZQ_CRC16_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZQ_CRC16_SANITIZED 1
#endif
#endif

#ifdef ZQ_CRC16_SANITIZED
// The sanitizers' run-time starts after the dynamic loader has relocated the
// libraries: the engine is chosen on the first call instead.
uint32_t mk_crc16(const void* data, unsigned int length) {
  using Chosen = zqdetail::ChosenEngine<zqdetail::Crc16Message, zqdetail::crc16_message>;
  return Chosen::engine.load(std::memory_order_relaxed)(data, length);
}
#else
// The dynamic loader calls this once and binds mk_crc16 to the engine it
// returns, so that a caller's call goes from its PLT straight to the engine.
// (Not static: clang accepts only a resolver with external linkage; hidden,
// so it is not part of the library's interface.)
extern "C" {
__attribute__((visibility("hidden"))) zqdetail::Crc16Message zq_choose_mk_crc16();
zqdetail::Crc16Message zq_choose_mk_crc16() {
  return zqdetail::crc16_message(zqdetail::crc_features());
}
}
uint32_t mk_crc16(const void* data, unsigned int length) __attribute__((ifunc("zq_choose_mk_crc16")));
#endif
