// The library's diagnostics go into the station's log.
//
// The log is written by the main thread only (it has no lock of its own), so
// diagnostics raised on the main thread become log entries (a WARNING or
// ERROR prefix chooses the type, anything else is DEBUG), while those of other
// threads keep the library's default and go to standard error.
#include <zqcommon/diagnostics.h>
#include <zqcommon/log.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace station {

namespace {

struct LogTarget {
  Log* log;
  std::thread::id owner;
};

LogTarget g_target;

eLog_Type type_of(const std::string& text) {
  if (text.rfind("ERROR", 0) == 0 || text.rfind("FATAL", 0) == 0) return elog_ERROR;
  if (text.rfind("WARNING", 0) == 0) return elog_WARN;
  return elog_DEBUG;
}

void to_log(void* context, zqcommon::DiagnosticStream stream, const char* text, size_t length) {
  const auto* target = static_cast<const LogTarget*>(context);
  if (std::this_thread::get_id() != target->owner) {
    std::fwrite(text, 1, length, stream == zqcommon::DiagnosticStream::kOutput ? stdout : stderr);
    return;
  }
  std::string line(text, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (!line.empty()) target->log->Add(type_of(line), 0, "%s", line.c_str());
}

}  // namespace

// Routes the library's diagnostics into `log` for as long as it lives; call
// from the thread that writes the log.
void RouteDiagnosticsToLog(Log& log) {
  g_target = LogTarget{&log, std::this_thread::get_id()};
  zqcommon::SetDiagnosticSink(to_log, &g_target);
}

// Restores the library's default before the log goes away.
void StopRoutingDiagnostics() { zqcommon::SetDiagnosticSink(nullptr); }

}  // namespace station
