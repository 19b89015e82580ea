// Signed command requests that arrive through the broker: any bytes, read
// as a payload and checked against one registered key.
#include <cstddef>
#include <cstdint>
#include <string>

#include "zqfleet/FleetCommand.h"
#include "zqfleet/SignedRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zqfleet::SignedRequest verifier = [] {
    zqfleet::SignedRequest v(30);
    v.AddKey("alice", "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c");
    return v;
  }();
  const std::string payload(reinterpret_cast<const char*>(data), size);
  zqfleet::FleetCommand cmd;
  std::string error;
  if (!zqfleet::FleetCommand::Parse(payload, "s1", cmd, error)) return 0;
  // Nobody here holds the private key: nothing may pass, and each refusal says why.
  if (verifier.Verify(cmd, "s1", 1795000000.0, error) || error.empty()) __builtin_trap();
  return 0;
}
