// CRC throughput as a caller sees it: mk_crc32 against ISA-L's
// crc32_gzip_refl (the strongest CRC in Debian), zlib and Boost.CRC, and
// mk_crc16 against its byte loop, each called directly (direct_call.h) on
// messages from 16 bytes to 64 MiB. A message up to 64 KiB starts at offset
// 0, 1, ..., 63 of one buffer in turn (cache-resident, as a frame just
// received is); a 64 MiB message is read from memory (the buffer is flushed
// from the caches before each pass). ISA-L computes the gzip CRC (start ~0,
// final inversion): it is called with start ~0 and its result inverted, which
// is this library's CRC, and the bench checks that the values agree. Every
// figure is the median of 11 passes; the passes of all contenders alternate,
// and a ratio is the median of the ratios of passes made one after the other
// (on a machine shared with other work, the load drifts between passes).
// The bound at 64 MiB is the read bandwidth, measured by a pass that only
// loads the bytes. "call alone" is mk_crc32 on no bytes: the cost of the call
// and of the timing loop, which every short-message figure includes.
#include <immintrin.h>
#include <zlib.h>
#include "bench_util.h"
#include "direct_call.h"
#include <zqsecurity/crc16.h>
#include <zqsecurity/crc32.h>

#include <boost/crc.hpp>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#if __has_include(<isa-l/crc.h>)
#include <isa-l/crc.h>
#define ZQ_HAVE_ISAL 1
#endif

namespace {

constexpr size_t kBig = 64u << 20;
constexpr size_t kShortBytes = 4u << 20;  // bytes per pass for the cache-resident sizes
constexpr int kPasses = 11;

uint32_t bytewise_crc32(const uint8_t* p, size_t n) {
  uint32_t r = 0;
  for (size_t i = 0; i < n; ++i) r = crc32_tab[(p[i] ^ r) & 0xFF] ^ (r >> 8);
  return r;
}

uint32_t bytewise_crc16(const uint8_t* p, size_t n) {
  uint32_t r = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) r = crc16_tab[(p[i] ^ (r >> 8)) & 0xFF] ^ (r << 8);
  return r;
}

// Puts `n` bytes out of every cache level, so a pass over a large buffer
// reads memory whatever the pass before it left behind.
void evict(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; i += 64) _mm_clflush(p + i);
  _mm_mfence();
}

// Only loads the bytes (SSE2, which every x86-64 has), prefetching as the
// CRC engines do: the read rate a checksum of memory cannot beat.
uint64_t read_all(const uint8_t* p, size_t n) {
  __m128i a = _mm_setzero_si128(), b = a, c = a, d = a;
  for (size_t i = 0; i + 64 <= n; i += 64) {
    _mm_prefetch(reinterpret_cast<const char*>(p + i + 2048), _MM_HINT_T0);
    a = _mm_xor_si128(a, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)));
    b = _mm_xor_si128(b, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i + 16)));
    c = _mm_xor_si128(c, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i + 32)));
    d = _mm_xor_si128(d, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i + 48)));
  }
  return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_xor_si128(_mm_xor_si128(a, b), _mm_xor_si128(c, d))));
}

// GB/s of one pass of `crc` (a lambda of (pointer, size)) over messages of `size` bytes.
template <class Crc>
double pass(Crc crc, const uint8_t* base, size_t size) {
  if (size >= kBig) {
    evict(base, size + 64);
    return static_cast<double>(size) / bench::time_calls([&](size_t) { return crc(base, size); }, 1) / 1e9;
  }
  const size_t calls = kShortBytes / size;
  return static_cast<double>(calls * size) /
         bench::time_calls([&](size_t i) { return crc(base + (i & 63), size); }, calls) / 1e9;
}

struct Figures {
  std::vector<double> gbps;
  double median() const { return gbps.empty() ? 0.0 : bench::median(gbps); }
  // The median of this contender's passes over the other's, pass by pass.
  double over(const Figures& other) const {
    if (gbps.empty() || other.gbps.size() != gbps.size()) return NAN;
    std::vector<double> ratios;
    for (size_t i = 0; i < gbps.size(); ++i) ratios.push_back(gbps[i] / other.gbps[i]);
    return bench::median(ratios);
  }
};

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::vector<uint8_t> buffer(kBig + 64);
  std::mt19937_64 rng(42);
  for (size_t i = 0; i < buffer.size(); i += 8) {
    const uint64_t v = rng();
    for (int k = 0; k < 8; ++k) buffer[i + k] = static_cast<uint8_t>(v >> (8 * k));
  }
  const uint8_t* p = buffer.data();

  // The contenders, each the call a user writes.
  auto ours32 = [](const uint8_t* q, size_t n) { return mk_crc32(q, static_cast<unsigned>(n)); };
  auto ours16 = [](const uint8_t* q, size_t n) { return mk_crc16(q, static_cast<unsigned>(n)); };
#ifdef ZQ_HAVE_ISAL
  auto isal = [](const uint8_t* q, size_t n) { return ~crc32_gzip_refl(~0u, q, n); };
#endif
  auto zlib = [](const uint8_t* q, size_t n) { return static_cast<uint32_t>(crc32(0L, q, static_cast<uInt>(n))); };
  auto boost = [](const uint8_t* q, size_t n) {
    boost::crc_32_type crc;
    crc.process_bytes(q, n);
    return crc.checksum();
  };

  for (size_t n : {0, 1, 15, 16, 17, 63, 64, 255, 256, 1500, 65536}) {
    for (size_t off : {0, 3, 61}) {
      if (ours32(p + off, n) != bytewise_crc32(p + off, n) || ours16(p + off, n) != bytewise_crc16(p + off, n)) {
        std::printf("MISMATCH between mk_crc and the byte-at-a-time definition at %zu bytes\n", n);
        return 1;
      }
#ifdef ZQ_HAVE_ISAL
      if (isal(p + off, n) != ours32(p + off, n)) {
        std::printf("MISMATCH between ISA-L (adjusted) and mk_crc32 at %zu bytes\n", n);
        return 1;
      }
#endif
    }
  }

  std::vector<double> alone;
  for (int i = 0; i < kPasses; ++i) {
    const size_t calls = 1u << 20;
    alone.push_back(bench::time_calls([&](size_t k) { return mk_crc32(p + (k & 63), 0); }, calls) / calls * 1e9);
  }
  const double call_ns = bench::median(alone);
  std::printf("CRC throughput, direct calls, median of %d passes (GB/s); call alone (mk_crc32, 0 bytes) %.2f ns\n",
              kPasses, call_ns);
  std::printf("  %-8s %8s %8s %8s %8s %8s %9s  %s\n", "size", "mk_crc32", "ISA-L", "zlib", "boost", "bytes32",
              "ours/ISAL", "| mk_crc16  bytes16  ratio");
  for (size_t size : {size_t{16}, size_t{64}, size_t{256}, size_t{1500}, size_t{65536}, kBig}) {
    Figures o32, i32, z32, b32, y32, o16, y16, read;
    for (int i = 0; i < kPasses; ++i) {
      o32.gbps.push_back(pass(ours32, p, size));
#ifdef ZQ_HAVE_ISAL
      i32.gbps.push_back(pass(isal, p, size));
#endif
      z32.gbps.push_back(pass(zlib, p, size));
      o16.gbps.push_back(pass(ours16, p, size));
      if (size <= 65536) {  // the slow loops only where they are quick
        b32.gbps.push_back(pass(boost, p, size));
        y32.gbps.push_back(pass(bytewise_crc32, p, size));
        y16.gbps.push_back(pass(bytewise_crc16, p, size));
      } else {
        read.gbps.push_back(pass(read_all, p, size));
      }
    }
    const double ours = o32.median(), peer = i32.median(), c16 = o16.median(), b16 = y16.median();
    const double ratio32 = o32.over(i32), ratio16 = o16.over(y16);
    std::printf("  %-8zu %8.2f %8.2f %8.2f %8.2f %8.2f %9.2f  | %8.2f %8.2f %6.1fx%s\n", size, ours, peer,
                z32.median(), b32.median(), y32.median(), ratio32, c16, b16, std::isnan(ratio16) ? 0.0 : ratio16,
                size == kBig ? bench::text("   read %.2f", read.median()).c_str() : "");
    const std::string work = size == kBig ? "64 MiB from memory" : bench::text("%zu B", size);
    const std::string bound =
        size == kBig ? bench::text("read %.2f GB/s (ours %.0f%%)", read.median(), 100 * ours / read.median())
                     : bench::text("call alone %.1f ns, this CRC %.1f ns", call_ns, size / ours);
#ifdef ZQ_HAVE_ISAL
    bench::summary({"CRC-32 " + work, "ISA-L crc32_gzip_refl (adjusted)", bench::text("%.2f GB/s", peer),
                    bench::text("%.2f GB/s", ours), ratio32, size <= 256 || size == kBig ? 1.0 : NAN, "ISA-L",
                    bound});
#else
    bench::summary({"CRC-32 " + work, "ISA-L: not installed (libisal-dev)", "n/a", bench::text("%.2f GB/s", ours), NAN,
                    1.0, "ISA-L", bound});
#endif
    if (size <= 65536) {
      bench::summary({"CRC-16 " + work, "byte loop (the definition)", bench::text("%.2f GB/s", b16),
                      bench::text("%.2f GB/s", c16), ratio16, size == 16 ? 4.0 : NAN, "byte loop", "-"});
    }
  }
  return 0;
}
