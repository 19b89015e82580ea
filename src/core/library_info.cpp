// The library's information table: version, build date, OpenSSL headers and
// the CRC-32 engine this machine uses.
#include "zqcommon/library_info.h"

#include <openssl/opensslv.h>

#include <cstring>

#include "security/crc_impl.h"
#include "zqcommon/version.h"

#ifndef ZQ_BUILD_DATE
#define ZQ_BUILD_DATE "unknown"
#endif

namespace {

// The CRC-32 line is known only at run time. The table itself must be
// constant-initialised: a program that names it directly gets a copy of it
// when it is loaded, before any initialiser of the library has run, so only
// the text the fixed pointer refers to is filled in afterwards.
char crc32_line[32] = "CRC-32 ";

const bool crc32_line_filled = [] {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();  // the CPU features may be asked before libgcc's constructor ran
#endif
  const char* engine = zqdetail::crc32_vclmul_available()  ? "vpclmulqdq"
                       : zqdetail::crc32_clmul_available() ? "pclmulqdq"
                                                           : "slice-by-8";
  std::strncat(crc32_line, engine, sizeof crc32_line - std::strlen(crc32_line) - 1);
  return true;
}();

}  // namespace

const char* zqcommon_LIBRARYINFO[] = {
    "zqcommon " ZQCOMMON_VERSION_STRING,
    "built " ZQ_BUILD_DATE,
    "OpenSSL " OPENSSL_VERSION_STR,
    crc32_line,
    nullptr,
};
