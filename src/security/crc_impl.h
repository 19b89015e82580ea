// The CRC engines behind mk_crc32 and mk_crc16, exposed for tests and benchmarks.
#ifndef ZQSECURITY_SRC_CRC_IMPL_H
#define ZQSECURITY_SRC_CRC_IMPL_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zqdetail {

// Reflected CRC-32 register update over `n` bytes, starting from register `r`.
uint32_t crc32_bytewise(uint32_t r, const uint8_t* p, size_t n);
uint32_t crc32_slice8(uint32_t r, const uint8_t* p, size_t n);
// Carry-less multiply folding; only call when crc32_clmul_available().
uint32_t crc32_clmul(uint32_t r, const uint8_t* p, size_t n);
bool crc32_clmul_available();
// The same with 512-bit lanes; only call when crc32_vclmul_available().
uint32_t crc32_vclmul(uint32_t r, const uint8_t* p, size_t n);
bool crc32_vclmul_available();
// The same with 256-bit lanes and no AVX-512; only call when
// crc32_vclmul256_available() (true wherever crc32_vclmul_available() is).
uint32_t crc32_vclmul256(uint32_t r, const uint8_t* p, size_t n);
bool crc32_vclmul256_available();

// The engines mk_crc32 and mk_crc16 use on a processor with the given
// instruction sets (a mask of the bits below); crc_features() is this
// processor's mask, and a mask of 0 selects the table engines.
using Crc32Engine = uint32_t (*)(uint32_t r, const uint8_t* p, size_t n);
using Crc16Engine = uint16_t (*)(uint16_t c, const uint8_t* p, size_t n);
enum : unsigned { kCrcClmul = 1, kCrcVclmul = 2, kCrcVclmul256 = 4 };
unsigned crc_features();
Crc32Engine crc32_engine(unsigned features);
Crc16Engine crc16_engine(unsigned features);

// The engine of this processor for a public function: chosen by `choose` on
// the first call and kept, so that every later call costs one load and an
// indirect jump (no guard of a function-local static, no saved registers).
// Threads that make their first calls together store the same engine.
template <class Engine, Engine (*choose)(unsigned)>
struct ChosenEngine {
  template <class R, class... Args>
  static R first(Args... args) {
    const Engine e = choose(crc_features());
    engine.store(e, std::memory_order_relaxed);
    return e(args...);
  }
  static inline std::atomic<Engine> engine{first};
};

// CRC-16 tables: t[0] is the classic table, t[k][i] the state after byte i
// followed by k zero bytes, from state 0; back[t[0][i] & 0xFF] is i (the low
// bytes of the classic table are all different), which undoes a step.
struct Crc16Tables {
  uint16_t t[8][256];
  uint8_t back[256];
};
extern const Crc16Tables crc16_tables;

// The 32-bit CRC-16 register update exactly as mk_crc16 defines it.
uint32_t crc16_bytewise(uint32_t r, const uint8_t* p, size_t n);

// mk_crc16 whole, with the engines for the given instruction sets (one
// function of mk_crc16's own signature, so that a call reaches it straight
// from the caller and a short message makes no call of its own).
using Crc16Message = uint32_t (*)(const void* data, unsigned int length);
Crc16Message crc16_message(unsigned features);
uint32_t crc16_message_clmul(const void* data, unsigned int length);
uint32_t crc16_message_vclmul256(const void* data, unsigned int length);
uint32_t crc16_message_vclmul(const void* data, unsigned int length);

// mk_crc16 of a message of n >= 2 bytes from `state`, its final 16-bit
// state. The low 16 bits of the unmasked register are that state; the high 16
// bits hold the high bytes of the two states before it. A step is
// s' = (s << 8) ^ t[(s >> 8) ^ b] (16 bits), so the low byte of s' names the
// table entry, and from it and byte b the step is undone: two steps back with
// three look-ups.
inline uint32_t crc16_register(uint32_t state, const uint8_t* p, size_t n) {
  const auto& tables = crc16_tables;
  const uint32_t i1 = tables.back[state & 0xFF];
  const uint32_t low1 = ((state >> 8) ^ (tables.t[0][i1] >> 8)) & 0xFF;  // the state before: low byte
  const uint32_t i2 = tables.back[low1];
  return (i2 ^ p[n - 2]) << 24 | (i1 ^ p[n - 1]) << 16 | state;
}

// The 16-bit CRC-16/CCITT state update, eight bytes at a time.
uint16_t crc16_slice8(uint16_t c, const uint8_t* p, size_t n);
// Carry-less multiply folding, 128-bit, 512-bit and 256-bit lanes; the same
// preconditions as the CRC-32 engines of the same names.
uint16_t crc16_clmul(uint16_t c, const uint8_t* p, size_t n);
uint16_t crc16_vclmul(uint16_t c, const uint8_t* p, size_t n);
uint16_t crc16_vclmul256(uint16_t c, const uint8_t* p, size_t n);

}  // namespace zqdetail

#endif
