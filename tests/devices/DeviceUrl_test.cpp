#include "zqdevices/DeviceUrl.h"

#include <gtest/gtest.h>

using zqdevices::DeviceUrl;

TEST(DeviceUrl, ReadsTcpAndRtuAddresses) {
  DeviceUrl u;
  std::string error;
  ASSERT_TRUE(DeviceUrl::Parse("modbus-tcp://plc-3.local:1502", u, error)) << error;
  EXPECT_EQ(u.kind, DeviceUrl::modbus_tcp);
  EXPECT_EQ(u.host, "plc-3.local");
  EXPECT_EQ(u.port, 1502);
  ASSERT_TRUE(DeviceUrl::Parse("modbus-tcp://[::1]", u, error)) << error;
  EXPECT_EQ(u.host, "::1");
  EXPECT_EQ(u.port, 502);
  EXPECT_EQ(u.ToString(), "modbus-tcp://[::1]:502");

  ASSERT_TRUE(DeviceUrl::Parse("modbus-rtu:///dev/ttyUSB0?baud=19200&parity=e&data=8&stop=2&rs485=1&rts_after=2",
                               u, error)) << error;
  EXPECT_EQ(u.kind, DeviceUrl::modbus_rtu);
  EXPECT_EQ(u.path, "/dev/ttyUSB0");
  EXPECT_EQ(u.serial.baud, 19200u);
  EXPECT_EQ(u.serial.parity, 'E');
  EXPECT_EQ(u.serial.stop_bits, 2u);
  EXPECT_TRUE(u.rs485);
  EXPECT_EQ(u.rs485_settings.delay_after_ms, 2u);
  // What ToString writes reads back the same.
  DeviceUrl again;
  ASSERT_TRUE(DeviceUrl::Parse(u.ToString(), again, error)) << error;
  EXPECT_EQ(again.ToString(), u.ToString());
  ASSERT_TRUE(DeviceUrl::Parse("modbus-rtu:///dev/serial/by-id/usb-FTDI_A50285BI-if00-port0", u, error));
  EXPECT_EQ(u.serial.baud, 9600u);
  EXPECT_EQ(u.serial.parity, 'E');
}

TEST(DeviceUrl, ErrorsQuoteTheUrlAndNameTheValue) {
  const struct {
    const char* url;
    const char* error;
  } cases[] = {
      {"modbus-tcp://host:0", "port '0' is not 1..65535"},
      {"modbus-tcp://host:", "empty port"},
      {"modbus-tcp://:502", "no host"},
      {"modbus-tcp://ho st", "host 'ho st' is not"},
      {"modbus-tcp://[::1", "without ']'"},
      {"modbus-udp://x", "scheme is not"},
      {"modbus-rtu://dev/ttyUSB0", "device path 'dev/ttyUSB0' is not absolute"},
      {"modbus-rtu:///dev/ttyUSB0?baud=fast", "baud 'fast' is not 50..16000000"},
      {"modbus-rtu:///dev/ttyUSB0?parity=X", "parity 'X' is not N, E or O"},
      {"modbus-rtu:///dev/ttyUSB0?data=9", "data '9' is not 5..8"},
      {"modbus-rtu:///dev/ttyUSB0?stop", "'stop' is not KEY=VALUE"},
      {"modbus-rtu:///dev/ttyUSB0?speed=9600", "unknown key 'speed'"},
  };
  for (const auto& c : cases) {
    DeviceUrl u;
    std::string error;
    EXPECT_FALSE(DeviceUrl::Parse(c.url, u, error)) << c.url;
    EXPECT_EQ(error.rfind(std::string("device URL '") + c.url + "': ", 0), 0u) << error;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}
