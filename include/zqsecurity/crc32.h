// CRC-32 of a byte buffer, as used for checksums and shared-memory keys.
#ifndef ZQSECURITY_CRC32_H
#define ZQSECURITY_CRC32_H

#include <cstdint>

#include "zqcommon/export.h"

// The reflected CRC-32 table (polynomial 0xEDB88320): entry 1 is 0x77073096,
// entry 128 is 0xEDB88320. Read-only, shared by all threads.
extern ZQ_EXPORT const uint32_t (&crc32_tab)[256];

// CRC-32 with polynomial 0x04C11DB7, reflected in and out, initial value 0 and
// no final XOR (unlike the archive-format CRC-32, on purpose): "123456789"
// gives 0x2DFD2D88, an empty buffer 0. The pointer is not checked; a length of
// 0 reads nothing. A checksum cannot be continued: pass the whole buffer.
// Thread-safe; no allocation. Uses carry-less multiplication where the CPU
// has it; every path gives the same value.
ZQ_EXPORT uint32_t mk_crc32(const void* data, unsigned int length);

#endif
