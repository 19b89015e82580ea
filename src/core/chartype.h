// Character classes shared by the string functions (private to the library).
#ifndef ZQCOMMON_SRC_CHARTYPE_H
#define ZQCOMMON_SRC_CHARTYPE_H

#include <cctype>
#include <cstddef>
#include <string>

namespace zqdetail {

// isspace() in the C locale for 7-bit characters; bytes 128-255 are never blank.
inline bool is_blank(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return u < 128 && std::isspace(u);
}

inline char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
inline char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

inline constexpr char kHexDigits[] = "0123456789abcdef";

// Appends each byte as two lower-case hexadecimal digits, with `separator`
// between bytes unless it is 0.
inline void append_hex(std::string& out, const unsigned char* bytes, size_t n, char separator = 0) {
  for (size_t i = 0; i < n; ++i) {
    if (separator != 0 && i != 0) out += separator;
    out += kHexDigits[bytes[i] >> 4];
    out += kHexDigits[bytes[i] & 15];
  }
}

}  // namespace zqdetail

#endif
