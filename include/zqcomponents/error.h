// Error records with severities and promotion of repeated signals.
#ifndef ZQCOMPONENTS_ERROR_H
#define ZQCOMPONENTS_ERROR_H

#include <string>

#include "zqcomponents/types.h"
#include "zqcommon/export.h"

namespace components {

// The state of one watched condition: its last severity, how often it was
// raised, when its current active period began, a text, and promotion
// thresholds by which repeated signals of one severity count as the next
// higher one. Plain fixed-size data (no heap), no lock: the owning component
// serialises access.
class ZQ_EXPORT OneError {
 public:
  static constexpr unsigned int kDisabled = 4294967295u;

  OneError();

  // Counters and time to 0, not active, severity NONE; thresholds and text stay.
  OneError& Reset();
  // A level report: the condition is present now with `sev` (a change of
  // severity counts once; repeating it does not), or has gone (NONE: not
  // active, count 0, the last severity and total stay readable).
  void Set(Severity sev, const TIME& t);
  // An event report: counts every call (NONE is ignored); does not set active.
  void Signal(Severity sev, const TIME& t);
  // Sets thresholds from "NAME:number,..." with severity names, full or
  // short ("WARNING:10,E:3"); numbers in decimal, 0x hexadecimal or 0 octal.
  // Invalid names, items without ':' and thresholds of 0 are skipped.
  OneError& operator=(const std::string& spec);
  // The effective severity, with promotion applied: with W:10 and E:3, ten
  // warnings read as ERROR and thirty as PANIC.
  operator Severity() const;

  Severity s;
  unsigned int promotion[4];  // LOG, INFO, WARNING, ERROR (severity - 1)
  unsigned int total_count = 0;
  unsigned int count = 0;
  TIME last_time = 0;
  bool active = false;
  fixed_string text;
};

}  // namespace components

#endif
