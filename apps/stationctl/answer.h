// What stationctl reads out of a station's answers: the end of a frame, the
// pieces of a fetched file, the values `status` shows. The station is a peer
// like any other: nothing here trusts what it sent.
#ifndef STATIONCTL_ANSWER_H
#define STATIONCTL_ANSWER_H

#include <string>
#include <vector>

namespace stationctl {

// One framed answer: its lines and its result code (0 done, 1 failed,
// 2 refused, 3 a login question; -1 none came).
struct Answer {
  int code = -1;
  std::vector<std::string> lines;
};

// Whether `line` ends a frame (". CODE"), and its code.
bool frame_end(const std::string& line, int& code);

// A file being fetched with `get NAME OFFSET`, piece by piece.
struct Fetched {
  unsigned long long size = 0;  // as the first piece announced
  std::string sha256;           // of the whole file, as announced
  std::string data;             // the pieces so far
  bool started = false;
};
// The largest file stationctl takes.
const unsigned long long kMaxFetch = 1ULL << 32;
// Appends the piece `a` holds ("file NAME size N sha256 HEX offset O length
// L", then base64 lines of at most 64 characters); false with the reason
// when it is malformed, does not continue the data, or announces another
// file than the first piece did.
bool take_piece(const Answer& a, Fetched& f, std::string& why);

// One value as `status` shows it.
struct Reading {
  std::string name, unit, state;
  double value = 0;
};
// The sensor reading (with the worse state of its two range watches) and
// the mean cycle length (with the overrun watch), those `lines` hold.
std::vector<Reading> status_readings(const std::vector<std::string>& lines);

}  // namespace stationctl

#endif
