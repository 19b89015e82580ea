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

// floor(x^80 / P) without its x^64 term, for the Barrett reduction.
constexpr long long kBarrettMu = 0x11303471a041b343, kPoly = 0x1021;

// X x^16 mod P for a 128-bit polynomial X, in two steps. The high half, cut
// in two 32-bit pieces multiplied in parallel, folds onto the low half,
// leaving a 64-bit V congruent to X. Then Barrett: the quotient of V x^16 by P
// is V + floor(V mu' / x^64) with mu' as above; quotient16 keeps its low 16
// bits. As V x^16 ends in 16 zero bits, the remainder is the low 16 bits of
// those quotient bits times P.
ZQ_CLMUL ZQ_FOLD_INLINE __m128i quotient16(__m128i x) {
  const __m128i k = _mm_set_epi64x(kX96, kX64);
  const __m128i top = _mm_clmulepi64_si128(_mm_srli_epi64(x, 32), k, 0x11);
  const __m128i mid = _mm_clmulepi64_si128(fold::low32(x), k, 0x01);
  const __m128i v = _mm_xor_si128(_mm_xor_si128(top, mid), x);
  const __m128i barrett = _mm_set_epi64x(kPoly, kBarrettMu);
  const __m128i quotient = _mm_xor_si128(v, _mm_srli_si128(_mm_clmulepi64_si128(v, barrett, 0x00), 8));
  return _mm_and_si128(quotient, _mm_cvtsi32_si128(0xFFFF));
}

ZQ_CLMUL ZQ_FOLD_INLINE uint16_t remainder(__m128i quotient) {
  const __m128i poly = _mm_cvtsi32_si128(kPoly);
  return static_cast<uint16_t>(_mm_cvtsi128_si32(_mm_clmulepi64_si128(quotient, poly, 0x00)));
}

ZQ_CLMUL ZQ_FOLD_INLINE uint16_t reduce(__m128i x) { return remainder(quotient16(x)); }

// mk_crc16's register after a message of n >= 2 bytes folded to the lane X.
// Its high 16 bits are the table indices of the last two byte steps XORed
// with the last two bytes (see crc16_register). The table entry of index i
// is i x^16 mod P, whose quotient by P is i ^ (i >> 4) for a byte i (x^16 =
// P + x^12 + x^5 + 1, and only the x^12 term reaches x^16 again); the last
// two steps' quotients are the low 16 bits of the whole message's quotient
// (the multiples of P folding adds to X only change quotient bits from x^16
// up). So the Barrett step yields the indices, each byte y giving
// y ^ (y >> 4), with no table look-up.
ZQ_CLMUL ZQ_FOLD_INLINE uint32_t reduce_register(__m128i x, const uint8_t* p, size_t n) {
  const __m128i quotient = quotient16(x);
  uint16_t last;
  __builtin_memcpy(&last, p + n - 2, 2);
  const auto q = static_cast<uint32_t>(_mm_cvtsi128_si32(quotient));
  const uint32_t indices = q ^ ((q >> 4) & 0x0F0F);
  return (indices ^ __builtin_bswap16(last)) << 16 | remainder(quotient);
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

// 128 bytes and more, kept out of line so that the short paths of the engines
// stay straight code.
ZQ_CLMUL __attribute__((noinline)) uint16_t crc16_clmul_long(uint16_t c, const uint8_t* p, size_t n) {
  return reduce(fold_lanes<NormalLanes>(state_lane(c), p, n, kKeys));
}

ZQ_VCLMUL256 __attribute__((noinline)) uint16_t crc16_vclmul256_long(uint16_t c, const uint8_t* p, size_t n) {
  return reduce(fold_lanes256<NormalLanes>(state_lane(c), p, n, kKeys));
}

}  // namespace

// Short messages first: 2-15 bytes as one lane, 16-127 one block after the
// other.
ZQ_CLMUL uint16_t crc16_clmul(uint16_t c, const uint8_t* p, size_t n) {
  if (__builtin_expect(n - 2 < 14, 1)) return reduce(short_lane(c, p, n));
  if (__builtin_expect(n - 16 < 112, 1)) return reduce(fold_short<NormalLanes>(state_lane(c), p, n, kKeys));
  if (n < 2) return crc16_slice8(c, p, n);
  return crc16_clmul_long(c, p, n);
}

// The same in the VEX encoding, and 256-bit lanes for long messages.
ZQ_VCLMUL256 uint16_t crc16_vclmul256(uint16_t c, const uint8_t* p, size_t n) {
  if (__builtin_expect(n - 2 < 14, 1)) return reduce(short_lane(c, p, n));
  if (__builtin_expect(n - 16 < 112, 1)) return reduce(fold_short<NormalLanes>(state_lane(c), p, n, kKeys));
  if (n < 2) return crc16_slice8(c, p, n);
  return crc16_vclmul256_long(c, p, n);
}

ZQ_VCLMUL uint16_t crc16_vclmul(uint16_t c, const uint8_t* p, size_t n) {
  if (n < 256) return crc16_vclmul256(c, p, n);  // short messages in the VEX encoding
  return reduce(fold_lanes512<NormalLanes>(state_lane(c), p, n, kKeys));
}

namespace {

// mk_crc16's register after a message of 2-127 bytes.
ZQ_CLMUL ZQ_FOLD_INLINE uint32_t short_register(const uint8_t* p, size_t n) {
  if (n < 16) return reduce_register(short_lane(0xFFFF, p, n), p, n);
  return reduce_register(fold_short<NormalLanes>(state_lane(0xFFFF), p, n, kKeys), p, n);
}

// mk_crc16 on messages of other lengths with the engine `state`.
template <uint16_t (*state)(uint16_t, const uint8_t*, size_t)>
__attribute__((noinline)) uint32_t message_other(const uint8_t* p, size_t n) {
  if (n < 2) return crc16_bytewise(0xFFFFFFFFu, p, n);
  return crc16_register(state(0xFFFF, p, n), p, n);
}

}  // namespace

// mk_crc16 whole: messages of 2-127 bytes, the common ones, in the short
// paths, the rest out of line (so that no registers need saving here).
ZQ_CLMUL uint32_t crc16_message_clmul(const void* data, unsigned int length) {
  const auto* p = static_cast<const uint8_t*>(data);
  const size_t n = length;
  if (__builtin_expect(n - 2 >= 126, 0)) return message_other<crc16_clmul>(p, n);
  return short_register(p, n);
}

ZQ_VCLMUL256 uint32_t crc16_message_vclmul256(const void* data, unsigned int length) {
  const auto* p = static_cast<const uint8_t*>(data);
  const size_t n = length;
  if (__builtin_expect(n - 2 >= 126, 0)) return message_other<crc16_vclmul256>(p, n);
  return short_register(p, n);
}

// With AVX-512: the short paths in the VEX encoding, long messages in 512-bit lanes.
ZQ_VCLMUL256 uint32_t crc16_message_vclmul(const void* data, unsigned int length) {
  const auto* p = static_cast<const uint8_t*>(data);
  const size_t n = length;
  if (__builtin_expect(n - 2 >= 126, 0)) return message_other<crc16_vclmul>(p, n);
  return short_register(p, n);
}

}  // namespace zqdetail
