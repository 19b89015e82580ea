// Enumerations with names and descriptions, and 64-bit sets of them.
#ifndef ZQCOMMON_SUPERENUM_H
#define ZQCOMMON_SUPERENUM_H

#include <cassert>
#include <string>

#include "zqcommon/export.h"

// A value of the enumeration E together with E's fixed tables of values,
// short names (the form used in text) and descriptions, so that it can be
// written to and read from configuration files and logs.
//
// Each enumeration supplies its tables by specialising the static members
// (declared in a header, defined in one source file):
//
//   template <> const int SuperEnum<Color>::SIZE = 2;   // enumerators
//   template <> const int SuperEnum<Color>::ROWS = 2;   // table rows
//   template <> const Color SuperEnum<Color>::_vals[] = {RED, GREEN};
//   template <> const char* const SuperEnum<Color>::_texts[] = {"r", "g"};
//   template <> const char* const SuperEnum<Color>::_descr[] = {"red", "green"};
//
// (ZQ_SUPERENUM_DECLARE(Color) in the header declares them.)
// ROWS may be smaller than SIZE when some enumerators have no name; those are
// treated as unknown. A position outside the table rows is the invalid state:
// it renders as "#undefined Enum value". Comparisons order by table position.
// Plain value type: no locks, no allocation except the string conversion.
template <typename E>
class SuperEnum {
 public:
  static const int SIZE;
  static const int ROWS;
  static const E _vals[];
  static const char* const _texts[];
  static const char* const _descr[];

  // Walks the table rows forwards (begin/end) or backwards (rbegin/rend).
  class iterator {
   public:
    iterator(int pos, int step) : pos_(pos), step_(step) {}
    SuperEnum operator*() const { return SuperEnum(Position{pos_}); }
    iterator& operator++() {
      pos_ += step_;
      return *this;
    }
    bool operator==(const iterator& o) const { return pos_ == o.pos_; }
    bool operator!=(const iterator& o) const { return pos_ != o.pos_; }

   private:
    int pos_, step_;
  };

  SuperEnum() = default;
  SuperEnum(E value) { *this = value; }  // NOLINT: implicit on purpose

  bool isvalid() const { return _pos >= 0 && _pos < ROWS; }

  // The row holding `value`; an unknown value gives the invalid position SIZE.
  SuperEnum& operator=(E value) {
    for (int i = 0; i < ROWS; ++i) {
      if (_vals[i] == value) {
        _pos = i;
        return *this;
      }
    }
    _pos = SIZE;
    return *this;
  }

  // The row whose short name equals `text` exactly (case and blanks count);
  // false and the invalid position -1 when there is none.
  bool operator=(const std::string& text) {
    for (int i = 0; i < ROWS; ++i) {
      if (text == _texts[i]) {
        _pos = i;
        return true;
      }
    }
    _pos = -1;
    return false;
  }

  operator const char*() const { return isvalid() ? _texts[_pos] : kUndefined; }
  operator std::string() const { return static_cast<const char*>(*this); }
  const char* Description() const { return isvalid() ? _descr[_pos] : kUndefined; }

  // The value; an invalid position below the table gives the first row's
  // value, one above it the last row's.
  operator E() const { return _vals[_pos < 0 ? 0 : (_pos >= ROWS ? ROWS - 1 : _pos)]; }

  // Steps through the rows; stepping ends on the invalid positions ROWS
  // (forwards) and -1 (backwards).
  SuperEnum& operator++() {
    if (_pos < ROWS) ++_pos;
    return *this;
  }
  SuperEnum& operator--() {
    if (_pos >= 0) --_pos;
    return *this;
  }
  SuperEnum operator++(int) {
    SuperEnum old = *this;
    ++*this;
    return old;
  }
  SuperEnum operator--(int) {
    SuperEnum old = *this;
    --*this;
    return old;
  }

  static iterator begin() { return iterator(0, 1); }
  static iterator end() { return iterator(ROWS, 1); }
  static iterator rbegin() { return iterator(ROWS - 1, -1); }
  static iterator rend() { return iterator(-1, -1); }

  friend bool operator==(const SuperEnum& a, const SuperEnum& b) { return a._pos == b._pos; }
  friend bool operator!=(const SuperEnum& a, const SuperEnum& b) { return a._pos != b._pos; }
  friend bool operator<(const SuperEnum& a, const SuperEnum& b) { return a._pos < b._pos; }
  friend bool operator>(const SuperEnum& a, const SuperEnum& b) { return a._pos > b._pos; }
  friend bool operator<=(const SuperEnum& a, const SuperEnum& b) { return a._pos <= b._pos; }
  friend bool operator>=(const SuperEnum& a, const SuperEnum& b) { return a._pos >= b._pos; }
  friend bool operator==(const SuperEnum& a, E b) { return a == SuperEnum(b); }
  friend bool operator!=(const SuperEnum& a, E b) { return a != SuperEnum(b); }
  friend bool operator<(const SuperEnum& a, E b) { return a < SuperEnum(b); }
  friend bool operator>(const SuperEnum& a, E b) { return a > SuperEnum(b); }
  friend bool operator<=(const SuperEnum& a, E b) { return a <= SuperEnum(b); }
  friend bool operator>=(const SuperEnum& a, E b) { return a >= SuperEnum(b); }

  // Text access for configuration fields: op 0 writes the object's text into
  // `text` (true), op 1 assigns the object from `text` (its answer); other ops
  // answer false. `object` points to a SuperEnum<E> and must not be null.
  static bool resolve(int op, void* object, std::string& text) {
    assert(object != nullptr);
    auto* e = static_cast<SuperEnum*>(object);
    if (op == 0) {
      text = static_cast<std::string>(*e);
      return true;
    }
    if (op == 1) return *e = text;
    return false;
  }

 private:
  struct Position {
    int pos;
  };
  explicit SuperEnum(Position p) : _pos(p.pos) {}

  static constexpr const char* kUndefined = "#undefined Enum value";
  int _pos = 0;
};

// A set of values of E as a 64-bit mask: the member E has the bit whose index
// is its value (not its table row), so only values 0 to 63 can be members;
// others are ignored. Written as the members' short names joined by commas
// ("R,W"). Plain value type; constexpr where no text is involved.
template <typename E>
class SuperEnumSet {
 public:
  // Visits the members in ascending bit order.
  class iterator {
   public:
    explicit iterator(unsigned long long bits, int bit) : bits_(bits), bit_(bit) { skip(); }
    SuperEnum<E> operator*() const { return SuperEnum<E>(static_cast<E>(bit_)); }
    iterator& operator++() {
      ++bit_;
      skip();
      return *this;
    }
    bool operator==(const iterator& o) const { return bit_ == o.bit_; }
    bool operator!=(const iterator& o) const { return bit_ != o.bit_; }

   private:
    void skip() {
      while (bit_ < 64 && ((bits_ >> bit_) & 1u) == 0) ++bit_;
    }
    unsigned long long bits_;
    int bit_;
  };

  constexpr SuperEnumSet() = default;
  constexpr explicit SuperEnumSet(unsigned long long bits) : _bits(bits) {}
  constexpr SuperEnumSet(E value) : _bits(bit(value)) {}  // NOLINT: implicit on purpose
  SuperEnumSet(const std::string& text) { *this = text; }  // NOLINT

  SuperEnumSet& operator=(E value) {
    _bits = bit(value);
    return *this;
  }
  // Reads members from text split at ',' and '|' (empty pieces skipped, names
  // exact). Answers the validity of the LAST piece read ('R,X,W' is true,
  // 'R,W,X' false, both giving {R,W}); true for a text without pieces.
  bool operator=(const std::string& text) {
    _bits = 0;
    bool last = true;
    std::string::size_type start = 0;
    while (start <= text.size()) {
      auto end = text.find_first_of(",|", start);
      if (end == std::string::npos) end = text.size();
      if (end > start) {
        SuperEnum<E> e;
        last = e = text.substr(start, end - start);
        if (last) _bits |= bit(static_cast<E>(e));
      }
      start = end + 1;
    }
    return last;
  }

  constexpr operator const unsigned long long&() const { return _bits; }

  SuperEnumSet& operator+=(E value) {
    _bits |= bit(value);
    return *this;
  }
  SuperEnumSet& operator+=(const SuperEnumSet& other) {
    _bits |= other._bits;
    return *this;
  }
  SuperEnumSet& operator-=(E value) {
    _bits &= ~bit(value);
    return *this;
  }
  SuperEnumSet& operator-=(const SuperEnumSet& other) {
    _bits &= ~other._bits;
    return *this;
  }
  // Adds (removes) the members read from text when reading answers true.
  bool operator+=(const std::string& text) {
    SuperEnumSet items;
    const bool ok = items = text;
    if (ok) *this += items;
    return ok;
  }
  bool operator-=(const std::string& text) {
    SuperEnumSet items;
    const bool ok = items = text;
    if (ok) *this -= items;
    return ok;
  }
  SuperEnumSet& operator|=(const SuperEnumSet& other) { return *this += other; }
  SuperEnumSet& operator^=(const SuperEnumSet& other) {
    _bits ^= other._bits;
    return *this;
  }
  constexpr SuperEnumSet operator|(const SuperEnumSet& other) const {
    return SuperEnumSet(_bits | other._bits);
  }
  constexpr SuperEnumSet operator^(const SuperEnumSet& other) const {
    return SuperEnumSet(_bits ^ other._bits);
  }
  constexpr SuperEnumSet operator~() const { return SuperEnumSet(~_bits); }
  // Membership of one value.
  constexpr bool operator&(E value) const { return (_bits & bit(value)) != 0; }
  // Intersection.
  constexpr SuperEnumSet operator&(const SuperEnumSet& other) const {
    return SuperEnumSet(_bits & other._bits);
  }
  constexpr explicit operator bool() const { return _bits != 0; }
  constexpr bool empty() const { return _bits == 0; }
  void clear() { _bits = 0; }

  iterator begin() const { return iterator(_bits, 0); }
  iterator end() const { return iterator(_bits, 64); }

  operator std::string() const {
    std::string text;
    for (SuperEnum<E> e : *this) {
      text += static_cast<const char*>(e);
      text += ',';
    }
    if (!text.empty()) text.pop_back();
    return text;
  }

  // Text access for configuration fields: op 0 writes the text, op 1 assigns
  // from text, op 2 adds items (+=), op 3 removes them (-=); other ops answer
  // false. `object` points to a SuperEnumSet<E> and must not be null.
  static bool resolve(int op, void* object, std::string& text) {
    assert(object != nullptr);
    auto* set = static_cast<SuperEnumSet*>(object);
    switch (op) {
      case 0:
        text = static_cast<std::string>(*set);
        return true;
      case 1: return *set = text;
      case 2: return *set += text;
      case 3: return *set -= text;
      default: return false;
    }
  }

 private:
  static constexpr unsigned long long bit(long long value) {
    return value >= 0 && value < 64 ? 1ULL << value : 0;
  }
  unsigned long long _bits = 0;
};

// Declares the table specialisations of SuperEnum<E>; use it in the header
// that declares E, at global scope, and define them in one source file.
#define ZQ_SUPERENUM_DECLARE(E)                 \
  template <> ZQ_EXPORT const int SuperEnum<E>::SIZE;     \
  template <> ZQ_EXPORT const int SuperEnum<E>::ROWS;     \
  template <> ZQ_EXPORT const E SuperEnum<E>::_vals[];    \
  template <> ZQ_EXPORT const char* const SuperEnum<E>::_texts[]; \
  template <> ZQ_EXPORT const char* const SuperEnum<E>::_descr[]

#endif
