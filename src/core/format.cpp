// A printf formatter for the common conversions that gives exactly the bytes
// glibc's vsnprintf gives: integers digit by digit, floating-point values by
// rounding the exact binary value to the requested decimal unit with 128-bit
// integer arithmetic (half to even, as glibc does in the default rounding
// mode). Whatever it does not handle goes to vsnprintf unchanged.
#include "core/format.h"

#include <cfenv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zqdetail {

namespace {

using u128 = unsigned __int128;

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// 10^0 .. 10^38: every power below 2^128.
struct Powers {
  u128 p[39];
  constexpr Powers() : p() {
    u128 v = 1;
    for (int i = 0; i < 39; ++i) {
      p[i] = v;
      v *= 10;
    }
  }
};
constexpr Powers kPow10;

// Writes the decimal digits of v so that they end at `end`; returns their start.
char* decimal(char* end, uint64_t v) {
  while (v >= 100) {
    const unsigned pair = static_cast<unsigned>(v % 100) * 2;
    v /= 100;
    *--end = kDigitPairs[pair + 1];
    *--end = kDigitPairs[pair];
  }
  if (v >= 10) {
    *--end = kDigitPairs[v * 2 + 1];
    *--end = kDigitPairs[v * 2];
  } else {
    *--end = static_cast<char>('0' + v);
  }
  return end;
}

char* based(char* end, uint64_t v, unsigned shift, const char* digits) {
  const unsigned mask = (1u << shift) - 1;
  do {
    *--end = digits[v & mask];
    v >>= shift;
  } while (v != 0);
  return end;
}

// Rounds the finite, positive x to a whole number of units of 10^s, half to
// even, exactly. False when the value or the arithmetic leaves 128 bits or
// the result leaves 64.
bool round_scaled(double x, int s, uint64_t& q) {
  uint64_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  const int biased = static_cast<int>((bits >> 52) & 0x7ff);
  const uint64_t m = (bits & ((uint64_t{1} << 52) - 1)) | (biased != 0 ? uint64_t{1} << 52 : 0);
  const int e = (biased != 0 ? biased : 1) - 1075;  // x = m * 2^e
  u128 quotient;
  bool odd_half_up;  // set below: round up?
  if (s <= 0) {
    if (-s > 22) return false;  // m * 10^22 < 2^127
    const u128 a = static_cast<u128>(m) * kPow10.p[-s];
    if (e >= 0) {
      if (e >= 64 || (a >> (64 - e)) != 0) return false;
      q = static_cast<uint64_t>(a << e);
      return true;
    }
    const int k = -e;
    if (k >= 127) {  // below half a unit
      q = 0;
      return true;
    }
    quotient = a >> k;
    const u128 rest = a - (quotient << k);
    const u128 half = static_cast<u128>(1) << (k - 1);
    odd_half_up = rest > half || (rest == half && (quotient & 1) != 0);
  } else {
    if (s > 38) return false;
    u128 n = m, d = kPow10.p[s];
    if (e >= 0) {
      if (e > 74) return false;
      n <<= e;
    } else {
      // d * 2^-e; at or above 2^126 it is more than twice m: the result is 0.
      const int k = -e;
      if (k >= 126 || (d >> (126 - k)) != 0) {
        q = 0;
        return true;
      }
      d <<= k;
    }
    quotient = n / d;
    const u128 twice_rest = (n - quotient * d) * 2;
    odd_half_up = twice_rest > d || (twice_rest == d && (quotient & 1) != 0);
  }
  if (quotient >= (static_cast<u128>(1) << 64) - 1) return false;
  q = static_cast<uint64_t>(quotient) + (odd_half_up ? 1 : 0);
  return true;
}

// The P+1 significant digits of the finite, positive x as q (10^P <= q < 10^(P+1))
// and its decimal exponent, for %e and %g. `carried` tells that the digits
// became 10^(P+1) at one exponent (rounding up to the next power of ten, or an
// exact power reached from below).
bool scientific(double x, int precision, uint64_t& q, int& exponent, bool& carried) {
  if (precision > 17) return false;
  uint64_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  const int biased = static_cast<int>((bits >> 52) & 0x7ff);
  if (biased == 0) return false;  // subnormal: leave to vsnprintf
  // floor(e2 * log10(2)) is the exponent or one below it.
  exponent = ((biased - 1023) * 78913) >> 18;
  const uint64_t low = static_cast<uint64_t>(kPow10.p[precision]);
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (!round_scaled(x, exponent - precision, q)) return false;
    if (q >= low * 10) {
      carried = carried || q == low * 10;
      ++exponent;
    } else if (q < low) {
      --exponent;
    } else {
      return true;
    }
  }
  return false;
}

struct Spec {
  bool left = false, plus = false, space = false, alt = false, zero = false;
  int width = 0;
  int precision = -1;
};

// Appends to out[pos..size) or reports that the text does not fit.
class Writer {
 public:
  Writer(char* out, size_t size) : out_(out), room_(size > 0 ? size - 1 : 0) {}
  bool put(const char* p, size_t n) {
    if (n == 0) return true;
    if (n > room_ - pos_) return false;
    std::memcpy(out_ + pos_, p, n);
    pos_ += n;
    return true;
  }
  bool fill(char c, size_t n) {
    if (n == 0) return true;
    if (n > room_ - pos_) return false;
    std::memset(out_ + pos_, c, n);
    pos_ += n;
    return true;
  }
  // prefix (sign, 0x), `zeros` zeros, body, padded to the field width.
  bool field(const Spec& spec, const char* prefix, size_t plen, size_t zeros, const char* body,
             size_t blen) {
    const size_t len = plen + zeros + blen;
    const size_t pad = static_cast<size_t>(spec.width) > len ? spec.width - len : 0;
    if (!spec.left && !spec.zero && !fill(' ', pad)) return false;
    if (!put(prefix, plen)) return false;
    if (spec.zero && !spec.left && !fill('0', pad)) return false;
    if (!fill('0', zeros) || !put(body, blen)) return false;
    return !spec.left || fill(' ', pad);
  }
  // n characters to fill in, or null when they do not fit.
  char* claim(size_t n) {
    if (n > room_ - pos_) return nullptr;
    char* const at = out_ + pos_;
    pos_ += n;
    return at;
  }
  size_t length() const { return pos_; }
  void finish() { out_[pos_] = '\0'; }

 private:
  char* out_;
  size_t room_;
  size_t pos_ = 0;
};

enum class Length { none, hh, h, l, ll, z, j, t };

bool integer(Writer& w, Spec spec, char conv, Length len, va_list& args) {
  uint64_t v;
  bool negative = false;
  if (conv == 'd' || conv == 'i') {
    int64_t s;
    switch (len) {
      case Length::hh: s = static_cast<signed char>(va_arg(args, int)); break;
      case Length::h: s = static_cast<short>(va_arg(args, int)); break;
      case Length::l: s = va_arg(args, long); break;
      case Length::ll: s = va_arg(args, long long); break;
      case Length::z: s = va_arg(args, ptrdiff_t); break;  // signed size_t
      case Length::j: s = va_arg(args, intmax_t); break;
      case Length::t: s = va_arg(args, ptrdiff_t); break;
      default: s = va_arg(args, int); break;
    }
    negative = s < 0;
    v = negative ? 0 - static_cast<uint64_t>(s) : static_cast<uint64_t>(s);
  } else {
    switch (len) {
      case Length::hh: v = static_cast<unsigned char>(va_arg(args, unsigned)); break;
      case Length::h: v = static_cast<unsigned short>(va_arg(args, unsigned)); break;
      case Length::l: v = va_arg(args, unsigned long); break;
      case Length::ll: v = va_arg(args, unsigned long long); break;
      case Length::z: v = va_arg(args, size_t); break;
      case Length::j: v = va_arg(args, uintmax_t); break;
      case Length::t: v = static_cast<uint64_t>(va_arg(args, ptrdiff_t)); break;
      default: v = va_arg(args, unsigned); break;
    }
    spec.plus = spec.space = false;
  }
  char buf[24];
  char* const end = buf + sizeof buf;
  char* start = end;
  if (v != 0 || spec.precision != 0) {
    switch (conv) {
      case 'x': start = based(end, v, 4, "0123456789abcdef"); break;
      case 'X': start = based(end, v, 4, "0123456789ABCDEF"); break;
      case 'o': start = based(end, v, 3, "01234567"); break;
      default: start = decimal(end, v); break;
    }
  }
  const size_t digits = static_cast<size_t>(end - start);
  size_t zeros = spec.precision > 0 && static_cast<size_t>(spec.precision) > digits
                     ? spec.precision - digits
                     : 0;
  char prefix[2];
  size_t plen = 0;
  if (negative) {
    prefix[plen++] = '-';
  } else if (spec.plus) {
    prefix[plen++] = '+';
  } else if (spec.space) {
    prefix[plen++] = ' ';
  }
  if (spec.alt) {
    if (conv == 'o' && zeros == 0 && (digits == 0 || *start != '0')) zeros = 1;
    if ((conv == 'x' || conv == 'X') && v != 0) {
      prefix[plen++] = '0';
      prefix[plen++] = conv;
    }
  }
  if (spec.precision >= 0) spec.zero = false;
  return w.field(spec, prefix, plen, zeros, start, digits);
}

// Writes q with `fraction` digits after the point into the end of buf.
char* fixed(char* end, uint64_t q, int fraction, bool point) {
  char* p = decimal(end, q);
  while (end - p <= fraction) *--p = '0';
  if (fraction > 0 || point) {
    // Move the integer digits one place left and put the point between.
    char* const point_at = end - fraction;
    std::memmove(p - 1, p, static_cast<size_t>(point_at - p));
    *(point_at - 1) = '.';
    --p;
  }
  return p;
}

bool floating(Writer& w, Spec spec, char conv, va_list& args) {
  const double x = va_arg(args, double);
  uint64_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  if (((bits >> 52) & 0x7ff) == 0x7ff) return false;  // inf, nan
  if (std::fegetround() != FE_TONEAREST) return false;
  const bool negative = (bits >> 63) != 0;
  const double a = negative ? -x : x;
  const bool zero = a == 0;
  const bool upper = conv == 'E' || conv == 'G';
  const char lower = conv | 0x20;
  int precision = spec.precision < 0 ? 6 : spec.precision;
  // Layout: a fixed text with `fraction` decimals, or d.ddd with an exponent.
  uint64_t q = 0;
  int exponent = 0;
  bool exponential = lower == 'e';
  int fraction = precision;
  bool strip = false;
  if (lower == 'f') {
    if (!zero && !round_scaled(a, -precision, q)) return false;
  } else {
    if (lower == 'g') {
      if (precision == 0) precision = 1;
      --precision;
      strip = !spec.alt;
    }
    bool carried = false;
    if (!zero && !scientific(a, precision, q, exponent, carried)) return false;
    if (lower == 'g') {
      exponential = !(exponent <= precision && exponent >= -4);
      // glibc drops the zeros of "%#g" when the carry moves the value to the
      // exponential form ("1.e+06" for 999999.7): leave that to it.
      if (spec.alt && carried && exponential) return false;
      fraction = exponential ? precision : precision - exponent;
    }
  }
  if (fraction > 40) return false;
  char buf[96];
  char* end = buf + 64;  // room after it for the exponent
  char* const start = fixed(end, q, fraction, spec.alt);
  if (strip && fraction > 0) {
    while (end[-1] == '0') --end;
    if (end[-1] == '.') --end;
  }
  if (exponential) {
    *end++ = upper ? 'E' : 'e';
    *end++ = exponent < 0 ? '-' : '+';
    const unsigned magnitude = static_cast<unsigned>(exponent < 0 ? -exponent : exponent);
    if (magnitude < 10) *end++ = '0';
    char digits[8];
    char* const dend = digits + sizeof digits;
    const char* d = decimal(dend, magnitude);
    while (d != dend) *end++ = *d++;
  }
  char prefix = 0;
  if (negative) {
    prefix = '-';
  } else if (spec.plus) {
    prefix = '+';
  } else if (spec.space) {
    prefix = ' ';
  }
  return w.field(spec, &prefix, prefix != 0 ? 1 : 0, 0, start, static_cast<size_t>(end - start));
}

// Reads a non-negative decimal number of at most 6 digits; false when longer.
bool number(const char*& p, int& value) {
  value = 0;
  for (int n = 0; *p >= '0' && *p <= '9'; ++p, ++n) {
    if (n == 6) return false;
    value = value * 10 + (*p - '0');
  }
  return true;
}

// The number of decimal digits of v.
int decimal_digits(uint64_t v) {
  const int bits = 64 - __builtin_clzll(v | 1);
  const int guess = bits * 1233 >> 12;  // floor(bits * log10(2)), one short at most
  // v | 1 is at a power of ten (>= 10, all even) exactly when v is; 0 has one digit.
  return guess + ((v | 1) >= static_cast<uint64_t>(kPow10.p[guess]) ? 1 : 0);
}

// A claimed field of `len` characters right-aligned in `width`, or null when
// it does not fit; the spaces before it are written.
char* right_aligned(Writer& w, int width, size_t len) {
  const size_t pad = static_cast<size_t>(width) > len ? width - len : 0;
  char* const at = w.claim(pad + len);
  if (at == nullptr) return nullptr;
  if (pad != 0) std::memset(at, ' ', pad);
  return at + pad;
}

enum class Plain { no, done, fail };

// The conversions most messages use, without flags or precision: an optional
// width, an optional 'l' and d, i, u or x (no 'l' for s), written in place.
// `no` when the conversion is another one (nothing is read from args then).
Plain plain(Writer& w, const char*& p, va_list& args) {
  const char* q = p;
  int width = 0;
  if (*q >= '1' && *q <= '9' && (!number(q, width) || *q == '$')) return Plain::no;
  const bool wide = *q == 'l';
  q += wide ? 1 : 0;
  const char conv = *q;
  uint64_t v;
  bool negative = false;
  switch (conv) {
    case 'd':
    case 'i': {
      const long s = wide ? va_arg(args, long) : va_arg(args, int);
      negative = s < 0;
      v = negative ? 0 - static_cast<uint64_t>(s) : static_cast<uint64_t>(s);
      break;
    }
    case 'u':
    case 'x': v = wide ? va_arg(args, unsigned long) : va_arg(args, unsigned); break;
    case 's': {
      if (wide) return Plain::no;
      const char* const text = va_arg(args, const char*);
      if (text == nullptr) return Plain::fail;  // "(null)" is vsnprintf's to write
      const size_t n = std::strlen(text);
      char* const at = right_aligned(w, width, n);
      if (at == nullptr) return Plain::fail;
      std::memcpy(at, text, n);
      p = q + 1;
      return Plain::done;
    }
    default: return Plain::no;
  }
  const size_t digits = conv == 'x' ? (67 - __builtin_clzll(v | 1)) / 4 : decimal_digits(v);
  char* const at = right_aligned(w, width, digits + negative);
  if (at == nullptr) return Plain::fail;
  if (negative) *at = '-';
  char* const end = at + negative + digits;
  if (conv == 'x') {
    based(end, v, 4, "0123456789abcdef");
  } else {
    decimal(end, v);
  }
  p = q + 1;
  return Plain::done;
}

// The fast formatter; false as soon as anything needs vsnprintf.
bool fast(Writer& w, const char* p, va_list& args) {
  for (;;) {
    const char* const pct = strchrnul(p, '%');
    if (!w.put(p, static_cast<size_t>(pct - p))) return false;
    if (*pct == '\0') return true;
    p = pct + 1;
    const Plain done = plain(w, p, args);
    if (done == Plain::done) continue;
    if (done == Plain::fail) return false;
    if (*p == '%') {
      if (!w.put("%", 1)) return false;
      ++p;
      continue;
    }
    Spec spec;
    for (;; ++p) {
      if (*p == '-') {
        spec.left = true;
      } else if (*p == '+') {
        spec.plus = true;
      } else if (*p == ' ') {
        spec.space = true;
      } else if (*p == '#') {
        spec.alt = true;
      } else if (*p == '0') {
        spec.zero = true;
      } else {
        break;
      }
    }
    if (*p == '*') {
      ++p;
      spec.width = va_arg(args, int);
      if (spec.width < 0) {
        if (spec.width < -100000) return false;
        spec.left = true;
        spec.width = -spec.width;
      }
    } else if (!number(p, spec.width) || *p == '$') {
      return false;  // positional arguments and huge widths
    }
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        ++p;
        spec.precision = va_arg(args, int);
        if (spec.precision < -1) spec.precision = -1;
      } else if (!number(p, spec.precision)) {
        return false;
      }
    }
    if (spec.width > 100000 || spec.precision > 100000) return false;
    Length len = Length::none;
    switch (*p) {
      case 'h':
        ++p;
        len = *p == 'h' ? (++p, Length::hh) : Length::h;
        break;
      case 'l':
        ++p;
        len = *p == 'l' ? (++p, Length::ll) : Length::l;
        break;
      case 'z': ++p; len = Length::z; break;
      case 'j': ++p; len = Length::j; break;
      case 't': ++p; len = Length::t; break;
      default: break;
    }
    const char conv = *p++;
    switch (conv) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        if (!integer(w, spec, conv, len, args)) return false;
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
        if ((len != Length::none && len != Length::l) || !floating(w, spec, conv, args)) return false;
        break;
      case 'c': {
        if (len != Length::none) return false;
        const char c = static_cast<char>(va_arg(args, int));
        spec.zero = false;
        if (!w.field(spec, nullptr, 0, 0, &c, 1)) return false;
        break;
      }
      case 's': {
        if (len != Length::none) return false;
        const char* s = va_arg(args, const char*);
        if (s == nullptr) return false;
        const size_t n = spec.precision >= 0 ? strnlen(s, static_cast<size_t>(spec.precision))
                                             : std::strlen(s);
        spec.zero = false;
        if (!w.field(spec, nullptr, 0, 0, s, n)) return false;
        break;
      }
      default: return false;
    }
  }
}

}  // namespace

int vformat(char* out, size_t size, const char* format, va_list* args, va_list* again) {
  Writer w(out, size);
  if (size == 0 || !fast(w, format, *args)) return std::vsnprintf(out, size, format, *again);
  w.finish();
  return static_cast<int>(w.length());
}

int vformat(char* out, size_t size, const char* format, va_list args) {
  va_list work, again;
  va_copy(work, args);
  va_copy(again, args);
  const int n = vformat(out, size, format, &work, &again);
  va_end(work);
  va_end(again);
  return n;
}

}  // namespace zqdetail
