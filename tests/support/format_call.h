// Calls the log's internal formatter with a variadic argument list, as the
// C library's snprintf is called, for the tests and the fuzzer.
#ifndef ZQ_TESTS_SUPPORT_FORMAT_CALL_H
#define ZQ_TESTS_SUPPORT_FORMAT_CALL_H

#include <cstdarg>
#include <cstddef>

#include "core/format.h"

inline int format_call(char* out, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = zqdetail::vformat(out, size, format, args);
  va_end(args);
  return n;
}

#endif
