// What the web page's clients send, taken apart.
#include "web_input.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

namespace station {
namespace web {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decode(const std::string& text, size_t from, size_t to) {
  std::string out;
  out.reserve(to - from);
  for (size_t i = from; i < to; ++i) {
    const char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%' && i + 2 < to && hex_digit(text[i + 1]) >= 0 && hex_digit(text[i + 2]) >= 0) {
      out += static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

bool has_controls(const std::string& s) {
  for (unsigned char c : s) {
    if (c < 0x20 || c == 0x7f) return true;
  }
  return false;
}

}  // namespace

std::map<std::string, std::string> parse_form(const std::string& body) {
  std::map<std::string, std::string> pairs;
  for (size_t p = 0; p <= body.size() && pairs.size() < 32;) {
    size_t end = body.find('&', p);
    if (end == std::string::npos) end = body.size();
    const size_t eq = body.find('=', p);
    if (end > p) {
      const bool valued = eq != std::string::npos && eq < end;
      const std::string name = decode(body, p, valued ? eq : end);
      pairs.emplace(name, valued ? decode(body, eq + 1, end) : std::string());
    }
    p = end + 1;
  }
  return pairs;
}

std::string cookie_value(const std::string& header, const std::string& name) {
  for (size_t p = 0; p < header.size();) {
    size_t end = header.find(';', p);
    if (end == std::string::npos) end = header.size();
    size_t b = p;
    while (b < end && header[b] == ' ') ++b;
    const size_t eq = header.find('=', b);
    if (eq != std::string::npos && eq < end && header.compare(b, eq - b, name) == 0 && eq - b == name.size()) {
      return header.substr(eq + 1, end - eq - 1);
    }
    p = end + 1;
  }
  return "";
}

bool parse_command(const std::string& body, std::string& line, std::string& error) {
  const nlohmann::json j = nlohmann::json::parse(body, nullptr, false);
  if (j.is_discarded() || !j.is_object()) {
    error = "the body is not a JSON object";
    return false;
  }
  const auto c = j.find("command");
  if (c == j.end() || !c->is_string()) {
    error = "no \"command\" text";
    return false;
  }
  line = c->get<std::string>();
  if (line.empty() || line.size() > 4096 || has_controls(line)) {
    error = "the command is empty, longer than 4096 bytes or holds control characters";
    return false;
  }
  return true;
}

bool parse_subscribe(const std::string& message, std::vector<std::string>& names, bool& io) {
  const nlohmann::json j = nlohmann::json::parse(message, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return false;
  names.clear();
  io = false;
  const auto s = j.find("subscribe");
  if (s != j.end()) {
    if (!s->is_array() || s->size() > 64) return false;
    for (const auto& n : *s) {
      if (!n.is_string() || n.get_ref<const std::string&>().size() > 64) return false;
      names.push_back(n.get<std::string>());
    }
  }
  const auto i = j.find("io");
  if (i != j.end()) {
    if (!i->is_boolean()) return false;
    io = i->get<bool>();
  }
  return s != j.end() || i != j.end();
}

bool parse_time_us(const std::string& text, int64_t& us) {
  if (text.empty() || text.size() > 40) return false;
  const char* p = text.c_str();
  char* end = nullptr;
  if (text.find('-') == std::string::npos) {  // epoch seconds
    const double s = std::strtod(p, &end);
    if (end == p || *end != '\0' || !(s >= 0 && s < 1e11)) return false;
    us = static_cast<int64_t>(s * 1e6);
    return true;
  }
  std::tm tm{};
  const char* rest = strptime(p, "%Y-%m-%dT%H:%M", &tm);
  if (rest == nullptr) return false;
  double seconds = 0;
  if (*rest == ':') {
    seconds = std::strtod(rest + 1, &end);
    if (end == rest + 1 || !(seconds >= 0 && seconds < 61)) return false;
    rest = end;
  }
  if (*rest == 'Z') ++rest;
  if (*rest != '\0') return false;
  tm.tm_sec = 0;
  const time_t t = timegm(&tm);
  if (t < 0) return false;
  us = static_cast<int64_t>(t) * 1000000 + static_cast<int64_t>(seconds * 1e6);
  return true;
}

bool same_token(const std::string& a, const std::string& b) {
  return a.size() == b.size() && !a.empty() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace web
}  // namespace station
