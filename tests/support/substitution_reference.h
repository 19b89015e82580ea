// The interpreter's substitution rule, written the plain way (quadratic and
// worse), to compare the real one with on short lines.
#ifndef ZQ_TESTS_SUBSTITUTION_REFERENCE_H
#define ZQ_TESTS_SUBSTITUTION_REFERENCE_H

#include <map>
#include <string>

inline std::string reference_substitution(const std::string& line,
                                          const std::map<std::string, std::string>& vars,
                                          int retcode) {
  std::string out;
  const size_t len = line.size();
  size_t i = 0;
  while (i < len) {
    if (line[i] != '$') {
      out += line[i++];
      continue;
    }
    if (i + 1 >= len) break;
    if (line[i + 1] == '$' || line[i + 1] == '?') {
      out += line[i + 1] == '$' ? std::string("$") : std::to_string(retcode);
      i += 2;
      continue;
    }
    size_t p = i + 1, n = 1;
    while (p + n <= len) {
      auto it = vars.find(line.substr(p, n));
      if (it != vars.end()) {
        out += it->second;
        p += n;
      } else {
        ++n;
      }
    }
    i = p + 1;
  }
  return out;
}

#endif
