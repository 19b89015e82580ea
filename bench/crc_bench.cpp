// CRC throughput: mk_crc32 and mk_crc16 against zlib's crc32, Boost.CRC's
// crc_32_type and plain byte-at-a-time table loops, all over the same 64 MiB
// buffer in one run. Each figure is the best of several passes.
#include <zlib.h>
#include <zqsecurity/crc16.h>
#include <zqsecurity/crc32.h>

#include <boost/crc.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

namespace {

constexpr size_t kSize = 64u << 20;
constexpr int kPasses = 7;

volatile uint32_t g_sink;

double best_gbps(const std::function<uint32_t()>& run) {
  double best = 0;
  for (int i = 0; i < kPasses; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    g_sink = run();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    best = std::max(best, static_cast<double>(kSize) / s / 1e9);
  }
  return best;
}

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

}  // namespace

int main() {
  std::vector<uint8_t> buffer(kSize);
  std::mt19937_64 rng(42);
  for (size_t i = 0; i < kSize; i += 8) {
    const uint64_t v = rng();
    for (int k = 0; k < 8; ++k) buffer[i + k] = static_cast<uint8_t>(v >> (8 * k));
  }
  const uint8_t* p = buffer.data();
  const unsigned n = static_cast<unsigned>(kSize);

  if (mk_crc32(p, n) != bytewise_crc32(p, n) || mk_crc16(p, n) != bytewise_crc16(p, n)) {
    std::puts("MISMATCH between mk_crc and the byte-at-a-time definition");
    return 1;
  }

  const double ours32 = best_gbps([&] { return mk_crc32(p, n); });
  const double zlib32 = best_gbps([&] { return static_cast<uint32_t>(crc32(0L, p, n)); });
  const double boost32 = best_gbps([&] {
    boost::crc_32_type crc;
    crc.process_bytes(p, kSize);
    return crc.checksum();
  });
  const double bytes32 = best_gbps([&] { return bytewise_crc32(p, kSize); });
  const double ours16 = best_gbps([&] { return mk_crc16(p, n); });
  const double bytes16 = best_gbps([&] { return bytewise_crc16(p, kSize); });

  std::printf("CRC throughput over %zu MiB, best of %d passes (GB/s)\n", kSize >> 20, kPasses);
  std::printf("  mk_crc32             %7.2f\n", ours32);
  std::printf("  zlib crc32           %7.2f   mk_crc32/zlib  = %5.2f\n", zlib32, ours32 / zlib32);
  std::printf("  boost crc_32_type    %7.2f   mk_crc32/boost = %5.2f\n", boost32, ours32 / boost32);
  std::printf("  byte loop crc32      %7.2f   mk_crc32/bytes = %5.2f\n", bytes32, ours32 / bytes32);
  std::printf("  mk_crc16             %7.2f\n", ours16);
  std::printf("  byte loop crc16      %7.2f   mk_crc16/bytes = %5.2f\n", bytes16, ours16 / bytes16);
  return 0;
}
