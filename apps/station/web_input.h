// What the web page's clients send, taken apart: form bodies, query
// strings, the cookie header, the JSON command body and the WebSocket
// subscription. Every function takes untrusted bytes of any length and
// content and never throws.
#ifndef STATION_WEB_INPUT_H
#define STATION_WEB_INPUT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace station {
namespace web {

// application/x-www-form-urlencoded pairs (also query strings): '+' is a
// space, %XX a byte; a bad escape is kept as it is. At most 32 pairs; a
// repeated name keeps its first value.
std::map<std::string, std::string> parse_form(const std::string& body);
// The value of cookie `name` in a Cookie header, or "".
std::string cookie_value(const std::string& header, const std::string& name);
// {"command": "LINE"}: the line, at most 4096 bytes without control
// characters; false with the reason in `error`.
bool parse_command(const std::string& body, std::string& line, std::string& error);
// {"subscribe": ["T1", ...], "io": true}: at most 64 names of at most 64
// bytes; false when the message is not one.
bool parse_subscribe(const std::string& message, std::vector<std::string>& names, bool& io);
// Epoch seconds ("1700000000", "1700000000.5") or ISO 8601 UTC
// ("2026-11-25T19:00:00Z", seconds and the Z optional) as UTC
// microseconds; false when it is neither.
bool parse_time_us(const std::string& text, int64_t& us);
// Whether the two tokens are equal (compared in constant time).
bool same_token(const std::string& a, const std::string& b);

}  // namespace web
}  // namespace station

#endif
