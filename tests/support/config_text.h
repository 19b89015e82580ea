// Test helper: a configuration file parsed from text in memory.
#ifndef ZQ_TESTS_CONFIG_TEXT_H
#define ZQ_TESTS_CONFIG_TEXT_H

#include <sstream>
#include <string>

#include "zqcommon/lib_config.h"

inline Config_File config_from_text(const std::string& text, bool ignorecase = true, const std::string& magic = "") {
  std::istringstream in(text);
  return Config_File(in, magic, ignorecase);
}

#endif
