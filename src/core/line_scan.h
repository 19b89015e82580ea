// Finding the end of a text line: the first "\n" or "\r" in a byte range, in
// one pass at the speed of memchr (16 bytes per step with SSE2).
#ifndef ZQCOMMON_LINE_SCAN_H
#define ZQCOMMON_LINE_SCAN_H

#include <cstddef>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zqdetail {

// The first '\n' or '\r' in [p, end), or `end` when there is none.
inline const char* find_line_end(const char* p, const char* end) {
#if defined(__SSE2__)
  const __m128i nl = _mm_set1_epi8('\n');
  const __m128i cr = _mm_set1_epi8('\r');
  while (end - p >= 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const int hits = _mm_movemask_epi8(
        _mm_or_si128(_mm_cmpeq_epi8(chunk, nl), _mm_cmpeq_epi8(chunk, cr)));
    if (hits != 0) return p + __builtin_ctz(static_cast<unsigned>(hits));
    p += 16;
  }
#endif
  for (; p < end; ++p) {
    if (*p == '\n' || *p == '\r') return p;
  }
  return end;
}

}  // namespace zqdetail

#endif
