// The look-up index of Config_File (private to the library).
#ifndef ZQCOMMON_SRC_DETAILS_CONFIG_INDEX_H
#define ZQCOMMON_SRC_DETAILS_CONFIG_INDEX_H

#include <climits>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "zqcommon/lib_config.h"

// Entries keyed by (section header line, name), case-folded when the file
// ignores case, in an open-addressing table of 16-byte slots; the first
// entry of a name in a section wins, as the scan in file order finds it.
struct Config_File::LookupIndex {
  struct Slot {
    uint64_t hash;  // 0: empty
    int header;
    int number;
  };
  std::vector<Slot> slots;  // a power of two in size
  // Upper-case section name -> header of the first name in byte order that
  // folds to it, for look-ups that match neither exactly nor in upper case.
  std::unordered_map<std::string, int> folded_sections;
  // Section name -> header, as the ordered map of sections holds them.
  std::unordered_map<std::string, int> exact_sections;
  // Byte -> upper case, taken from the locale when the index was built. A
  // later change of locale only sends look-ups to the scan: every hit is
  // checked by the name rule itself.
  char upper[256];
  size_t lines = 0, sections = 0;  // the table sizes it was built for
  bool fold = true;

  uint64_t key(int header, const char* name, size_t n) const;
  void add(int header, const LINE& entry, int number);
  // The line number of the entry, or INT_MIN.
  int find(int header, const std::string& name) const;
};

#endif
