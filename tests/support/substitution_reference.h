// The interpreter's substitution rule, written the plain way (quadratic and
// worse), to compare the real one with on short lines.
#ifndef ZQ_TESTS_SUBSTITUTION_REFERENCE_H
#define ZQ_TESTS_SUBSTITUTION_REFERENCE_H

#include <map>
#include <string>

inline std::string reference_substitution(const std::string& line,
                                          const std::map<std::string, std::string>& vars, int retcode) {
  std::string out;
  for (size_t i = 0; i < line.size();) {
    if (line[i] != '$') {
      out += line[i++];
    } else if (i + 1 == line.size()) {
      break;
    } else if (line[i + 1] == '$' || line[i + 1] == '?') {
      out += line[i + 1] == '$' ? std::string("$") : std::to_string(retcode);
      i += 2;
    } else {
      // The shortest names first; each one found is replaced and the search
      // goes on behind it, up to the end of the line.
      size_t p = i + 1, n = 1;
      while (p + n <= line.size()) {
        const auto it = vars.find(line.substr(p, n));
        if (it == vars.end()) {
          ++n;
        } else {
          out += it->second;
          p += n;
        }
      }
      i = p + 1;
    }
  }
  return out;
}

#endif
