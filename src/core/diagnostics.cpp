// The diagnostic path: one function hands every message to the sink.
#include "zqcommon/diagnostics.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>


namespace zqcommon {

namespace {

struct Installed {
  DiagnosticSink sink;
  void* context;
};

// Both fields change together, so a writer never pairs a sink with another
// sink's context.
std::atomic<const Installed*> g_installed{nullptr};

}  // namespace

void SetDiagnosticSink(DiagnosticSink sink, void* context) {
  // Replaced sinks are kept: a writer in another thread may still hold one.
  // Programs install a sink once or twice, so this stays a few bytes. A deque
  // never moves its elements, so the pointers stay valid.
  static std::mutex lock;
  static std::deque<Installed> kept;
  const Installed* next = nullptr;
  if (sink != nullptr) {
    std::lock_guard<std::mutex> hold(lock);
    kept.push_back(Installed{sink, context});
    next = &kept.back();
  }
  g_installed.store(next, std::memory_order_release);
}

void WriteDiagnostic(DiagnosticStream stream, const char* text, std::size_t length) {
  const Installed* installed = g_installed.load(std::memory_order_acquire);
  if (installed != nullptr) {
    installed->sink(installed->context, stream, text, length);
  } else if (stream == DiagnosticStream::kOutput) {
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
  } else {
    std::fwrite(text, 1, length, stderr);
  }
}

void DiagnosticPrintf(DiagnosticStream stream, const char* format, ...) {
  // Formatted exactly as fprintf would: sized first, then written.
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (n > 0) {
    std::string text(static_cast<std::size_t>(n) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, again);
    WriteDiagnostic(stream, text.data(), static_cast<std::size_t>(n));
  }
  va_end(again);
}

}  // namespace zqcommon
