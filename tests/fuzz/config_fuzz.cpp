// Fuzz target: arbitrary bytes as a configuration text. Parsing must never
// crash, and writing the result and parsing it again must keep every
// section/entry/value triple (the same fingerprint).
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "zqcommon/lib_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  Config_File cfg(in);

  for (const std::string& section : cfg.get_sections()) {
    for (const std::string& entry : cfg.get_section_entries(section)) {
      std::string comment;
      int line = 0;
      cfg.get_entry(section, entry, "", &comment, &line);
    }
  }

  std::ostringstream out;
  cfg.write(out);
  std::istringstream again_in(out.str());
  Config_File again(again_in);
  if (cfg.get_hash() != again.get_hash()) std::abort();
  return 0;
}
