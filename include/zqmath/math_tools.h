// Small numeric functions: divisors, factorial and the gamma function.
#ifndef ZQMATH_MATH_TOOLS_H
#define ZQMATH_MATH_TOOLS_H

#include "zqcommon/export.h"

// Greatest common divisor (non-negative); b must not be 0.
ZQ_EXPORT long ggT(long a, long b);
// Least common multiple (a / ggT(a, b)) * b in 32-bit signed arithmetic,
// with its sign as computed: kgV(-4, 6) is -12.
ZQ_EXPORT long kgV(long a, long b);
// n! in 32-bit signed arithmetic (it wraps above 12); 1 for n below 2.
ZQ_EXPORT long Fak(long n);
// ln(Gamma(x)) for x > 0 by Lanczos' series.
ZQ_EXPORT double LnGamma(double x);
// Gamma(x) by W. J. Cody's rational approximations; infinite at the poles
// (0, -1, -2, ...) and above 170.
ZQ_EXPORT double FGamma(double x);

#endif
