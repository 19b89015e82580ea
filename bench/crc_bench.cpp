// CRC throughput: mk_crc32 against ISA-L's crc32_gzip_refl (the strongest CRC
// in Debian), zlib, Boost.CRC and the byte loop; mk_crc16 against its byte
// loop. Message sizes from 16 bytes to 64 MiB; short messages are taken one
// after another from a 1 MiB buffer (cache-resident), each call a separate
// message. ISA-L computes the gzip CRC (start ~0, final inversion): it is
// called with start ~0 and its result inverted, which is this library's CRC
// (start 0, no inversion), and the bench checks that the values agree.
// Every figure is the median of 5 passes; the passes of all contenders
// alternate. The bound at 64 MiB is the read bandwidth, measured here by a
// pass that only loads the bytes, alternating with the CRC passes so that it
// sees the same machine load. For short messages the bound is the cost of the
// call itself (mk_crc16 on no bytes through the same harness): no engine can
// beat the byte loop by more than that.
#include <immintrin.h>
#include <zlib.h>
#include "bench_util.h"
#include <zqsecurity/crc16.h>
#include <zqsecurity/crc32.h>

#include <algorithm>
#include <boost/crc.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#if __has_include(<isa-l/crc.h>)
#include <isa-l/crc.h>
#define ZQ_HAVE_ISAL 1
#endif

namespace {

using bench::median;
using bench::seconds;

constexpr size_t kBig = 64u << 20;
constexpr size_t kWindow = 1u << 20;
constexpr int kPasses = 5;

volatile uint32_t g_sink;

using Crc = std::function<uint32_t(const uint8_t*, size_t)>;

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

#ifdef ZQ_HAVE_ISAL
uint32_t isal_crc32(const uint8_t* p, size_t n) { return ~crc32_gzip_refl(~0u, p, n); }
#endif

// Puts `n` bytes out of every cache level, so a pass over a large buffer
// reads memory whatever the pass before it left behind (the caches of this
// machine can hold much of a 64 MiB buffer).
void evict(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; i += 64) _mm_clflush(p + i);
  _mm_mfence();
}

// GB/s of one pass: messages of `size` bytes, `total` bytes in all. A
// message larger than the window is read from memory, not from a cache.
double pass(const Crc& crc, const uint8_t* base, size_t size, size_t total) {
  const size_t span = size >= kWindow ? size : kWindow - kWindow % size;
  if (size >= kWindow) evict(base, span);
  uint32_t acc = 0;
  const auto t0 = std::chrono::steady_clock::now();
  for (size_t done = 0, off = 0; done < total; done += size) {
    acc ^= crc(base + off, size);
    off += size;
    if (off >= span) off = 0;
  }
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  g_sink = acc;
  return static_cast<double>(total) / s / 1e9;
}

__attribute__((target("avx512f"))) uint64_t read_all(const uint8_t* p, size_t n) {
  __m512i a = _mm512_setzero_si512(), b = a, c = a, d = a;
  for (size_t i = 0; i + 256 <= n; i += 256) {
    // The same prefetching as the CRC engines, so the bound is the best read.
    for (int line = 0; line < 4; ++line) _mm_prefetch(reinterpret_cast<const char*>(p + i + 2048 + 64 * line), _MM_HINT_T0);
    a = _mm512_xor_si512(a, _mm512_loadu_si512(p + i));
    b = _mm512_xor_si512(b, _mm512_loadu_si512(p + i + 64));
    c = _mm512_xor_si512(c, _mm512_loadu_si512(p + i + 128));
    d = _mm512_xor_si512(d, _mm512_loadu_si512(p + i + 192));
  }
  return static_cast<uint64_t>(_mm512_reduce_add_epi64(_mm512_xor_si512(_mm512_xor_si512(a, b), _mm512_xor_si512(c, d))));
}


struct Row {
  const char* name;
  Crc crc;
  std::vector<double> gbps;
};

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::vector<uint8_t> buffer(kBig);
  std::mt19937_64 rng(42);
  for (size_t i = 0; i < kBig; i += 8) {
    const uint64_t v = rng();
    for (int k = 0; k < 8; ++k) buffer[i + k] = static_cast<uint8_t>(v >> (8 * k));
  }
  const uint8_t* p = buffer.data();
  auto ours32 = [](const uint8_t* q, size_t n) { return mk_crc32(q, static_cast<unsigned>(n)); };
  auto ours16 = [](const uint8_t* q, size_t n) { return mk_crc16(q, static_cast<unsigned>(n)); };

  for (size_t n : {size_t{0}, size_t{1}, size_t{15}, size_t{16}, size_t{1500}, kBig}) {
    if (ours32(p + 3, n) != bytewise_crc32(p + 3, n) || ours16(p + 3, n) != bytewise_crc16(p + 3, n)) {
      std::printf("MISMATCH between mk_crc and the byte-at-a-time definition at %zu bytes\n", n);
      return 1;
    }
#ifdef ZQ_HAVE_ISAL
    if (isal_crc32(p + 3, n) != ours32(p + 3, n)) {
      std::printf("MISMATCH between ISA-L (adjusted) and mk_crc32 at %zu bytes\n", n);
      return 1;
    }
#endif
  }

  std::printf("CRC throughput, median of %d passes (GB/s); the read pass (the bound) alternates with them\n",
              kPasses);
  std::printf("  %-8s %8s %8s %8s %8s %8s %8s  %s\n", "size", "mk_crc32", "ISA-L", "zlib", "boost", "bytes32",
              "ours/ISAL", "| mk_crc16  bytes16  ratio");
  for (size_t size : {size_t{16}, size_t{64}, size_t{256}, size_t{1500}, size_t{65536}, kBig}) {
    const size_t total = size == kBig ? kBig : 16u << 20;
    std::vector<Row> rows = {
        {"read", [](const uint8_t* q, size_t n) { return static_cast<uint32_t>(read_all(q, n)); }, {}},
        {"call", [](const uint8_t* q, size_t) { return mk_crc16(q, 0); }, {}},
        {"mk_crc32", ours32, {}},
#ifdef ZQ_HAVE_ISAL
        {"ISA-L", isal_crc32, {}},
#endif
        {"zlib", [](const uint8_t* q, size_t n) { return static_cast<uint32_t>(crc32(0L, q, n)); }, {}},
        {"boost",
         [](const uint8_t* q, size_t n) {
           boost::crc_32_type crc;
           crc.process_bytes(q, n);
           return crc.checksum();
         },
         {}},
        {"bytes32", bytewise_crc32, {}},
        {"mk_crc16", ours16, {}},
        {"bytes16", bytewise_crc16, {}},
    };
    for (int i = 0; i < kPasses; ++i) {
      for (Row& row : rows) {
        const std::string name = row.name;
        if ((name != "read" || size == kBig) && (name != "call" || size <= 64)) {
          row.gbps.push_back(pass(row.crc, p, size, total));
        }
      }
    }
    auto figure = [&](const char* name) {
      for (Row& row : rows) {
        if (std::string(name) == row.name && !row.gbps.empty()) return median(row.gbps);
      }
      return 0.0;
    };
    const double ours = figure("mk_crc32"), isal = figure("ISA-L");
    const double o16 = figure("mk_crc16"), b16 = figure("bytes16");
    std::printf("  %-8zu %8.2f %8.2f %8.2f %8.2f %8.2f %8.2f  | %8.2f %8.2f %6.1fx%s\n", size, ours, isal,
                figure("zlib"), figure("boost"), figure("bytes32"), isal > 0 ? ours / isal : 0.0, o16, b16, o16 / b16,
                size == kBig ? bench::text("   read %.2f", figure("read")).c_str() : "");
    const double bandwidth = figure("read");
    auto bound = [&](double ours_gbps) {
      return size == kBig ? bench::text("read %.2f GB/s (ours %.0f%%)", bandwidth, 100 * ours_gbps / bandwidth) : "-";
    };
    const std::string work = bench::text("%zu B", size);
    if (isal > 0) {
      bench::summary({"CRC-32 " + work, "ISA-L crc32_gzip_refl (adjusted)", bench::text("%.2f GB/s", isal),
                      bench::text("%.2f GB/s", ours), ours / isal, 1.0, "ISA-L", bound(ours)});
    } else {
      bench::summary({"CRC-32 " + work, "ISA-L: not installed (libisal-dev)", "n/a", bench::text("%.2f GB/s", ours),
                      NAN, 1.0, "ISA-L", bound(ours)});
    }
    bench::summary({"CRC-16 " + work, "byte loop (the definition)", bench::text("%.2f GB/s", b16),
                    bench::text("%.2f GB/s", o16), o16 / b16, size == kBig ? 10.0 : 4.0, "byte loop",
                    size <= 64 ? bench::text("the call alone: at most %.1fx", figure("call") / b16) : bound(o16)});
  }
  return 0;
}
