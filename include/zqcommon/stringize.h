// Interface of a value that renders itself as text and reads itself from text.
#ifndef ZQCOMMON_STRINGIZE_H
#define ZQCOMMON_STRINGIZE_H

#include <string>

#include "zqcommon/export.h"

namespace zqcommon {

// A value that lives as text. Configuration structures register such objects
// as symbolic fields: the value is saved through the string conversion and
// loaded through assignment from text. `+=` and `-=` add or remove one text
// item (for set-like values) and answer false unless a subclass supports them.
// Copying a stringize copies nothing but the interface; subclasses copy their
// own state.
class ZQ_EXPORT stringize {
 public:
  stringize() = default;
  stringize(const stringize&) {}
  stringize& operator=(const stringize&) { return *this; }
  virtual ~stringize() = default;

  // Renders the value as text.
  virtual operator std::string() const = 0;
  // Takes the value from text; true on success.
  virtual bool operator=(const std::string& text) = 0;
  // Adds one text item; false unless overridden.
  virtual bool operator+=(const std::string& item);
  // Removes one text item; false unless overridden.
  virtual bool operator-=(const std::string& item);
};

}  // namespace zqcommon

#endif
