// Catalogue rows that describe the values of an enumeration, and a map of them.
#ifndef ZQCOMMON_ENUMINFO_H
#define ZQCOMMON_ENUMINFO_H

#include <map>

// One row: the enumeration value, its short symbol, its long name and two
// values of type V (for units: the kind of quantity and the scale). The texts
// are not copied; catalogue tables keep them as literals.
template <class E, class V>
struct EnumInfo {
  E id;
  const char* symbol;
  const char* name;
  V kind;
  V scale;
};

// An ordered map from enumeration value to its row, filled from tables. The
// first row given for a value wins; later rows for it are ignored. Rows are
// copied, so the tables may go away afterwards. Not thread-safe while it is
// being extended; concurrent look-ups of a finished list are safe.
template <class E, class V>
class EnumList : public std::map<E, EnumInfo<E, V>> {
 public:
  EnumList() = default;
  EnumList(unsigned int count, const EnumInfo<E, V>* table) { append(count, table); }

  // Adds the rows of `table` in order; nothing happens for 0 rows or no table.
  void append(unsigned int count, const EnumInfo<E, V>* table) {
    if (count == 0 || table == nullptr) return;
    for (unsigned int k = 0; k < count; ++k) this->emplace(table[k].id, table[k]);
  }
};

#endif
