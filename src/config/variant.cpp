#include "zqcommon/variant.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// strtol as on a platform with a 32-bit long: larger numbers saturate.
long long parse_long32(const std::string& s, bool* whole) {
  const char* begin = s.c_str();
  char* end = nullptr;
  long v = std::strtol(begin, &end, 0);
  if (whole) *whole = end == begin + s.size();
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return v;
}

double parse_double(const std::string& s, bool* whole) {
  const char* begin = s.c_str();
  char* end = nullptr;
  double v = std::strtod(begin, &end);
  if (whole) *whole = end == begin + s.size();
  return v;
}

// Three-way comparison of an integer and a double without rounding either.
int compare_int_double(long long i, double d) {
  if (std::isnan(d)) return -1;                  // NaN after every number
  if (d >= 9223372036854775808.0) return -1;     // 2^63
  if (d < -9223372036854775808.0) return 1;
  double t = std::trunc(d);
  long long ti = static_cast<long long>(t);
  if (i != ti) return i < ti ? -1 : 1;
  if (d == t) return -1;  // equal values: the integer first
  return d > t ? -1 : 1;
}

int compare_double(double a, double b) {
  bool na = std::isnan(a), nb = std::isnan(b);
  if (na || nb) return na == nb ? 0 : (na ? 1 : -1);
  return a < b ? -1 : (a > b ? 1 : 0);
}

// Rank of a kind in the order between kinds.
int rank(VariantType t, bool isnull) {
  if (isnull || t == VAL_NULL) return 0;
  switch (t) {
    case VAL_INT:
    case VAL_FLOAT: return 1;
    case VAL_DATE: return 2;
    case VAL_STRING: return 3;
    default: return 4;
  }
}

}  // namespace

Variant::Variant(long long v) : typ(VAL_INT), isnull(false) { val.i = v; }
Variant::Variant(int v) : Variant(static_cast<long long>(v)) {}
Variant::Variant(unsigned int v) : Variant(static_cast<long long>(v)) {}
Variant::Variant(double v) : typ(VAL_FLOAT), isnull(false) { val.d = v; }
Variant::Variant(const std::string& v) { set_text(VAL_STRING, v); }

Variant::Variant(VariantType t) : typ(t), isnull(t == VAL_NULL) {
  if (t == VAL_FLOAT || t == VAL_DATE) val.d = 0.0;
  if (is_text()) val.s = new std::string;
}

Variant::Variant(const Variant& other) { *this = other; }

Variant::~Variant() { release(); }

void Variant::release() {
  if (is_text()) delete val.s;
  val.i = 0;
}

void Variant::set_text(VariantType t, const std::string& s) {
  std::string* copy = new std::string(s);
  release();
  typ = t;
  isnull = false;
  val.s = copy;
}

Variant& Variant::operator=(const Variant& other) {
  if (this == &other) return *this;
  if (other.is_text()) {
    set_text(other.typ, other.val.s ? *other.val.s : std::string());
  } else {
    release();
    typ = other.typ;
    val = other.val;
  }
  isnull = other.isnull;
  return *this;
}

Variant& Variant::operator=(long long v) { return *this = Variant(v); }
Variant& Variant::operator=(int v) { return *this = Variant(v); }
Variant& Variant::operator=(unsigned int v) { return *this = Variant(v); }
Variant& Variant::operator=(double v) { return *this = Variant(v); }
Variant& Variant::operator=(const std::string& v) {
  set_text(VAL_STRING, v);
  return *this;
}
Variant& Variant::operator=(const char* v) {
  if (!v) {
    cleanup();
    return *this;
  }
  set_text(VAL_STRING, v);
  return *this;
}

void Variant::SetNull() {
  release();
  isnull = true;
}

void Variant::cleanup() {
  release();
  typ = VAL_NULL;
  isnull = true;
}

Variant& Variant::operator+=(long long d) {
  if (typ == VAL_INT && !isnull) val.i = static_cast<int64_t>(static_cast<uint64_t>(val.i) + static_cast<uint64_t>(d));
  return *this;
}

Variant& Variant::operator-=(long long d) {
  if (typ == VAL_INT && !isnull) val.i = static_cast<int64_t>(static_cast<uint64_t>(val.i) - static_cast<uint64_t>(d));
  return *this;
}

void Variant::SetBinary(std::string* s) {
  if (is_text() && val.s == s) {
    typ = VAL_BINARY;
    isnull = false;
    return;
  }
  release();
  typ = VAL_BINARY;
  isnull = false;
  val.s = s ? s : new std::string;
}

void Variant::RemoveBinary() {
  if (!is_text()) return;
  val.s = nullptr;  // owned by whoever took it
  typ = VAL_NULL;
  isnull = true;
}

Variant::operator std::string*() const { return is_text() ? val.s : nullptr; }

long long Variant::to_int() const {
  if (isnull) return 0;
  switch (typ) {
    case VAL_INT: return val.i;
    case VAL_FLOAT:
    case VAL_DATE: {
      // Truncation; values outside the range of long long saturate.
      double d = val.d;
      if (std::isnan(d)) return 0;
      if (d >= 9223372036854775807.0) return LLONG_MAX;
      if (d <= -9223372036854775808.0) return LLONG_MIN;
      return static_cast<long long>(d);
    }
    case VAL_STRING: return val.s ? parse_long32(*val.s, nullptr) : 0;
    case VAL_BINARY: return val.s ? static_cast<long long>(val.s->size()) : 0;
    default: return 0;
  }
}

double Variant::to_double() const {
  if (isnull) return NAN;
  switch (typ) {
    case VAL_FLOAT: return val.d;
    case VAL_STRING: return val.s ? parse_double(*val.s, nullptr) : 0.0;
    case VAL_INT: return static_cast<double>(val.i);
    default: return 0.0;
  }
}

Variant::operator long long() const { return to_int(); }
Variant::operator int() const { return static_cast<int>(to_int()); }
Variant::operator unsigned int() const { return static_cast<unsigned int>(to_int()); }
Variant::operator double() const { return to_double(); }

Variant::operator std::string() const {
  std::string s;
  tostr(s);
  return s;
}

void Variant::tostr(std::string& out) const {
  if (isnull || typ == VAL_NULL) {
    out = "NULL";
    return;
  }
  switch (typ) {
    case VAL_INT: {
      char buf[32];
      int n = std::snprintf(buf, sizeof buf, "%lli", static_cast<long long>(val.i));
      out.assign(buf, n);
      return;
    }
    case VAL_FLOAT: {
      if (!std::isfinite(val.d)) {
        out = "NULL";
        return;
      }
      char buf[400];  // "%.16f" of the largest double needs 327 bytes
      int n = std::snprintf(buf, sizeof buf, "%.16f", val.d);
      while (n > 0 && buf[n - 1] == '0') --n;
      if (n > 0 && buf[n - 1] == '.') buf[n++] = '0';
      out.assign(buf, n);
      return;
    }
    case VAL_STRING:
    case VAL_BINARY:
      if (val.s) out = *val.s; else out.clear();
      return;
    case VAL_DATE:
      out = "00.00.0000 00:00:00";
      return;
    default:
      out = "NULL";
  }
}

// Integers: ceil(log10(value)), floats that plus 17. The logarithm of zero,
// negative and non-finite values has no width; they count as 0 there.
int Variant::length() const {
  if (isnull || typ == VAL_NULL) return 5;
  auto digits = [](double v) {
    double l = std::ceil(std::log10(v));
    return std::isfinite(l) && l > 0 ? static_cast<int>(l) : 0;
  };
  switch (typ) {
    case VAL_INT: return digits(static_cast<double>(val.i));
    case VAL_FLOAT: return digits(val.d) + 17;
    case VAL_STRING:
    case VAL_BINARY: return val.s ? static_cast<int>(val.s->size()) : 0;
    case VAL_DATE: return 20;
    default: return 0;
  }
}

bool Variant::casttyp(VariantType target) {
  if (target == typ) return true;
  if (target == VAL_NULL) {
    cleanup();
    return true;
  }
  if (isnull) {
    release();
    typ = target;
    if (is_text()) val.s = new std::string;
    return true;
  }
  switch (target) {
    case VAL_INT: {
      long long v = 0;
      if (typ == VAL_FLOAT || typ == VAL_DATE) {
        v = to_int();
      } else if (typ == VAL_STRING) {
        bool whole = false;
        v = parse_long32(*val.s, &whole);
        if (!whole) {
          double d = parse_double(*val.s, &whole);
          if (!whole) {
            SetNull();
            typ = VAL_INT;
            return false;
          }
          v = Variant(d).to_int();
        }
      } else if (typ == VAL_BINARY) {
        v = static_cast<long long>(val.s->size());
      }
      release();
      typ = VAL_INT;
      val.i = v;
      return true;
    }
    case VAL_FLOAT:
    case VAL_DATE: {
      double d = 0.0;
      if (typ == VAL_INT) {
        d = static_cast<double>(val.i);
      } else if (typ == VAL_FLOAT || typ == VAL_DATE) {
        d = val.d;
      } else if (typ == VAL_STRING) {
        bool whole = false;
        d = parse_double(*val.s, &whole);
        if (!whole) {
          SetNull();
          typ = target;
          return false;
        }
      } else if (typ == VAL_BINARY) {
        d = static_cast<double>(val.s->size());
      }
      release();
      typ = target;
      val.d = d;
      return true;
    }
    case VAL_STRING: {
      if (typ == VAL_BINARY) {
        typ = VAL_STRING;
        return true;
      }
      // The new string's address goes into the value first and the text is
      // rendered while the kind is still the old one: the number itself is
      // gone by then. This order is kept on purpose.
      std::string* s = new std::string;
      val.s = s;
      tostr(*s);
      typ = VAL_STRING;
      return true;
    }
    case VAL_BINARY: {
      if (typ == VAL_STRING) {
        typ = VAL_BINARY;
        return true;
      }
      std::string* s = new std::string;
      if (typ == VAL_INT || typ == VAL_FLOAT || typ == VAL_DATE)
        s->assign(reinterpret_cast<const char*>(&val), sizeof val);
      typ = VAL_BINARY;
      val.s = s;
      return true;
    }
    default:
      return false;
  }
}

Variant Variant::convert(VariantType target, bool* ok) const {
  Variant copy(*this);
  bool r = copy.casttyp(target);
  if (ok) *ok = r;
  return copy;
}

namespace {

int compare(const Variant& a, const Variant& b) {
  int ra = rank(a.Type(), a.Isnull()), rb = rank(b.Type(), b.Isnull());
  if (ra != rb) return ra < rb ? -1 : 1;
  switch (ra) {
    case 0: return 0;
    case 1: {
      bool ia = a.Type() == VAL_INT, ib = b.Type() == VAL_INT;
      if (ia && ib) {
        long long x = a, y = b;
        return x < y ? -1 : (x > y ? 1 : 0);
      }
      if (ia) return compare_int_double(a, static_cast<double>(b));
      if (ib) return -compare_int_double(b, static_cast<double>(a));
      return compare_double(a, b);
    }
    case 2: {
      // Dates hold a double that operator double() does not hand out.
      Variant x = a.convert(VAL_FLOAT), y = b.convert(VAL_FLOAT);
      return compare_double(x, y);
    }
    default: {
      const std::string* x = a;
      const std::string* y = b;
      static const std::string empty;
      int c = (x ? *x : empty).compare(y ? *y : empty);
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
  }
}

}  // namespace

bool Variant::operator<(const Variant& other) const { return compare(*this, other) < 0; }
bool Variant::operator>(const Variant& other) const { return compare(*this, other) > 0; }
