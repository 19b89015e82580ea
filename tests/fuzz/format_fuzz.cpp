// Fuzz target: a format taken from the input, applied to a fixed set of
// arguments of the types the conversions read, must give vsnprintf's bytes.
// Conversions that take pointers (%s, %n, %p) are turned into %d first, since
// the argument list cannot follow an arbitrary format.
#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/format_call.h"

namespace {

// Well-formed conversions only: the sanitizers' own printf checks stop on
// malformed ones before the C library sees them. Widths and precisions stay
// below a million: the C library builds a conversion of that many digits in
// memory, so a larger one (which no program's format holds) measures malloc.
bool well_formed(const std::string& f) {
  for (size_t i = 0; i < f.size(); ++i) {
    if (f[i] != '%') continue;
    ++i;
    size_t digits = 0;
    while (i < f.size() && std::strchr("-+ #0123456789.hlzjt", f[i]) != nullptr) {
      digits = std::isdigit(static_cast<unsigned char>(f[i])) ? digits + 1 : 0;
      if (digits > 6) return false;
      ++i;
    }
    if (i == f.size() || std::strchr("diuxXocfFeEgG%", f[i]) == nullptr) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 10) return 0;
  double d;
  std::memcpy(&d, data, sizeof d);
  const size_t limit = data[8] * 2u;  // within the buffers below
  std::string format(reinterpret_cast<const char*>(data) + 9, size - 9);
  format = format.c_str();  // up to the first NUL
  // Every conversion reads the same argument shape: the double comes first in
  // the floating-point registers and integers in the general ones, so any mix
  // of int, long and double conversions reads defined values. Pointers and
  // long double conversions would not: replace them.
  for (char& c : format) {
    if (c != 0 && std::strchr("snpSCmLqaA$*", c) != nullptr) c = 'd';
  }
  // At most four conversions: each reads one of the four arguments of its kind.
  if (format.size() > 64 || std::count(format.begin(), format.end(), '%') > 4 ||
      !well_formed(format)) {
    return 0;
  }
  char want[600], got[600];
  std::memset(want, 1, sizeof want);
  std::memset(got, 1, sizeof got);
  const long i1 = static_cast<long>(data[0]) << 24 | data[1], i2 = -static_cast<long>(data[2]);
  const int n_want = std::snprintf(want, limit, format.c_str(), i1, i2, i1, i2, d, d, d, d);
  const int n_got = format_call(got, limit, format.c_str(), i1, i2, i1, i2, d, d, d, d);
  if (n_want != n_got || std::memcmp(want, got, sizeof want) != 0) std::abort();
  return 0;
}
