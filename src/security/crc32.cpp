// CRC-32: table, byte-at-a-time definition, slicing-by-8 and PCLMULQDQ folding.
#include "zqsecurity/crc32.h"

#include <immintrin.h>

#include "security/crc_impl.h"

namespace {

struct Crc32Tables {
  uint32_t t[8][256];
};

// t[0] is the classic table; t[k][i] is the CRC of byte i followed by k zero
// bytes, so eight bytes can be folded with eight look-ups.
constexpr Crc32Tables make_crc32_tables() {
  Crc32Tables tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t r = i;
    for (int bit = 0; bit < 8; ++bit) r = (r & 1u) ? (r >> 1) ^ 0xEDB88320u : r >> 1;
    tables.t[0][i] = r;
  }
  for (int k = 1; k < 8; ++k) {
    for (int i = 0; i < 256; ++i) {
      const uint32_t prev = tables.t[k - 1][i];
      tables.t[k][i] = (prev >> 8) ^ tables.t[0][prev & 0xFF];
    }
  }
  return tables;
}

alignas(64) constexpr Crc32Tables kCrc32 = make_crc32_tables();

uint32_t load_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

const uint32_t (&crc32_tab)[256] = kCrc32.t[0];

namespace zqdetail {

uint32_t crc32_bytewise(uint32_t r, const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i) r = kCrc32.t[0][(p[i] ^ r) & 0xFF] ^ (r >> 8);
  return r;
}

uint32_t crc32_slice8(uint32_t r, const uint8_t* p, size_t n) {
  const auto& t = kCrc32.t;
  while (n >= 8) {
    const uint32_t lo = load_le32(p) ^ r;
    const uint32_t hi = load_le32(p + 4);
    r = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
        t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
    p += 8;
    n -= 8;
  }
  return crc32_bytewise(r, p, n);
}

bool crc32_clmul_available() {
  static const bool available = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return available;
}

namespace {

#define ZQ_CLMUL __attribute__((target("pclmul,sse4.1")))

ZQ_CLMUL inline __m128i load(const uint8_t* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}

// Folds the 128-bit lane `x` forward by the distance encoded in `k` onto `next`.
ZQ_CLMUL inline __m128i fold(__m128i x, __m128i k, __m128i next) {
  const __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

}  // namespace

// Folding with carry-less multiplication after Intel's white paper "Fast CRC
// Computation for Generic Polynomials Using PCLMULQDQ Instruction" (2009), in
// the bit-reflected domain. The constants are x^n mod P(x) for the fold
// distances (4x128+32, 4x128-32, 128+32, 128-32, 64 bits), bit-reflected and
// shifted left by one, and for the Barrett step P(x) itself and
// floor(x^64 / P(x)), likewise reflected. Four 128-bit lanes are folded in
// parallel over 64-byte blocks, then into one lane, then reduced to 32 bits.
ZQ_CLMUL uint32_t crc32_clmul(uint32_t r, const uint8_t* p,
                                                                size_t n) {
  if (n < 64) return crc32_slice8(r, p, n);
  const size_t tail = n & 15;
  n -= tail;

  const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
  const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
  const __m128i k5k0 = _mm_set_epi64x(0x0000000000, 0x0163cd6124);
  const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
  const __m128i mask32 = _mm_setr_epi32(~0, 0, ~0, 0);

  __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(r)));
  __m128i x2 = load(p + 16);
  __m128i x3 = load(p + 32);
  __m128i x4 = load(p + 48);
  p += 64;
  n -= 64;
  while (n >= 64) {
    x1 = fold(x1, k1k2, load(p));
    x2 = fold(x2, k1k2, load(p + 16));
    x3 = fold(x3, k1k2, load(p + 32));
    x4 = fold(x4, k1k2, load(p + 48));
    p += 64;
    n -= 64;
  }
  x1 = fold(x1, k3k4, x2);
  x1 = fold(x1, k3k4, x3);
  x1 = fold(x1, k3k4, x4);
  while (n >= 16) {
    x1 = fold(x1, k3k4, load(p));
    p += 16;
    n -= 16;
  }

  // 128 bits to 64 bits.
  __m128i x2b = _mm_clmulepi64_si128(x1, k3k4, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2b);
  x2b = _mm_srli_si128(x1, 4);
  x1 = _mm_and_si128(x1, mask32);
  x1 = _mm_clmulepi64_si128(x1, k5k0, 0x00);
  x1 = _mm_xor_si128(x1, x2b);

  // Barrett reduction to 32 bits.
  x2b = _mm_and_si128(x1, mask32);
  x2b = _mm_clmulepi64_si128(x2b, poly, 0x10);
  x2b = _mm_and_si128(x2b, mask32);
  x2b = _mm_clmulepi64_si128(x2b, poly, 0x00);
  x1 = _mm_xor_si128(x1, x2b);
  r = static_cast<uint32_t>(_mm_extract_epi32(x1, 1));

  return crc32_slice8(r, p, tail);
}

}  // namespace zqdetail

uint32_t mk_crc32(const void* data, unsigned int length) {
  const auto* p = static_cast<const uint8_t*>(data);
  if (zqdetail::crc32_clmul_available()) return zqdetail::crc32_clmul(0, p, length);
  return zqdetail::crc32_slice8(0, p, length);
}
