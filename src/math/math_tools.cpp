// Divisors, factorial, generators and the gamma function.
#include "zqmath/math_tools.h"

#include <cstdint>

#include <cmath>
#include <cstring>
#include <limits>

#include "zqmath/random.h"

long ggT(long a, long b) {
  long r = a % b;
  while (r != 0) {
    a = b;
    b = r;
    r = a % b;
  }
  return b < 0 ? -b : b;
}

long kgV(long a, long b) {
  const long g = ggT(a, b);
  // The product wraps as 32-bit signed arithmetic does.
  return static_cast<int32_t>(static_cast<uint32_t>(a / g) * static_cast<uint32_t>(b));
}

long Fak(long n) {
  uint32_t product = 1;
  for (long i = 2; i <= n; ++i) product *= static_cast<uint32_t>(i);
  return static_cast<int32_t>(product);
}

void psdes(uint32_t* lword, uint32_t* irword) {
  static const uint32_t c1[4] = {0xBAA96887u, 0x1E17D32Cu, 0x03BCDC3Cu, 0x0F33D1B2u};
  static const uint32_t c2[4] = {0x4B0F3B58u, 0xE874F0C3u, 0x6955C5A6u, 0x55A7CA46u};
  for (int i = 0; i < 4; ++i) {
    const uint32_t keep = *irword;
    const uint32_t ia = keep ^ c1[i];
    const uint32_t low = ia & 0xFFFFu;
    const uint32_t high = ia >> 16;
    const uint32_t ib = low * low + ~(high * high);
    *irword = *lword ^ ((((ib >> 16) | (ib << 16)) ^ c2[i]) + low * high);
    *lword = keep;
  }
}

double ran4(long* idum) {
  static uint32_t idums = 0;
  if (*idum < 0) {
    idums = static_cast<uint32_t>(-*idum);
    *idum = 1;
  }
  uint32_t lword = idums;
  uint32_t irword = static_cast<uint32_t>(*idum);
  psdes(&lword, &irword);
  const uint32_t bits = 0x3F800000u | (irword & 0x007FFFFFu);  // a float in [1, 2)
  float f;
  std::memcpy(&f, &bits, sizeof f);
  ++*idum;
  return f - 1.0;
}

float ran0(long* idum) {
  constexpr long IA = 16807, IM = 2147483647, IQ = 127773, IR = 2836, MASK = 123459876;
  static const double AM = 1.0 / IM;
  if (*idum == MASK) *idum = 55;  // MASK would become 0, the generator's fixed point
  *idum ^= MASK;
  const long k = *idum / IQ;
  *idum = IA * (*idum - k * IQ) - IR * k;
  if (*idum < 0) *idum += IM;
  const float answer = static_cast<float>(AM * *idum);
  *idum ^= MASK;
  return answer;
}

double LnGamma(double x) {
  static const double cof[6] = {76.18009172947146,     -86.50532032941678,
                                24.01409824083091,     -1.231739572450155,
                                0.001208650973866179, -5.395239384953e-06};
  double y = x;
  double tmp = x + 5.5;
  tmp -= (x + 0.5) * std::log(tmp);
  double ser = 1.000000000190015;
  for (double c : cof) ser += c / ++y;
  return std::log(2.5066282746310005 * ser / x) - tmp;
}

// W. J. Cody's rational approximations for the gamma function.
double FGamma(double x) {
  static const double pi = 2.0 * std::acos(0.0);
  static const double eps = 1e-20;
  static const double inf = std::numeric_limits<double>::max();
  static const double max_gamma_number = 170.0;
  static const double p[9] = {0,
                              -1.716185138865495,  24.76565080557592,  -379.80425647094563,
                              629.3311553128184,   866.9662027904133,  -31451.272968848367,
                              -36144.413418691176, 66456.14382024054};
  static const double q[9] = {0,
                              -30.840230011973897, 315.35062697960416, -1015.1563674902192,
                              -3107.771671572311,  22538.11842098015,  4755.846277527881,
                              -134659.9598649693,  -115132.25967555349};
  static const double c[8] = {0,
                              -0.001910444077728,     0.00084171387781295,
                              -0.0005952379913043012, 0.0007936507935003503,
                              -0.0027777777777776816, 0.08333333333333333,
                              0.0057083835261};
  bool negative = false;
  double fact = 1.0;
  double y = x;
  if (y <= 0.0) {
    y = -x;
    const double whole = std::trunc(y);
    const double frac = y - whole;
    if (frac == 0.0) return inf + inf;  // a pole
    if (std::fmod(whole, 2.0) != 0.0) negative = true;
    fact = -pi / std::sin(pi * frac);
    y += 1.0;
  }
  double result;
  if (y < eps) {
    result = 1.0 / y;
  } else if (y < 12.0) {
    const double y1 = y;
    double z;
    int n = 0;
    if (y < 1.0) {
      z = y;
      y += 1.0;
    } else {
      n = static_cast<int>(y) - 1;
      y -= n;
      z = y - 1.0;
    }
    double num = 0.0, den = 1.0;
    for (int i = 1; i <= 8; ++i) {
      num = (num + p[i]) * z;
      den = den * z + q[i];
    }
    result = num / den + 1.0;
    if (y1 < y) {
      result /= y1;
    } else if (y1 > y) {
      for (int i = 0; i < n; ++i) {
        result *= y;
        y += 1.0;
      }
    }
  } else if (y <= max_gamma_number) {
    const double ysq = y * y;
    double sum = c[7];
    for (int i = 1; i <= 6; ++i) sum = sum / ysq + c[i];
    sum = sum / y - y + 0.9189385332046727;  // ln(sqrt(2 pi))
    sum += (y - 0.5) * std::log(y);
    result = std::exp(sum);
  } else {
    return inf + inf;
  }
  if (negative) result = -result;
  if (fact != 1.0) result = fact / result;
  return result;
}
