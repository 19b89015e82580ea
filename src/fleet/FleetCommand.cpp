// The JSON payload of a command request: one flat object, read strictly.
#include "zqfleet/FleetCommand.h"

#include <cctype>
#include <set>

namespace zqfleet {

namespace {

class Reader {
 public:
  explicit Reader(const std::string& text) : s_(text) {}
  void blanks() {
    while (p_ < s_.size() && (s_[p_] == ' ' || s_[p_] == '\t' || s_[p_] == '\r' || s_[p_] == '\n')) ++p_;
  }
  bool eat(char c) {
    blanks();
    if (p_ < s_.size() && s_[p_] == c) {
      ++p_;
      return true;
    }
    return false;
  }
  bool at_end() {
    blanks();
    return p_ == s_.size();
  }
  char peek() {
    blanks();
    return p_ < s_.size() ? s_[p_] : '\0';
  }
  size_t where() const { return p_; }

  // A JSON string; \uXXXX below 0x80 is kept, others are written as UTF-8.
  bool string(std::string& out) {
    if (!eat('"')) return false;
    out.clear();
    while (p_ < s_.size()) {
      const char c = s_[p_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (p_ >= s_.size()) return false;
      const char e = s_[p_++];
      switch (e) {
        case '"': case '\\': case '/': out += e; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          if (p_ + 4 > s_.size()) return false;
          unsigned int v = 0;
          for (int i = 0; i < 4; ++i) {
            const char h = s_[p_++];
            if (!std::isxdigit(static_cast<unsigned char>(h))) return false;
            v = v * 16 + static_cast<unsigned int>(std::isdigit(static_cast<unsigned char>(h)) ? h - '0' : (h | 0x20) - 'a' + 10);
          }
          if (v < 0x80) {
            out += static_cast<char>(v);
          } else if (v < 0x800) {
            out += static_cast<char>(0xC0 | (v >> 6));
            out += static_cast<char>(0x80 | (v & 0x3F));
          } else {
            out += static_cast<char>(0xE0 | (v >> 12));
            out += static_cast<char>(0x80 | ((v >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (v & 0x3F));
          }
          break;
        }
        default: return false;
      }
    }
    return false;
  }

  // A number or a literal, skipped after a check of its characters.
  bool scalar() {
    blanks();
    for (const char* word : {"true", "false", "null"}) {
      const std::string w(word);
      if (s_.compare(p_, w.size(), w) == 0) {
        p_ += w.size();
        return true;
      }
    }
    const size_t start = p_;
    while (p_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[p_])) || s_[p_] == '-' ||
                              s_[p_] == '+' || s_[p_] == '.' || s_[p_] == 'e' || s_[p_] == 'E')) {
      ++p_;
    }
    return p_ > start;
  }

 private:
  const std::string& s_;
  size_t p_ = 0;
};

bool fail(std::string& error, const std::string& why, size_t where) {
  error = why + " at byte " + std::to_string(where);
  return false;
}

}  // namespace

bool FleetCommand::Parse(const std::string& payload, const std::string& station_id,
                         FleetCommand& out, std::string& error) {
  out = FleetCommand();
  if (payload.size() > kMaxPayload) {
    error = "payload of " + std::to_string(payload.size()) + " bytes exceeds " + std::to_string(kMaxPayload);
    return false;
  }
  Reader r(payload);
  if (!r.eat('{')) return fail(error, "expected a JSON object", r.where());
  bool have_cmd = false;
  std::set<std::string> seen;
  if (!r.eat('}')) {
    do {
      std::string name, value;
      if (!r.string(name)) return fail(error, "expected a member name", r.where());
      if (!r.eat(':')) return fail(error, "expected ':'", r.where());
      const char c = r.peek();
      if (c == '"') {
        if (!r.string(value)) return fail(error, "bad string", r.where());
      } else if (c == '{' || c == '[') {
        return fail(error, "nested values are not accepted", r.where());
      } else if (!r.scalar()) {
        return fail(error, "bad value", r.where());
      }
      if (name == "cmd") {
        if (have_cmd || c != '"') return fail(error, "\"cmd\" must be one string", r.where());
        out.line = value;
        have_cmd = true;
        continue;
      }
      std::string* member = name == "station" ? &out.station : name == "user" ? &out.user
                          : name == "time" ? &out.time : name == "nonce" ? &out.nonce
                          : name == "sig" ? &out.sig : nullptr;
      if (member == nullptr) continue;
      if (c != '"' || !seen.insert(name).second) {
        return fail(error, "\"" + name + "\" must be one string", r.where());
      }
      *member = value;
    } while (r.eat(','));
    if (!r.eat('}')) return fail(error, "expected ',' or '}'", r.where());
  }
  if (!r.at_end()) return fail(error, "text after the object", r.where());
  if (!have_cmd) return fail(error, "no \"cmd\" member", r.where());
  if (out.line.find_first_of("\r\n") != std::string::npos || out.line.find('\0') != std::string::npos) {
    return fail(error, "the command must be one line", 0);
  }
  if (!out.station.empty() && out.station != station_id) {
    error = "request for station '" + out.station + "', not this one";
    return false;
  }
  return true;
}

}  // namespace zqfleet
