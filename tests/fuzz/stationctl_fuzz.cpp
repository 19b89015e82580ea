// Fuzz target: stationctl reading what a station (or anything posing as one)
// answers: frames cut into answers, `get` pieces (header and base64) taken
// one after the other, `status` values. No crash, no sanitizer report, and a
// fetched file never grows past what its pieces announced.
#include "../../apps/stationctl/answer.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<stationctl::Answer> answers(1);
  fuzz_lines(fuzz_text(data, size), 4096, [&answers](std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    int code = 0;
    if (stationctl::frame_end(line, code)) {
      answers.back().code = code;
      answers.emplace_back();
    } else {
      answers.back().lines.push_back(line[0] == '.' ? line.substr(1) : line);
    }
  });
  stationctl::Fetched f;
  for (const stationctl::Answer& a : answers) {
    std::string why;
    if (!stationctl::take_piece(a, f, why)) break;
    if (f.data.size() > f.size) std::abort();
  }
  for (const stationctl::Answer& a : answers) stationctl::status_readings(a.lines);
  return 0;
}
