// The syslog priority prefix journald reads at the start of a line.
#ifndef ZQ_SRC_JOURNAL_PRIORITY_H
#define ZQ_SRC_JOURNAL_PRIORITY_H

#include "zqcommon/log.h"

namespace zqdetail {

// "<2>" for a panic, "<3>" error, "<4>" warning, "<6>" info, "<7>" debug
// and any other type.
inline const char* journal_priority(eLog_Type type) {
  switch (type) {
    case elog_PANIC: return "<2>";
    case elog_ERROR: return "<3>";
    case elog_WARN: return "<4>";
    case elog_INFO: return "<6>";
    default: return "<7>";
  }
}

}  // namespace zqdetail

#endif
