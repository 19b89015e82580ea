// Types shared by the component services: the severity of an error record.
#ifndef ZQCOMPONENTS_TYPES_H
#define ZQCOMPONENTS_TYPES_H

#include "zqcommon/SuperEnum.h"

namespace components {

// Severities, ordered by value.
enum eSeverity { NONE = 0, LOG = 1, INFO = 2, WARNING = 3, ERROR = 4, PANIC = 5 };

// A severity with its short names ".", "L", "I", "W", "E", "P" and the
// descriptions "NONE" ... "PANIC".
typedef SuperEnum<eSeverity> Severity;

}  // namespace components

ZQ_SUPERENUM_DECLARE(components::eSeverity);

#endif
