// CRC-16/CCITT with carry-less multiplication: the folding of crc_fold.h on
// byte-reversed lanes (this CRC takes the most significant bit first), and a
// reduction of the last lane to the 16-bit state.
#include "security/crc_fold.h"
#include "security/crc_impl.h"

namespace zqdetail {

// The state after a message M from state s is (s x^(8n) + M x^16) mod P with
// P = x^16 + x^12 + x^5 + 1: s is XORed onto the first two message bytes, the
// message is folded to one lane X, and the state is X x^16 mod P. A fold over
// D bits multiplies the lane's low half by x^D mod P and its high half by
// x^(D+64) mod P; the products stay below x^80, inside the lane.
namespace {

constexpr FoldKeys kKeys = {
    {0xfd50, 0xf17e},  // D = 4 x 512
    {0x36c4, 0x71c4},  // D = 4 x 256
    {0x13fc, 0x8832},  // D = 4 x 128
    {0xcde2, 0x2535},  // D = 384
    {0x8e29, 0x26aa},  // D = 256
    {0xaefc, 0x650b},  // D = 128
};
constexpr long long kX64 = 0xb861, kX96 = 0xd849;  // x^64, x^96 mod P

// The state as a lane: its 16 bits over the first two message bytes.
ZQ_CLMUL ZQ_FOLD_INLINE __m128i state_lane(uint16_t c) { return _mm_insert_epi16(_mm_setzero_si128(), c, 7); }

// X x^16 mod P for a 128-bit polynomial X. The high half, cut in two 32-bit
// pieces multiplied in parallel, folds onto the low half; the 64-bit result
// V gives V x^16 mod P, the state after its eight bytes from state 0, with
// eight independent look-ups in the slicing tables.
ZQ_CLMUL ZQ_FOLD_INLINE uint16_t reduce(__m128i x) {
  const __m128i k = _mm_set_epi64x(kX96, kX64);
  const __m128i top = _mm_clmulepi64_si128(_mm_srli_epi64(x, 32), k, 0x11);
  const __m128i mid = _mm_clmulepi64_si128(_mm_and_si128(x, _mm_set1_epi64x(0xFFFFFFFF)), k, 0x01);
  const auto v = static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_xor_si128(_mm_xor_si128(top, mid), x)));
  const auto& t = crc16_tables.t;
  return static_cast<uint16_t>(t[7][v >> 56] ^ t[6][(v >> 48) & 0xFF] ^ t[5][(v >> 40) & 0xFF] ^
                               t[4][(v >> 32) & 0xFF] ^ t[3][(v >> 24) & 0xFF] ^ t[2][(v >> 16) & 0xFF] ^
                               t[1][(v >> 8) & 0xFF] ^ t[0][v & 0xFF]);
}

uint64_t load_be64(const uint8_t* p) {
  uint64_t v;
  __builtin_memcpy(&v, p, 8);
  return __builtin_bswap64(v);
}

uint32_t load_be32(const uint8_t* p) {
  uint32_t v;
  __builtin_memcpy(&v, p, 4);
  return __builtin_bswap32(v);
}

// A message of 2-15 bytes as one lane (the most significant 64-bit half
// first), read with overlapping loads that stay inside the message, the
// state on its first two bytes.
ZQ_CLMUL ZQ_FOLD_INLINE __m128i short_lane(uint16_t c, const uint8_t* p, size_t n) {
  uint64_t hi = 0, lo;
  if (n >= 8) {
    const unsigned extra = 8 * static_cast<unsigned>(n - 8);  // bits after the first eight bytes
    const uint64_t first = load_be64(p) ^ static_cast<uint64_t>(c) << 48;
    const uint64_t last = load_be64(p + n - 8);
    hi = extra == 0 ? 0 : first >> (64 - extra);
    lo = extra == 0 ? first : first << extra | (last & ((uint64_t{1} << extra) - 1));
  } else if (n >= 4) {
    const unsigned extra = 8 * static_cast<unsigned>(n - 4);
    const uint64_t first = load_be32(p) ^ static_cast<uint32_t>(c) << 16;
    const uint64_t last = load_be32(p + n - 4);
    lo = first << extra | (last & ((uint64_t{1} << extra) - 1));
  } else {
    lo = static_cast<uint64_t>(p[0] << 8 | p[1]) ^ c;
    if (n == 3) lo = lo << 8 | p[2];
  }
  return _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo));
}

}  // namespace

ZQ_CLMUL uint16_t crc16_clmul(uint16_t c, const uint8_t* p, size_t n) {
  if (n < 2) return crc16_slice8(c, p, n);
  if (n < 16) return reduce(short_lane(c, p, n));
  return reduce(fold_lanes<NormalLanes>(state_lane(c), p, n, kKeys));
}

ZQ_VCLMUL uint16_t crc16_vclmul(uint16_t c, const uint8_t* p, size_t n) {
  if (n < 256) return crc16_vclmul256(c, p, n);  // short messages in the VEX encoding
  return reduce(fold_lanes512<NormalLanes>(state_lane(c), p, n, kKeys));
}

ZQ_VCLMUL256 uint16_t crc16_vclmul256(uint16_t c, const uint8_t* p, size_t n) {
  if (n < 2) return crc16_slice8(c, p, n);
  if (n < 16) return reduce(short_lane(c, p, n));
  if (n < 128) return reduce(fold_lanes<NormalLanes>(state_lane(c), p, n, kKeys));
  return reduce(fold_lanes256<NormalLanes>(state_lane(c), p, n, kKeys));
}

}  // namespace zqdetail
