// Where a field device is reached: a Modbus TCP address or a serial line.
#ifndef ZQDEVICES_DEVICEURL_H
#define ZQDEVICES_DEVICEURL_H

#include <zqcommon/export.h>
#include <zqdevices/SerialLine.h>

#include <string>

namespace zqdevices {

// A parsed device address:
//   modbus-tcp://HOST[:PORT]            host name, IPv4 or [IPv6]; port 502 by default
//   modbus-rtu://PATH[?KEY=VALUE&...]   PATH absolute (/dev/ttyUSB0, /dev/serial/by-id/...)
// RTU keys: baud (9600), parity (N, E or O; E by default as Modbus asks),
// data (8), stop (1), rs485 (0 or 1: the driver's RS-485
// direction control), rts_before and rts_after (ms around a frame).
// A plain value: copy freely.
struct ZQ_EXPORT DeviceUrl {
  enum Kind { modbus_tcp, modbus_rtu };
  Kind kind = modbus_tcp;
  std::string host;  // TCP: without brackets
  int port = 502;
  std::string path;  // RTU: the device path
  SerialSettings serial;
  bool rs485 = false;
  Rs485Settings rs485_settings;

  // False, with a reason that quotes the URL and names the offending part
  // and value in `error`, when `text` is not a device address as above.
  static bool Parse(const std::string& text, DeviceUrl& out, std::string& error);
  // The address in the form Parse reads (RTU with all keys spelled out).
  std::string ToString() const;
};

}  // namespace zqdevices

#endif
