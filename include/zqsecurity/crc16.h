// CRC-16/CCITT of a byte buffer.
#ifndef ZQSECURITY_CRC16_H
#define ZQSECURITY_CRC16_H

#include <cstdint>

#include "zqcommon/export.h"

// The CRC-16/CCITT table (polynomial 0x1021, most significant bit first):
// entry 1 is 0x1021, entry 128 is 0x9188. Read-only, shared by all threads.
extern ZQ_EXPORT const uint16_t (&crc16_tab)[256];

// CRC-16/CCITT-FALSE (initial value 0xFFFF, not reflected, no final XOR) in
// the low 16 bits of the result: "123456789" gives 0x29B1 there. The register
// is 32 bits wide and never masked, so the high 16 bits hold the bits shifted
// out of the top (the whole value for "123456789" is 0x77A129B1, for an empty
// buffer 0xFFFFFFFF). Callers take the low 16 bits. The pointer is not
// checked; a length of 0 reads nothing. Thread-safe; no allocation.
ZQ_EXPORT uint32_t mk_crc16(const void* data, unsigned int length);

#endif
