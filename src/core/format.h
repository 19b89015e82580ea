// printf-style formatting for the log's hot path (private to the library).
#ifndef ZQCOMMON_SRC_DETAILS_FORMAT_H
#define ZQCOMMON_SRC_DETAILS_FORMAT_H

#include <cstdarg>
#include <cstddef>

namespace zqdetail {

// Same contract and the same bytes as std::vsnprintf(out, size, format, args):
// writes at most size - 1 characters and a terminating NUL (when size > 0) and
// returns the length the whole text would have, or a negative number on error.
// The common conversions (d i u x X o c s f F e E g G %, flags, widths,
// precisions, '*', the length modifiers hh h l ll z j t) are formatted here
// with exact decimal rounding; any other conversion, positional arguments,
// non-finite or out-of-range floating-point values, a rounding mode other than
// to-nearest and a text that does not fit are handed to std::vsnprintf whole.
// Allocates nothing; thread-safe.
int vformat(char* out, size_t size, const char* format, va_list args);
// The same, reading the arguments from *args and, when the text is handed to
// std::vsnprintf, from *again: two lists started on the same arguments, both
// left indeterminate. A caller with its own va_start saves the va_copy, whose
// load of a list just written stalls the processor for longer than the
// formatting of a number takes.
int vformat(char* out, size_t size, const char* format, va_list* args, va_list* again);

}  // namespace zqdetail

#endif
