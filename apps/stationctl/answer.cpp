// Reading a station's answers.
#include "answer.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace stationctl {

bool frame_end(const std::string& line, int& code) {
  if (line.size() < 3 || line.size() > 6 || line[0] != '.' || line[1] != ' ') return false;
  for (size_t i = 2; i < line.size(); ++i) {
    if (line[i] < '0' || line[i] > '9') return false;
  }
  code = std::atoi(line.c_str() + 2);
  return true;
}

namespace {

// A decimal number and nothing else.
bool number(const std::string& text, unsigned long long& out) {
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  out = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

bool take_piece(const Answer& a, Fetched& f, std::string& why) {
  std::vector<std::string> head;
  if (!a.lines.empty()) {
    std::istringstream in(a.lines[0]);
    for (std::string w; in >> w;) head.push_back(w);
  }
  unsigned long long size = 0, offset = 0, length = 0;
  if (head.size() != 10 || head[0] != "file" || head[2] != "size" || head[4] != "sha256" || head[6] != "offset" ||
      head[8] != "length" || !number(head[3], size) || !number(head[7], offset) || !number(head[9], length) ||
      head[5].size() != 64) {
    why = "a malformed answer: " + (a.lines.empty() ? std::string("(empty)") : a.lines[0].substr(0, 200));
    return false;
  }
  if (f.started && (size != f.size || head[5] != f.sha256)) {
    why = "the file changed while it was fetched";
    return false;
  }
  if (size > kMaxFetch || offset != f.data.size() || length > size - offset || (length == 0 && offset < size)) {
    why = "a piece that does not continue the file (offset " + head[7] + ", length " + head[9] + ")";
    return false;
  }
  f.started = true;
  f.size = size;
  f.sha256 = head[5];
  unsigned char bytes[48];
  for (size_t i = 1; i < a.lines.size(); ++i) {
    const std::string& line = a.lines[i];
    if (line.empty() || line.size() > 64 || line.size() % 4 != 0) {
      why = "bad base64 in the answer";
      return false;
    }
    const int n = EVP_DecodeBlock(bytes, reinterpret_cast<const unsigned char*>(line.data()),
                                  static_cast<int>(line.size()));
    const size_t pad = (line.end()[-1] == '=') + (line.end()[-2] == '=');
    if (n < 0 || static_cast<size_t>(n) < pad) {
      why = "bad base64 in the answer";
      return false;
    }
    f.data.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(n) - pad);
  }
  if (f.data.size() != offset + length) {
    why = "a piece of " + std::to_string(f.data.size() - offset) + " bytes, " + head[9] + " announced";
    return false;
  }
  return true;
}

namespace {

int rank(const std::string& state) {
  static const char* const kOrder[] = {"NONE", "INFO", "WARNING", "ERROR", "FATAL"};
  for (int i = 0; i < 5; ++i) {
    if (state == kOrder[i]) return i;
  }
  return 5;  // unknown: shown
}

}  // namespace

std::vector<Reading> status_readings(const std::vector<std::string>& lines) {
  Reading reading{"reading", "", "NONE"}, cycle{"cycle_avg", "us", "NONE"};
  bool have_reading = false, have_cycle = false;
  for (const std::string& line : lines) {
    const size_t at = line.find("; reading ");
    if (at != std::string::npos) have_reading = std::sscanf(line.c_str() + at, "; reading %lf", &reading.value) == 1;
    double lo = 0, avg = 0, hi = 0;
    if (std::sscanf(line.c_str(), "cycles %*d, period %*d us, cycle length min/avg/max %lf/%lf/%lf", &lo, &avg,
                    &hi) == 3) {
      cycle.value = avg;
      have_cycle = true;
    }
    char state[32] = {};
    if (std::sscanf(line.c_str(), "sensor_%*[a-z]: %31[A-Z],", state) == 1 && rank(state) > rank(reading.state)) {
      reading.state = state;
    }
    if (std::sscanf(line.c_str(), "cycle_overrun: %31[A-Z],", state) == 1) cycle.state = state;
  }
  std::vector<Reading> out;
  if (have_reading) out.push_back(reading);
  if (have_cycle) out.push_back(cycle);
  return out;
}

}  // namespace stationctl
