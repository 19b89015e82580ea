// Command requests signed with their sender's own Ed25519 key.
#ifndef ZQFLEET_SIGNEDREQUEST_H
#define ZQFLEET_SIGNEDREQUEST_H

#include <zqcommon/export.h>

#include <map>
#include <string>

#include "zqfleet/FleetCommand.h"

namespace zqfleet {

// A signed request is a FleetCommand payload with four more members:
//   {"cmd":"io set inject","station":"lab-7","user":"alice",
//    "time":"2026-11-25T19:40:00Z","nonce":"<16..64 hex digits>",
//    "sig":"<128 hex digits>"}
// "sig" is the Ed25519 signature (RFC 8032, pure) of the text
//   "zq-cmd-1\n" station "\n" user "\n" time "\n" nonce "\n" cmd
// Verify() accepts it when "user" has a registered public key that the
// signature verifies with, "station" is this station's id, "time" (UTC,
// YYYY-MM-DDTHH:MM:SS, an optional fraction, then Z) is within the window
// of now, and no request with the same nonce was accepted within the window.
// The station keeps only public keys: a keys file of "NAME = HEX" lines (the
// 32-byte raw key in hexadecimal; several lines may name one user; '#'
// starts a comment), written mode 0600 by RegisterKey().
//
// Not locked: one thread uses an object. Verify() remembers the nonces of
// the window (at most kMaxNonces; when full it refuses until some expire).
class ZQ_EXPORT SignedRequest {
 public:
  static constexpr size_t kMaxNonces = 100000;

  explicit SignedRequest(int window_s = 30);

  // Replaces the keys held with those of `path`. False with
  // "FILE:LINE: why" (the keys held stay) when a line is malformed or the
  // file cannot be read.
  bool LoadKeys(const std::string& path, std::string& error);
  // Adds a key (64 hex digits) for `name`; false when it is not one.
  bool AddKey(const std::string& name, const std::string& hex);
  // True when `cmd` is a valid signed request for `station_id` at `now`
  // (seconds since 1970, UTC); its user is the signer. False with why.
  bool Verify(const FleetCommand& cmd, const std::string& station_id, double now, std::string& error);

  // The text a request's signature covers.
  static std::string SignedText(const FleetCommand& cmd);
  // Reads the Ed25519 public key in the PEM file `pem` and appends it for
  // `name` to the keys file `keys_path` (created mode 0600). False with why
  // (not an Ed25519 public key, an invalid name, a file not written).
  static bool RegisterKey(const std::string& keys_path, const std::string& name, const std::string& pem,
                          std::string& error);

 private:
  int window_;
  std::multimap<std::string, std::string> keys_;  // user -> raw public key
  std::map<std::string, double> nonces_;          // nonce -> when it may be forgotten
  std::multimap<double, std::string> expiry_;     // the same, by time
};

}  // namespace zqfleet

#endif
