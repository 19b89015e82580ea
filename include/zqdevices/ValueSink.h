// Where a device's values and state changes go.
#ifndef ZQDEVICES_VALUESINK_H
#define ZQDEVICES_VALUESINK_H

#include <zqcommon/export.h>

#include <chrono>
#include <string>

namespace zqdevices {

// Whether a delivered value came from the device (good) or stands for a
// device that did not answer or answered with an exception (device_fault;
// the value is then the last good one, or 0 when there was none).
enum class Quality { good, device_fault };

// One acquired value. The strings live as long as the device that delivers.
struct ZQ_EXPORT DeviceValue {
  const std::string& device;  // the device's name
  const std::string& name;    // the value's name in the device's map
  double value;               // scaled: raw * scale + offset
  const std::string& unit;
  Quality quality;
  std::chrono::system_clock::time_point time;  // when the answer (or the fault) came
};

// The receiving side a program implements (the station wires it to its points
// and alarms). A device calls it from its own polling thread: implementations
// must be thread-safe and quick (no blocking on the network or the disk).
class ZQ_EXPORT ValueSink {
 public:
  virtual ~ValueSink();
  // Every mapped value after each poll, good or device fault.
  virtual void Deliver(const DeviceValue& value) = 0;
  // The device faulted (`faulted`, with the reason) or recovered.
  virtual void StateChanged(const std::string& device, bool faulted, const std::string& reason);
};

}  // namespace zqdevices

#endif
