// Device addresses: modbus-tcp://host:port and modbus-rtu:///dev/...?baud=...
#include "zqdevices/DeviceUrl.h"

#include <cstdlib>
#include <cstring>

namespace zqdevices {
namespace {

// A whole decimal number within low..high, else false.
bool parse_uint(const std::string& text, unsigned long low, unsigned long high, unsigned long& out) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  out = std::strtoul(text.c_str(), nullptr, 10);
  return out >= low && out <= high;
}

bool host_char_ok(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
         c == '_';
}

const char kTcp[] = "modbus-tcp://";
const char kRtu[] = "modbus-rtu://";

}  // namespace

bool DeviceUrl::Parse(const std::string& text, DeviceUrl& out, std::string& error) {
  auto bad = [&](const std::string& what) {
    error = "device URL '" + text + "': " + what;
    return false;
  };
  DeviceUrl u;
  if (text.compare(0, sizeof kTcp - 1, kTcp) == 0) {
    u.kind = modbus_tcp;
    std::string rest = text.substr(sizeof kTcp - 1);
    if (!rest.empty() && rest.back() == '/') rest.pop_back();
    std::string port;
    if (!rest.empty() && rest[0] == '[') {
      const size_t close = rest.find(']');
      if (close == std::string::npos) return bad("'[' without ']' around the IPv6 address");
      u.host = rest.substr(1, close - 1);
      if (u.host.empty() || u.host.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos)
        return bad("IPv6 address '" + u.host + "' is not valid");
      rest.erase(0, close + 1);
      if (!rest.empty() && rest[0] != ':') return bad("'" + rest + "' after the address");
      if (!rest.empty()) port = rest.substr(1);
      if (rest == ":") return bad("empty port");
    } else {
      const size_t colon = rest.find(':');
      u.host = rest.substr(0, colon);
      if (colon != std::string::npos) {
        port = rest.substr(colon + 1);
        if (port.empty()) return bad("empty port");
      }
      if (u.host.empty()) return bad("no host");
      for (char c : u.host)
        if (!host_char_ok(c)) return bad("host '" + u.host + "' is not a host name or address");
    }
    if (!port.empty()) {
      unsigned long p = 0;
      if (!parse_uint(port, 1, 65535, p)) return bad("port '" + port + "' is not 1..65535");
      u.port = static_cast<int>(p);
    }
    out = u;
    return true;
  }
  if (text.compare(0, sizeof kRtu - 1, kRtu) != 0)
    return bad("scheme is not modbus-tcp:// or modbus-rtu://");
  u.kind = modbus_rtu;
  u.serial.parity = 'E';
  const std::string rest = text.substr(sizeof kRtu - 1);
  const size_t q = rest.find('?');
  u.path = rest.substr(0, q);
  if (u.path.empty() || u.path[0] != '/') return bad("device path '" + u.path + "' is not absolute");
  if (u.path.find('\0') != std::string::npos) return bad("device path holds a NUL byte");
  std::string query = q == std::string::npos ? "" : rest.substr(q + 1);
  size_t start = 0;
  while (q != std::string::npos && start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(start, end - start);
    start = end + 1;
    const size_t eq = pair.find('=');
    if (eq == std::string::npos) return bad("'" + pair + "' is not KEY=VALUE");
    const std::string key = pair.substr(0, eq), value = pair.substr(eq + 1);
    unsigned long n = 0;
    auto range = [&](unsigned long low, unsigned long high) {
      return parse_uint(value, low, high, n) ||
             bad(key + " '" + value + "' is not " + std::to_string(low) + ".." + std::to_string(high));
    };
    if (key == "baud") {
      if (!range(50, 16000000)) return false;
      u.serial.baud = static_cast<unsigned int>(n);
    } else if (key == "data") {
      if (!range(5, 8)) return false;
      u.serial.data_bits = static_cast<unsigned int>(n);
    } else if (key == "stop") {
      if (!range(1, 2)) return false;
      u.serial.stop_bits = static_cast<unsigned int>(n);
    } else if (key == "parity") {
      if (value.size() != 1 || !std::strchr("NEOneo", value[0]))
        return bad("parity '" + value + "' is not N, E or O");
      u.serial.parity = static_cast<char>(value[0] & ~0x20);
    } else if (key == "rs485") {
      if (!range(0, 1)) return false;
      u.rs485 = n == 1;
    } else if (key == "rts_before") {
      if (!range(0, 1000)) return false;
      u.rs485_settings.delay_before_ms = static_cast<unsigned int>(n);
    } else if (key == "rts_after") {
      if (!range(0, 1000)) return false;
      u.rs485_settings.delay_after_ms = static_cast<unsigned int>(n);
    } else {
      return bad("unknown key '" + key + "' (baud, parity, data, stop, rs485, rts_before, rts_after)");
    }
    if (end == query.size()) break;
  }
  out = u;
  return true;
}

std::string DeviceUrl::ToString() const {
  if (kind == modbus_tcp) {
    const bool v6 = host.find(':') != std::string::npos;
    return std::string(kTcp) + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  }
  std::string s = std::string(kRtu) + path + "?baud=" + std::to_string(serial.baud) + "&parity=" + serial.parity +
                  "&data=" + std::to_string(serial.data_bits) + "&stop=" + std::to_string(serial.stop_bits);
  if (rs485)
    s += "&rs485=1&rts_before=" + std::to_string(rs485_settings.delay_before_ms) +
         "&rts_after=" + std::to_string(rs485_settings.delay_after_ms);
  return s;
}

}  // namespace zqdevices
