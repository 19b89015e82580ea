// Command request payloads that arrive through the broker: any bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "zqfleet/FleetCommand.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string payload(reinterpret_cast<const char*>(data), size);
  zqfleet::FleetCommand cmd;
  std::string error;
  if (zqfleet::FleetCommand::Parse(payload, "s1", cmd, error)) {
    // An accepted request is one line for this station.
    if (cmd.line.find('\n') != std::string::npos || (!cmd.station.empty() && cmd.station != "s1")) __builtin_trap();
  } else if (error.empty()) {
    __builtin_trap();
  }
  return 0;
}
