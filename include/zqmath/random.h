// Pseudo-random generators and a pseudo-DES hash (32-bit arithmetic).
#ifndef ZQMATH_RANDOM_H
#define ZQMATH_RANDOM_H

#include <cstdint>

#include "zqcommon/export.h"

// Hashes the 64-bit pair (lword, irword) in place with four pseudo-DES rounds.
ZQ_EXPORT void psdes(uint32_t* lword, uint32_t* irword);
// A uniform deviate in [0, 1) from the hash of a counter. A negative *idum
// resets the hidden state (the hash key) and starts the counter at 1; the
// counter is incremented on every call. Not thread-safe (the hidden state).
ZQ_EXPORT double ran4(long* idum);
// A uniform deviate in (0, 1) by the minimal-standard generator. A seed equal
// to the internal mask (123459876) is taken as 55, as it would otherwise stick.
ZQ_EXPORT float ran0(long* idum);

#endif
