// A command request that arrived through the broker.
#ifndef ZQFLEET_FLEETCOMMAND_H
#define ZQFLEET_FLEETCOMMAND_H

#include <zqcommon/export.h>

#include <string>

namespace zqfleet {

// The payload of a request on `<prefix>/cmd` is one flat JSON object:
//   {"cmd": "status", "station": "s1"}
// "cmd" (required) is the command line; "station" (optional) must then be
// this station's id. Other string, number, true/false/null members are
// ignored, but for the string members of a signed request ("user", "time",
// "nonce", "sig", see SignedRequest); nested objects and arrays, a member
// given twice ("cmd", "station" or a signed one), text after the object,
// anything that is not JSON (RFC 8259: UTF-8 text, valid escapes and
// numbers; nlohmann-json reads it) and payloads over kMaxPayload bytes are
// refused, a syntax error with its byte offset. Parse never throws; it is a
// value type.
struct ZQ_EXPORT FleetCommand {
  static constexpr size_t kMaxPayload = 4096;

  std::string line;     // the command line to run
  std::string station;  // as the request named it, or empty
  std::string user, time, nonce, sig;  // a signed request's members, or empty

  // False, with a one-line reason in `error`, when the payload is refused or
  // names another station than `station_id`.
  static bool Parse(const std::string& payload, const std::string& station_id, FleetCommand& out,
                    std::string& error);
};

}  // namespace zqfleet

#endif
