// A small tagged value whose kind is known only at run time.
#ifndef ZQCOMMON_VARIANT_H
#define ZQCOMMON_VARIANT_H

#include <cstdint>
#include <string>

#include "zqcommon/export.h"

enum VariantType {
  VAL_NULL = 0,
  VAL_INT = 1,
  VAL_FLOAT = 2,
  VAL_STRING = 3,
  VAL_BINARY = 4,
  VAL_DATE = 5
};

// Holds null, a 64-bit integer, a double, a text, a binary block (bytes kept
// in a std::string) or a date (a double). The text kinds own their string on
// the heap; copies copy it. SetBinary adopts a caller's string; RemoveBinary
// gives the string up without freeing it, so whoever took it through
// operator std::string*() owns it afterwards.
//
// Conversions never throw: a text that is not a number converts to 0 (or
// 0.0), and casttyp answers false and leaves a null value. Text parsed as an
// integer is read as a 32-bit long and saturates at its limits.
//
// Ordering (operator< and operator>) is a total order: null values first,
// then numbers (VAL_INT and VAL_FLOAT compared exactly by value, an integer
// before an equal float, NaN after every number), then dates by value, then
// texts, then binary blocks, both byte by byte.
//
// Not thread-safe; one owner at a time.
class ZQ_EXPORT Variant {
 public:
  Variant() = default;
  Variant(long long v);
  Variant(int v);
  Variant(unsigned int v);
  Variant(double v);
  Variant(const std::string& v);
  // An empty value of kind t: 0, 0.0 or an empty text; VAL_NULL is null.
  Variant(VariantType t);
  Variant(const Variant& other);
  ~Variant();

  Variant& operator=(const Variant& other);
  Variant& operator=(long long v);
  Variant& operator=(int v);
  Variant& operator=(unsigned int v);
  Variant& operator=(double v);
  Variant& operator=(const std::string& v);
  // A null pointer makes the value null.
  Variant& operator=(const char* v);

  VariantType Type() const { return typ; }
  bool Isnull() const { return isnull; }
  // Releases a held text and marks the value null; the kind stays.
  void SetNull();
  // Releases a held text; the value becomes VAL_NULL and null.
  void cleanup();

  // Change a non-null VAL_INT only.
  Variant& operator+=(long long d);
  Variant& operator-=(long long d);

  // Adopts `s` (which may be null: an empty block) as a binary block.
  void SetBinary(std::string* s);
  // For the text kinds: forgets the string without freeing it. The value
  // becomes VAL_NULL and null.
  void RemoveBinary();
  // The held string of a text kind (still owned by this value), else null.
  operator std::string*() const;

  operator long long() const;
  operator int() const;
  operator unsigned int() const;
  operator double() const;
  operator std::string() const;

  // The text form: "NULL" for null values and non-finite floats, "%lli" for
  // integers, floats with trailing zeros cut back to one decimal, the held
  // bytes of text kinds and "00.00.0000 00:00:00" for dates.
  void tostr(std::string& out) const;
  // Width of the text form (see the source for the rule per kind).
  int length() const;

  // Changes the kind in place; false when the value did not survive (then
  // it is null). Casting VAL_INT or VAL_FLOAT to VAL_STRING renders the
  // value after the new string's address was stored over it: on this 64-bit
  // platform an integer renders as the decimal address of the new string
  // and a float as "0.0". Use tostr() for the number as text.
  bool casttyp(VariantType target);
  // A copy cast to `target`; `ok` receives casttyp's answer when given.
  Variant convert(VariantType target, bool* ok = nullptr) const;

  bool operator<(const Variant& other) const;
  bool operator>(const Variant& other) const;

 private:
  void release();
  void set_text(VariantType t, const std::string& s);
  bool is_text() const { return typ == VAL_STRING || typ == VAL_BINARY; }
  long long to_int() const;
  double to_double() const;

  VariantType typ = VAL_NULL;
  bool isnull = true;
  union {
    int64_t i;
    double d;
    std::string* s;
  } val{0};
};

#endif
