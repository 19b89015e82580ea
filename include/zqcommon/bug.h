// Process-wide debug level and library information tables.
#ifndef ZQCOMMON_BUG_H
#define ZQCOMMON_BUG_H

#include <cstdio>
#include <string>
#include <vector>

#include "zqcommon/export.h"
#include "zqcommon/diagnostics.h"

// The library's diagnostic verbosity. It starts at 0, where the library prints
// no diagnostics at all; every diagnostic is written to standard error only
// when the level is greater than the message's threshold. Nothing in the
// library changes it: a program sets it once, before it starts threads, and it
// is then read without a lock.
//
// Thresholds used throughout the library:
//   > 0   warnings and repairs of input
//   > 9   progress of whole operations (opening, parsing, clearing)
//   > 19  each call that fetches or adds something
//   > 49  values found, with their line numbers
//   > 99  defaults returned for missing items; each case-insensitive comparison
//   > 100 each section search
extern ZQ_EXPORT int _DEBUG_LEVEL;
#define DEBUG_LEVEL _DEBUG_LEVEL

// Writes a printf-style diagnostic (to standard error unless the program
// installed a sink, see zqcommon/diagnostics.h) when DEBUG_LEVEL exceeds
// `threshold`. The arguments are not evaluated when the level is too low.
#define ZQ_DEBUG(threshold, ...)                                                    \
  do {                                                                              \
    if (_DEBUG_LEVEL > (threshold))                                                 \
      ::zqcommon::DiagnosticPrintf(::zqcommon::DiagnosticStream::kError, __VA_ARGS__); \
  } while (0)

// Reads the information table of a shared library. The library named N is
// opened by the dynamic library loader (which tries "libN.so", "libN.la",
// "N.so" and "N.la") and must publish a global array of C strings named
// N + "_LIBRARYINFO", ended by a null pointer or an empty string:
//
//   extern "C" const char* mylib_LIBRARYINFO[] = {"mylib 1.2", "built ...", nullptr};
//
// `info` is emptied, then receives the strings in order; true on success.
// When the loader reports an error text (even one from a failed first attempt
// before a later file name opened) or the symbol is missing, that text is the
// only element of `info` and the result is false. The library is closed again
// before the call returns, so the strings are copies.
ZQ_EXPORT bool GetLibraryInfo(const std::string& library, std::vector<std::string>& info);

#endif
