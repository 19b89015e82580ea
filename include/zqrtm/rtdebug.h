// printf-like output for real-time tasks, through mailboxes and a printing task.
#ifndef ZQRTM_RTDEBUG_H
#define ZQRTM_RTDEBUG_H

#include <cstdarg>
#include <memory>

#include "zqrtm/rtmailbox.h"
#include "zqrtm/rtthread.h"
#include "zqcommon/export.h"

// Real-time tasks must not write to standard output themselves. rtdebug
// formats into 256-byte records (texts over 255 characters end in "...") and
// posts them, without waiting, into three mailboxes of 128 records: standard
// output, standard error and a log. Its own task ("MBXTSK", every 10 ms)
// prints them. A full mailbox drops messages; once space frees, the next
// message is preceded by "--- output overflow ---\r\n".
//
// One process-wide instance: StartRTDebug() makes it (in RTDEBUG),
// EndRTDebug() stops and deletes it. Messages are gated by `*level >= lvl`
// and `*mask & m`, against the pointed-to variables set by init().
class ZQ_EXPORT rtdebug : public rtthread {
 public:
  static constexpr unsigned int kRecord = 256;
  static int dmylvl;
  static unsigned int dmymask;

  rtdebug();
  ~rtdebug() override;

  static void StartRTDebug();
  static void EndRTDebug();

  // Replaces the level and mask pointers that are not null.
  void init(int* level, unsigned int* mask);
  void printf(int lvl, unsigned int m, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
  void debug(int lvl, unsigned int m, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
  // Always to the log mailbox; to standard output too when the gate is open.
  void logger(int lvl, unsigned int m, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
  // Formats and posts one record into mailbox `which` (0 stdout, 1 stderr, 2 log).
  void output(int which, const char* fmt, va_list args);
  // Takes one record from mailbox `which`; for tests and custom readers.
  bool take(int which, std::string& text) { return mboxes[which]->GetMessage(text); }

  int* level = &dmylvl;
  unsigned int* mask = &dmymask;
  std::unique_ptr<rtmailbox> mboxes[3];
  std::atomic<bool> overflow[3] = {{false}, {false}, {false}};

 protected:
  void start(void*) override {}
  // Prints waiting records; returns when the task is cancelled.
  void* rtrun(void*) override;

 private:
  bool gate(int lvl, unsigned int m) const { return *level >= lvl && (*mask & m) != 0; }
};

extern ZQ_EXPORT rtdebug* RTDEBUG;

#endif
