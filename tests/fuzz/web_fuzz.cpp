// The web page's request parts taken apart: the first byte picks the
// parser, the rest is what a client sent.
#include "../../apps/station/web_input.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text = fuzz_text(data + 1, size - 1);
  using namespace station::web;
  switch (data[0] % 6) {
    case 0: {
      for (const auto& pair : parse_form(text)) {
        if (pair.first.size() > text.size() || pair.second.size() > text.size()) abort();
      }
      break;
    }
    case 1:
      if (cookie_value(text, "zqsid").size() > text.size()) abort();
      break;
    case 2: {
      std::string line, error;
      if (parse_command(text, line, error) && (line.empty() || line.size() > 4096)) abort();
      break;
    }
    case 3: {
      std::vector<std::string> names;
      bool io = false;
      if (parse_subscribe(text, names, io) && names.size() > 64) abort();
      break;
    }
    case 4: {
      int64_t us = 0;
      parse_time_us(text, us);
      break;
    }
    default:
      if (same_token(text, text) != !text.empty()) abort();
      break;
  }
  return 0;
}
