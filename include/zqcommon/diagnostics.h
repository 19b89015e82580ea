// The one path of the library's diagnostic output.
#ifndef ZQCOMMON_DIAGNOSTICS_H
#define ZQCOMMON_DIAGNOSTICS_H

#include <cstddef>

#include "zqcommon/export.h"

namespace zqcommon {

/// The stream a diagnostic is meant for when no sink is installed.
enum class DiagnosticStream { kError, kOutput };

/// Receives every diagnostic the library writes: `length` bytes of `text`
/// (normally one or more whole lines ending in '\n', not zero-terminated
/// necessarily). `context` is the pointer given to SetDiagnosticSink. May be
/// called from any library thread, at the same time from several; it must not
/// call back into WriteDiagnostic.
typedef void (*DiagnosticSink)(void* context, DiagnosticStream stream, const char* text,
                               std::size_t length);

/// Installs `sink` for all later diagnostics; null restores the default, which
/// writes kError text to standard error and kOutput text to standard output
/// (flushed), byte for byte. The gates (DEBUG_LEVEL thresholds) stay where the
/// messages are made: a sink sees exactly what would have been printed.
/// Install the sink before starting threads that may write diagnostics, and
/// keep `context` alive until another sink replaces it.
ZQ_EXPORT void SetDiagnosticSink(DiagnosticSink sink, void* context = nullptr);

/// Hands `length` bytes of `text` to the installed sink (or the default).
/// Every diagnostic of the library goes through this function.
ZQ_EXPORT void WriteDiagnostic(DiagnosticStream stream, const char* text, std::size_t length);

/// printf-style formatting, then WriteDiagnostic. Never fails: an unusable
/// format writes nothing.
ZQ_EXPORT void DiagnosticPrintf(DiagnosticStream stream, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace zqcommon

#endif
