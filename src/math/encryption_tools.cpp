#include "zqmath/encryption_tools.h"

uint32_t Swap32(uint32_t x) {
  return (x >> 24) | ((x >> 8) & 0xFF00u) | ((x << 8) & 0xFF0000u) | (x << 24);
}

uint32_t LRot32(uint32_t x, int16_t n) {
  const unsigned s = static_cast<unsigned>(n) & 31u;
  return s == 0 ? x : (x << s) | (x >> (32 - s));
}

uint32_t RRot32(uint32_t x, int16_t n) {
  const unsigned s = static_cast<unsigned>(n) & 31u;
  return s == 0 ? x : (x >> s) | (x << (32 - s));
}

uint32_t LRot32_p(uint32_t x, uint32_t y, int16_t n) { return LRot32(x + y, n); }
uint32_t LRot32_m(uint32_t x, uint32_t y, int16_t n) { return LRot32(x - y, n); }
uint32_t LRot32_x(uint32_t x, uint32_t y, int16_t n) { return LRot32(x ^ y, n); }
