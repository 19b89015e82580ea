// The settings of a LogRetention, in their own configuration section.
#ifndef ZQCOMMON_LOGRETENTION_CONFIG_H
#define ZQCOMMON_LOGRETENTION_CONFIG_H

#include "zqcommon/ew.h"
#include "zqcommon/export.h"

// The settings of a LogRetention, loadable from their own configuration
// section: MaxFiles (files kept for the log's file base, the current one
// included), MaxDays (files last written more than this many days ago go),
// MaxTotalSize (bytes of all those files together, "10M" style), Midnight
// (non-zero: a new file at local midnight) and Compress (non-zero: rotated
// files are gzipped). Every value 0, the default, switches its rule off, so
// a default LogRetention changes nothing.
class ZQ_EXPORT LogRetention_Config_Data : public zqcommon::Config_Data {
 public:
  LogRetention_Config_Data();
  int max_files = 0;
  int max_days = 0;
  unsigned int max_bytes = 0;
  int midnight = 0;
  int compress = 0;
};

#endif
