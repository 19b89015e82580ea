// One field device as the settings file describes it: [Device.NAME].
#ifndef ZQDEVICES_DEVICECONFIG_H
#define ZQDEVICES_DEVICECONFIG_H

#include <zqcommon/export.h>
#include <zqdevices/DeviceUrl.h>

#include <string>
#include <vector>

class Config_File;

namespace zqdevices {

// One mapped register, coil or input, from an entry such as
//   Point.level = holding 10 u16 scale=0.1 unit=m
//   Point.flow  = input 2 f32 cdab unit=l/min
//   Bit.0       = coil 4 safe=0        (output bit 0 of the device's I/O handler)
//   Bit.1       = discrete 7           (input bit 1)
// Tables: coil, discrete, holding, input. Types for registers: u16 s16 u32
// s32 f32 (default u16); word orders for 32-bit types: abcd (big-endian,
// the default), cdab (word-swapped), badc (byte-swapped), dcba (little-endian).
struct ZQ_EXPORT DevicePoint {
  enum Table { coil, discrete, holding, input };
  enum Type { bit, u16, s16, u32, s32, f32 };
  enum Order { abcd, cdab, badc, dcba };
  std::string name;     // Point.NAME; for Bit.N entries "bit N"
  Table table = holding;
  unsigned int address = 0;  // 0-based protocol address
  Type type = u16;
  Order order = abcd;
  double scale = 1, offset = 0;
  std::string unit;
  int io_bit = -1;      // Bit.N: N; else -1
  bool output = false;  // Bit.N on a coil: written from the I/O image
  bool safe = false;    // the output's state when the device faults or stops

  // Registers (or bits) the point spans.
  unsigned int Width() const { return type == u32 || type == s32 || type == f32 ? 2 : 1; }
  // Reads the value text of an entry; false with the reason in `error`.
  bool ParseSpec(const std::string& spec, std::string& error);
};

// A device's settings:
//   Url = modbus-tcp://host:502 | modbus-rtu:///dev/ttyUSB0?baud=19200&parity=E
//   Unit = 1            Modbus unit (slave) id, 0..247
//   PeriodMs = 1000     poll period; 0: back to back, as fast as the device answers
//   TimeoutMs = 500     answer timeout (also the TCP connect timeout)
//   Retries = 0         further tries of a failed request before the device faults
//   Recovery = auto     auto (retried with back-off) or command (operator)
//   BackoffMs = 1000    first automatic retry after a fault; doubles up to
//   BackoffMaxMs = 30000
//   IoId = 0            id of the device's I/O handler; 0: none
// plus Point.NAME and Bit.N entries (see DevicePoint). A plain value.
struct ZQ_EXPORT DeviceConfig {
  enum Recovery { recover_auto, recover_command };
  std::string name;
  DeviceUrl url;
  int unit = 1;
  int period_ms = 1000;
  int timeout_ms = 500;
  int retries = 0;
  Recovery recovery = recover_auto;
  int backoff_ms = 1000;
  int backoff_max_ms = 30000;
  unsigned int io_id = 0;
  std::vector<DevicePoint> points;

  // Reads section `section` ("Device.NAME") of `cfg`. False, with the reason
  // naming the file, the line and the value in `error`.
  static bool FromSection(Config_File& cfg, const std::string& section, DeviceConfig& out,
                          std::string& error);
  // Every [Device.*] section of `cfg`, in file order; false at the first error.
  static bool LoadAll(Config_File& cfg, std::vector<DeviceConfig>& out, std::string& error);
};

}  // namespace zqdevices

#endif
