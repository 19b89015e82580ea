// 32-bit byte swap and rotations for code that works on 32-bit words.
#ifndef ZQMATH_ENCRYPTION_TOOLS_H
#define ZQMATH_ENCRYPTION_TOOLS_H

#include <cstdint>

#include "zqcommon/export.h"

// Rotation counts use their low five bits only: 0 and 32 leave x unchanged.
ZQ_EXPORT uint32_t Swap32(uint32_t x);
ZQ_EXPORT uint32_t LRot32(uint32_t x, int16_t n);
ZQ_EXPORT uint32_t RRot32(uint32_t x, int16_t n);
// (x + y) mod 2^32, (x - y) mod 2^32 and x XOR y, rotated left by n.
ZQ_EXPORT uint32_t LRot32_p(uint32_t x, uint32_t y, int16_t n);
ZQ_EXPORT uint32_t LRot32_m(uint32_t x, uint32_t y, int16_t n);
ZQ_EXPORT uint32_t LRot32_x(uint32_t x, uint32_t y, int16_t n);

#endif
