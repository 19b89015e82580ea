// The interpreter's opt-in session streams and command access levels.
#include <sstream>

#include "zqcommon/cli.h"

void CLI::SetStandardStreams(FILE* out, FILE* err) {
  std_out_ = out;
  std_err_ = err;
}

FILE* CLI::StdOut() const { return std_out_ != nullptr ? std_out_ : stdout; }
FILE* CLI::StdErr() const { return std_err_ != nullptr ? std_err_ : stderr; }

void CLI::SetCommandLevel(const std::string& words, int level) {
  // Kept with single blanks, as parse() splits lines.
  std::istringstream in(words);
  std::string word, key;
  while (in >> word) key += (key.empty() ? "" : " ") + word;
  levels_[key] = level;
}

int CLI::RequiredLevel(const std::vector<std::string>& words) const {
  int level = 0;
  std::string key;
  for (const std::string& w : words) {
    if (w.empty()) continue;  // "io  set" is "io set"
    key += (key.empty() ? "" : " ") + w;
    auto it = levels_.find(key);
    if (it != levels_.end()) level = it->second;
  }
  return level;
}

bool CLI::Permitted(const std::vector<std::string>& words) const {
  return levels_.empty() || RequiredLevel(words) <= session_level_;
}
