// The library's own information table.
#ifndef ZQCOMMON_LIBRARY_INFO_H
#define ZQCOMMON_LIBRARY_INFO_H

#include "zqcommon/export.h"

/// The information table libzqcommon publishes about itself, in the form every
/// library information table has (see GetLibraryInfo): texts ended by a null
/// pointer. In order: "zqcommon VERSION", "built DATE", "OpenSSL VERSION" (the
/// OpenSSL headers it was built with) and "CRC-32 PATH" (the CRC-32 engine
/// chosen on this machine when the library was loaded: "vpclmulqdq",
/// "pclmulqdq" or "slice-by-8"). The table is filled before main() runs and
/// never changes afterwards; reading it needs no lock. A program may read it
/// directly, or through GetLibraryInfo("zqcommon", info) where the loader can
/// find libzqcommon.so by that name.
extern "C" ZQ_EXPORT const char* zqcommon_LIBRARYINFO[];

#endif
