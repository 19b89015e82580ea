// Types shared by the component services: time, fixed texts and severities.
#ifndef ZQCOMPONENTS_TYPES_H
#define ZQCOMPONENTS_TYPES_H

#include <cstdint>
#include <cstring>
#include <string>

#include "zqcommon/SuperEnum.h"
#include "zqcommon/export.h"

namespace components {

// The application's time unit, a 64-bit signed count.
typedef int64_t TIME;

// Severities, ordered by value.
enum eSeverity { NONE = 0, LOG = 1, INFO = 2, WARNING = 3, ERROR = 4, PANIC = 5 };

// A severity with its short names ".", "L", "I", "W", "E", "P" and the
// descriptions "NONE" ... "PANIC".
typedef SuperEnum<eSeverity> Severity;

// A text in a fixed buffer of 128 bytes and no heap memory, so that records
// holding it can live in shared or real-time memory. Texts are cut at 127
// characters: the buffer always ends with a zero. The rest of the buffer is
// zero-padded. Plain data: copy it freely.
class ZQ_EXPORT fixed_string {
 public:
  static constexpr size_t kCapacity = 128;

  fixed_string() { erase(); }
  fixed_string(const char* text) { *this = text; }         // NOLINT: implicit on purpose
  fixed_string(const std::string& text) { *this = text; }  // NOLINT
  fixed_string& operator=(const char* text) {
    return assign(text, text != nullptr ? std::strlen(text) : 0);
  }
  fixed_string& operator=(const std::string& text) { return assign(text.data(), text.size()); }

  void erase() { std::memset(str_data, 0, kCapacity); }
  size_t size() const { return std::strlen(str_data); }
  size_t length() const { return size(); }
  const char* c_str() const { return str_data; }
  operator const char*() const { return str_data; }

  bool operator==(const char* text) const {
    return std::strcmp(str_data, text != nullptr ? text : "") == 0;
  }
  bool operator==(const std::string& text) const { return *this == text.c_str(); }
  bool operator==(const fixed_string& other) const { return *this == other.str_data; }
  bool operator!=(const char* text) const { return !(*this == text); }
  bool operator!=(const std::string& text) const { return !(*this == text); }
  bool operator!=(const fixed_string& other) const { return !(*this == other); }

  char str_data[kCapacity];

 private:
  fixed_string& assign(const char* text, size_t n) {
    if (n > kCapacity - 1) n = kCapacity - 1;
    if (n != 0 && text != str_data) std::memmove(str_data, text, n);
    std::memset(str_data + n, 0, kCapacity - n);
    return *this;
  }
};

}  // namespace components

ZQ_SUPERENUM_DECLARE(components::eSeverity);

#endif
