// Character classes shared by the string functions (private to the library).
#ifndef ZQCOMMON_SRC_CHARTYPE_H
#define ZQCOMMON_SRC_CHARTYPE_H

#include <cctype>

namespace zqdetail {

// isspace() in the C locale for 7-bit characters; bytes 128-255 are never blank.
inline bool is_blank(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return u < 128 && std::isspace(u);
}

inline char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
inline char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

}  // namespace zqdetail

#endif
