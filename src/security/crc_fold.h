// Carry-less multiply folding shared by the CRC engines.
//
// Folding after Intel's white paper "Fast CRC Computation for Generic
// Polynomials Using PCLMULQDQ Instruction" (2009): a message is cut into
// 128-bit lanes, and a lane is carried forward over a distance of D bits by
// multiplying its two 64-bit halves by constants that are powers of x modulo
// the CRC polynomial, and XORing the products onto the lane D bits later. What
// is left is one lane congruent to the whole message; each CRC reduces it in
// its own way.
//
// The loops are the same for every CRC; a Lanes policy says how 16 message
// bytes become a lane: as they lie for a bit-reflected CRC (byte 0 holds the
// highest powers), byte-reversed for a CRC that takes the most significant bit
// first (byte 15 holds the highest powers). The constants say which multiplier
// goes with which half: `lo` multiplies the lane's low 64 bits, `hi` its high
// 64 bits.
#ifndef ZQSECURITY_SRC_CRC_FOLD_H
#define ZQSECURITY_SRC_CRC_FOLD_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#define ZQ_CLMUL __attribute__((target("pclmul,ssse3,sse4.1")))
#define ZQ_VCLMUL __attribute__((target("avx512f,avx512bw,vpclmulqdq,pclmul,ssse3,sse4.1")))
// 256-bit carry-less multiplication without AVX-512 (as on AMD Zen 3); also
// the VEX encoding of the 128-bit helpers for short messages.
#define ZQ_VCLMUL256 __attribute__((target("avx2,vpclmulqdq,pclmul,ssse3,sse4.1")))
// Every helper here is inlined into the engine that uses it, so that it is
// compiled for that engine's instruction set: an out-of-line copy in SSE
// encoding, called with the upper halves of the 512-bit registers in use,
// would pay a state transition per instruction on many processors.
#define ZQ_FOLD_INLINE inline __attribute__((always_inline))

namespace zqdetail {

// Fold multipliers for the distances the loops use.
struct FoldKeys {
  struct Pair {
    long long lo, hi;
  };
  Pair d2048, d1024, d512, d384, d256, d128;
};

// Bytes as they lie in memory: the lane of a bit-reflected CRC.
struct ReflectedLanes {
  ZQ_CLMUL ZQ_FOLD_INLINE static __m128i order(__m128i x) { return x; }
  ZQ_VCLMUL256 ZQ_FOLD_INLINE static __m256i order(__m256i x) { return x; }
  ZQ_VCLMUL ZQ_FOLD_INLINE static __m512i order(__m512i x) { return x; }
};

// Each 16 bytes reversed: the lane of a most-significant-bit-first CRC.
struct NormalLanes {
  ZQ_CLMUL ZQ_FOLD_INLINE static __m128i order(__m128i x) {
    return _mm_shuffle_epi8(x, _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0));
  }
  ZQ_VCLMUL256 ZQ_FOLD_INLINE static __m256i order(__m256i x) {
    const long long lo = 0x08090a0b0c0d0e0f, hi = 0x0001020304050607;
    return _mm256_shuffle_epi8(x, _mm256_set_epi64x(hi, lo, hi, lo));
  }
  ZQ_VCLMUL ZQ_FOLD_INLINE static __m512i order(__m512i x) {
    const long long lo = 0x08090a0b0c0d0e0f, hi = 0x0001020304050607;
    return _mm512_shuffle_epi8(x, _mm512_set_epi64(hi, lo, hi, lo, hi, lo, hi, lo));
  }
};

namespace fold {

ZQ_CLMUL ZQ_FOLD_INLINE __m128i keys(FoldKeys::Pair k) { return _mm_set_epi64x(k.hi, k.lo); }

// The low 32 bits of each 64-bit half, by a blend with zero (no constant to
// build or load).
ZQ_CLMUL ZQ_FOLD_INLINE __m128i low32(__m128i x) { return _mm_blend_epi16(x, _mm_setzero_si128(), 0xCC); }

ZQ_CLMUL ZQ_FOLD_INLINE __m128i load(const uint8_t* q) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q)); }

template <class Lanes>
ZQ_CLMUL ZQ_FOLD_INLINE __m128i lane(const uint8_t* q) {
  return Lanes::order(load(q));
}

// Carries the lane `x` forward by the distance encoded in `k` onto `next`.
ZQ_CLMUL ZQ_FOLD_INLINE __m128i step(__m128i x, __m128i k, __m128i next) {
  const __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

ZQ_VCLMUL256 ZQ_FOLD_INLINE __m256i keys256(FoldKeys::Pair k) { return _mm256_set_epi64x(k.hi, k.lo, k.hi, k.lo); }

ZQ_VCLMUL256 ZQ_FOLD_INLINE __m256i step256(__m256i x, __m256i k, __m256i next) {
  const __m256i lo = _mm256_clmulepi64_epi128(x, k, 0x00);
  const __m256i hi = _mm256_clmulepi64_epi128(x, k, 0x11);
  return _mm256_xor_si256(_mm256_xor_si256(hi, lo), next);
}

template <class Lanes>
ZQ_VCLMUL256 ZQ_FOLD_INLINE __m256i lane256(const uint8_t* q) {
  return Lanes::order(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(q)));
}

ZQ_VCLMUL ZQ_FOLD_INLINE __m512i keys512(FoldKeys::Pair k) {
  return _mm512_set_epi64(k.hi, k.lo, k.hi, k.lo, k.hi, k.lo, k.hi, k.lo);
}

ZQ_VCLMUL ZQ_FOLD_INLINE __m512i step512(__m512i x, __m512i k, __m512i next) {
  const __m512i lo = _mm512_clmulepi64_epi128(x, k, 0x00);
  const __m512i hi = _mm512_clmulepi64_epi128(x, k, 0x11);
  return _mm512_ternarylogic_epi64(lo, hi, next, 0x96);  // three-way XOR
}

template <class Lanes>
ZQ_VCLMUL ZQ_FOLD_INLINE __m512i lane512(const uint8_t* q) {
  return Lanes::order(_mm512_loadu_si512(q));
}

}  // namespace fold

// Folds the last n < 16 bytes of a message, which end at `end`, onto the
// lane `x` of the 16 bytes before them, and returns the lane of the message's
// last 16 bytes. The lane and the tail are the message's last 16 + n bytes.
// Split them into the first n bytes (after 16 - n leading zeros, which change
// nothing) and the last 16, read from the buffer where they overlap the bytes
// already folded, and fold the first onto the last. The shuffles work on bytes
// in memory order.
template <class Lanes>
ZQ_CLMUL ZQ_FOLD_INLINE __m128i fold_tail(__m128i x, const uint8_t* end, size_t n, __m128i k128) {
  const __m128i mem = Lanes::order(x);
  const __m128i iota = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const auto shift = static_cast<char>(n);
  __m128i down = _mm_add_epi8(iota, _mm_set1_epi8(shift));  // byte i from i + n; past 15: zero
  down = _mm_or_si128(down, _mm_cmpgt_epi8(down, _mm_set1_epi8(15)));
  const __m128i up = _mm_sub_epi8(iota, _mm_set1_epi8(static_cast<char>(16 - shift)));  // negative: zero
  const __m128i top = _mm_cmpgt_epi8(iota, _mm_set1_epi8(static_cast<char>(15 - shift)));
  const __m128i last = _mm_or_si128(_mm_shuffle_epi8(mem, down), _mm_and_si128(fold::load(end - 16), top));
  return fold::step(Lanes::order(_mm_shuffle_epi8(mem, up)), k128, Lanes::order(last));
}

// Folds the remaining 16-byte blocks at `p` onto the lane `x`, then the last
// 0-15 bytes, and returns the lane of the message's last 16 bytes. At least 16
// bytes of the message lie before `p`.
template <class Lanes>
ZQ_CLMUL ZQ_FOLD_INLINE __m128i fold_rest(__m128i x, const uint8_t* p, size_t n, const FoldKeys& keys) {
  const __m128i k128 = fold::keys(keys.d128);
  while (n >= 16) {
    x = fold::step(x, k128, fold::lane<Lanes>(p));
    p += 16;
    n -= 16;
  }
  if (n == 0) return x;
  return fold_tail<Lanes>(x, p + n, n, k128);
}

// A message of 16-127 bytes folded to the lane of its last 16 bytes, `start`
// XORed onto the first lane, one block after the other: below 128 bytes the
// four parallel lanes of fold_lanes cost more to set up and join than they
// save. No jump is taken below 32 bytes but to skip an empty tail.
template <class Lanes>
ZQ_CLMUL ZQ_FOLD_INLINE __m128i fold_short(__m128i start, const uint8_t* p, size_t n, const FoldKeys& keys) {
  const __m128i k128 = fold::keys(keys.d128);
  __m128i x = _mm_xor_si128(fold::lane<Lanes>(p), start);
  if (n >= 32) {
    x = fold::step(x, k128, fold::lane<Lanes>(p + 16));
    for (const uint8_t* q = p + 32; q + 16 <= p + n; q += 16) x = fold::step(x, k128, fold::lane<Lanes>(q));
  }
  if (n % 16 == 0) return x;
  return fold_tail<Lanes>(x, p + n, n % 16, k128);
}

// The whole message of n >= 16 bytes folded to the lane of its last 16 bytes;
// `start` (the CRC register placed as a lane) is XORed onto the first lane.
// Four lanes run in parallel over 64-byte blocks.
template <class Lanes>
ZQ_CLMUL ZQ_FOLD_INLINE __m128i fold_lanes(__m128i start, const uint8_t* p, size_t n, const FoldKeys& keys) {
  __m128i x1 = _mm_xor_si128(fold::lane<Lanes>(p), start);
  if (n < 64) return fold_rest<Lanes>(x1, p + 16, n - 16, keys);
  const __m128i k512 = fold::keys(keys.d512), k128 = fold::keys(keys.d128);
  __m128i x2 = fold::lane<Lanes>(p + 16);
  __m128i x3 = fold::lane<Lanes>(p + 32);
  __m128i x4 = fold::lane<Lanes>(p + 48);
  p += 64;
  n -= 64;
  while (n >= 64) {
    x1 = fold::step(x1, k512, fold::lane<Lanes>(p));
    x2 = fold::step(x2, k512, fold::lane<Lanes>(p + 16));
    x3 = fold::step(x3, k512, fold::lane<Lanes>(p + 32));
    x4 = fold::step(x4, k512, fold::lane<Lanes>(p + 48));
    p += 64;
    n -= 64;
  }
  x1 = fold::step(x1, k128, x2);
  x1 = fold::step(x1, k128, x3);
  x1 = fold::step(x1, k128, x4);
  return fold_rest<Lanes>(x1, p, n, keys);
}

// How far ahead of the 512-bit loop memory is asked for (a hint: reading
// past the end of the buffer this way never faults).
constexpr size_t kPrefetchAhead = 2048;

// The same for n >= 128 bytes with four 256-bit lanes (eight 128-bit lanes)
// over 128-byte blocks.
template <class Lanes>
ZQ_VCLMUL256 ZQ_FOLD_INLINE __m128i fold_lanes256(__m128i start, const uint8_t* p, size_t n, const FoldKeys& keys) {
  const __m256i k1024 = fold::keys256(keys.d1024), k256 = fold::keys256(keys.d256);
  __m256i x0 = _mm256_xor_si256(fold::lane256<Lanes>(p), _mm256_zextsi128_si256(start));
  __m256i x1 = fold::lane256<Lanes>(p + 32);
  __m256i x2 = fold::lane256<Lanes>(p + 64);
  __m256i x3 = fold::lane256<Lanes>(p + 96);
  p += 128;
  n -= 128;
  while (n >= 128) {
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead + 64, _MM_HINT_T0);
    x0 = fold::step256(x0, k1024, fold::lane256<Lanes>(p));
    x1 = fold::step256(x1, k1024, fold::lane256<Lanes>(p + 32));
    x2 = fold::step256(x2, k1024, fold::lane256<Lanes>(p + 64));
    x3 = fold::step256(x3, k1024, fold::lane256<Lanes>(p + 96));
    p += 128;
    n -= 128;
  }
  x0 = fold::step256(x0, k256, x1);
  x0 = fold::step256(x0, k256, x2);
  x0 = fold::step256(x0, k256, x3);
  while (n >= 32) {
    x0 = fold::step256(x0, k256, fold::lane256<Lanes>(p));
    p += 32;
    n -= 32;
  }
  // The two 128-bit lanes of x0 lie 128 and 0 bits before the end.
  const __m128i x = fold::step(_mm256_castsi256_si128(x0), fold::keys(keys.d128), _mm256_extracti128_si256(x0, 1));
  return fold_rest<Lanes>(x, p, n, keys);
}

// The same for n >= 256 bytes with four 512-bit lanes (sixteen 128-bit lanes)
// over 256-byte blocks.
template <class Lanes>
ZQ_VCLMUL ZQ_FOLD_INLINE __m128i fold_lanes512(__m128i start, const uint8_t* p, size_t n, const FoldKeys& keys) {
  const __m512i k2048 = fold::keys512(keys.d2048), k512 = fold::keys512(keys.d512);
  __m512i x0 = _mm512_xor_si512(fold::lane512<Lanes>(p), _mm512_zextsi128_si512(start));
  __m512i x1 = fold::lane512<Lanes>(p + 64);
  __m512i x2 = fold::lane512<Lanes>(p + 128);
  __m512i x3 = fold::lane512<Lanes>(p + 192);
  p += 256;
  n -= 256;
  while (n >= 256) {
    // Ask for the blocks a few kilobytes ahead: a long message comes from
    // memory, and the hardware prefetcher alone leaves the multiplier waiting.
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead + 64, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead + 128, _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchAhead + 192, _MM_HINT_T0);
    x0 = fold::step512(x0, k2048, fold::lane512<Lanes>(p));
    x1 = fold::step512(x1, k2048, fold::lane512<Lanes>(p + 64));
    x2 = fold::step512(x2, k2048, fold::lane512<Lanes>(p + 128));
    x3 = fold::step512(x3, k2048, fold::lane512<Lanes>(p + 192));
    p += 256;
    n -= 256;
  }
  x0 = fold::step512(x0, k512, x1);
  x0 = fold::step512(x0, k512, x2);
  x0 = fold::step512(x0, k512, x3);
  while (n >= 64) {
    x0 = fold::step512(x0, k512, fold::lane512<Lanes>(p));
    p += 64;
    n -= 64;
  }
  // The four 128-bit lanes of x0 lie 384, 256, 128 and 0 bits before the end.
  alignas(64) __m128i lanes[4];
  _mm512_store_si512(lanes, x0);
  __m128i x = fold::step(lanes[2], fold::keys(keys.d128), lanes[3]);
  x = fold::step(lanes[1], fold::keys(keys.d256), x);
  x = fold::step(lanes[0], fold::keys(keys.d384), x);
  return fold_rest<Lanes>(x, p, n, keys);
}

}  // namespace zqdetail

#endif
