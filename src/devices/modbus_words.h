// Frame fields, and register words to values and back in the word orders of
// DevicePoint. Shared by the polling client and the server.
#ifndef ZQDEVICES_MODBUS_WORDS_H
#define ZQDEVICES_MODBUS_WORDS_H

#include <cstdint>
#include <cstring>

#include "zqdevices/DeviceConfig.h"

namespace zqdevices {
namespace details {

// A 16-bit field of a frame (big-endian, as Modbus sends them).
inline unsigned int word(const uint8_t* p) { return static_cast<unsigned int>(p[0] << 8 | p[1]); }

// The 32 bits of two registers as they arrived, in `order`.
inline uint32_t join_words(const uint16_t* r, DevicePoint::Order order) {
  auto swap = [](uint16_t w) { return static_cast<uint16_t>((w >> 8) | (w << 8)); };
  switch (order) {
    case DevicePoint::abcd: return (uint32_t(r[0]) << 16) | r[1];
    case DevicePoint::cdab: return (uint32_t(r[1]) << 16) | r[0];
    case DevicePoint::badc: return (uint32_t(swap(r[0])) << 16) | swap(r[1]);
    default: return (uint32_t(swap(r[1])) << 16) | swap(r[0]);
  }
}

// The inverse of join_words.
inline void split_words(uint32_t v, DevicePoint::Order order, uint16_t* r) {
  auto swap = [](uint16_t w) { return static_cast<uint16_t>((w >> 8) | (w << 8)); };
  const uint16_t hi = static_cast<uint16_t>(v >> 16), lo = static_cast<uint16_t>(v);
  switch (order) {
    case DevicePoint::abcd: r[0] = hi; r[1] = lo; break;
    case DevicePoint::cdab: r[0] = lo; r[1] = hi; break;
    case DevicePoint::badc: r[0] = swap(hi); r[1] = swap(lo); break;
    default: r[0] = swap(lo); r[1] = swap(hi); break;
  }
}

// The raw (unscaled) value of a register point.
inline double decode_raw(const DevicePoint& p, const uint16_t* r) {
  switch (p.type) {
    case DevicePoint::s16: return static_cast<int16_t>(r[0]);
    case DevicePoint::u32: return join_words(r, p.order);
    case DevicePoint::s32: return static_cast<int32_t>(join_words(r, p.order));
    case DevicePoint::f32: {
      const uint32_t bits = join_words(r, p.order);
      float f;
      std::memcpy(&f, &bits, sizeof f);
      return f;
    }
    default: return r[0];
  }
}

// Registers for a raw value (rounded and clamped for integer types).
inline void encode_raw(const DevicePoint& p, double raw, uint16_t* r) {
  auto clamp = [](double v, double lo, double hi) { return v < lo ? lo : v > hi ? hi : v; };
  const double rounded = raw < 0 ? raw - 0.5 : raw + 0.5;
  switch (p.type) {
    case DevicePoint::s16: r[0] = static_cast<uint16_t>(static_cast<int16_t>(clamp(rounded, -32768, 32767))); break;
    case DevicePoint::u32: split_words(static_cast<uint32_t>(clamp(rounded, 0, 4294967295.0)), p.order, r); break;
    case DevicePoint::s32:
      split_words(static_cast<uint32_t>(static_cast<int32_t>(clamp(rounded, -2147483648.0, 2147483647.0))), p.order, r);
      break;
    case DevicePoint::f32: {
      const float f = static_cast<float>(raw);
      uint32_t bits;
      std::memcpy(&bits, &f, sizeof bits);
      split_words(bits, p.order, r);
      break;
    }
    default: r[0] = static_cast<uint16_t>(clamp(rounded, 0, 65535)); break;
  }
}

}  // namespace details
}  // namespace zqdevices

#endif
