// Real-time debug output: records posted into mailboxes, printed by a task.
#include "zqrtm/rtdebug.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "zqcommon/diagnostics.h"
#include "zqcommon/functions.h"

rtdebug* RTDEBUG = nullptr;
int rtdebug::dmylvl = 0;
unsigned int rtdebug::dmymask = 0xFFFFFFFFu;

namespace {
constexpr unsigned int kEntries = 32768 / rtdebug::kRecord;
constexpr char kOverflow[] = "--- output overflow ---\r\n";
}  // namespace

rtdebug::rtdebug() : rtthread("MBXTSK", 10000000, false, 1, true) {
  for (auto& box : mboxes) box = std::make_unique<rtmailbox>(kRecord, kEntries);
}

rtdebug::~rtdebug() {
  // Stop the printing task before the mailboxes go.
  SetCancel();
  WaitFinished(2000);
}

void rtdebug::StartRTDebug() {
  if (RTDEBUG != nullptr) return;
  RTDEBUG = new rtdebug();
  RTDEBUG->Start(nullptr);
}

void rtdebug::EndRTDebug() {
  if (RTDEBUG == nullptr) return;
  delete RTDEBUG;  // the destructor stops and waits for the task
  RTDEBUG = nullptr;
}

void rtdebug::init(int* new_level, unsigned int* new_mask) {
  if (new_level != nullptr) level = new_level;
  if (new_mask != nullptr) mask = new_mask;
}

void rtdebug::output(int which, const char* fmt, va_list args) {
  if (overflow[which] && !mboxes[which]->PutMessage(kOverflow)) return;
  overflow[which] = false;
  std::string text;
  vFormat(text, fmt, args);
  if (text.size() > kRecord - 1) {
    text.resize(kRecord - 1);  // byte 255 is the record's terminating zero
    text.replace(252, 3, "...");
  }
  text.resize(std::min<size_t>(text.size(), std::strlen(text.c_str())));
  overflow[which] = !mboxes[which]->PutMessage(text);
}

void rtdebug::printf(int lvl, unsigned int m, const char* fmt, ...) {
  if (!gate(lvl, m)) return;
  va_list args;
  va_start(args, fmt);
  output(0, fmt, args);
  va_end(args);
}

void rtdebug::debug(int lvl, unsigned int m, const char* fmt, ...) {
  if (!gate(lvl, m)) return;
  va_list args;
  va_start(args, fmt);
  output(1, fmt, args);
  va_end(args);
}

void rtdebug::logger(int lvl, unsigned int m, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  output(2, fmt, args);
  if (gate(lvl, m)) output(0, fmt, again);
  va_end(again);
  va_end(args);
}

void* rtdebug::rtrun(void*) {
  std::string record;
  while (!IsCancelled()) {
    bool delivered = false;
    if (mboxes[1]->GetMessage(record)) {
      zqcommon::WriteDiagnostic(zqcommon::DiagnosticStream::kError, record.c_str(), std::strlen(record.c_str()));
      delivered = true;
    }
    if (mboxes[0]->GetMessage(record)) {
      std::fputs(record.c_str(), stdout);
      std::fflush(stdout);
      delivered = true;
    }
    if (mboxes[2]->GetMessage(record)) delivered = true;  // taken and discarded
    if (!delivered) usleep(100000);
  }
  return nullptr;
}
