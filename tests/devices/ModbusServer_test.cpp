// The Modbus TCP server as mbpoll, pymodbus and a plain libmodbus client see it.
#include "zqdevices/ModbusServer.h"

#include <gtest/gtest.h>
#include <modbus/modbus.h>
#include <zqcommon/lib_config.h>

#include <cstdio>
#include <sstream>
#include <string>

using namespace zqdevices;

namespace {

// Standard output of a shell command.
std::string run(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::istringstream in(
        "[Device.tank]\nUrl = modbus-tcp://h\nPoint.level = holding 0 unit=m\nPoint.temp = input 3\n"
        "Bit.0 = coil 0\n[ModbusServer]\nListen = 127.0.0.1:0\nMaxConnections = 2\nWritableCoils = 1,4-5\n");
    Config_File cfg(in);
    std::vector<DeviceConfig> devices;
    std::string error;
    ASSERT_TRUE(DeviceConfig::LoadAll(cfg, devices, error)) << error;
    ASSERT_TRUE(ModbusServerConfig::Load(cfg, devices, 1, config, error)) << error;
    server.reset(new ModbusServer(config));
  }
  void start() {
    ASSERT_TRUE(server->Start()) << server->LastError();
    port = std::to_string(server->Port());
    const uint8_t inputs = 0x05, outputs = 0x02;
    ASSERT_TRUE(server->PublishImage(&inputs, &outputs));
    const std::string tank = "tank", level = "level", temp = "temp", m = "m", none;
    server->Deliver(DeviceValue{tank, level, 12.5, m, Quality::good, {}});
    server->Deliver(DeviceValue{tank, temp, -40, none, Quality::device_fault, {}});
  }
  std::string mbpoll(const std::string& args, const std::string& values = "") {
    return run("mbpoll -m tcp -0 -1 -p " + port + " " + args + " 127.0.0.1 " + values + " 2>&1");
  }
  // A pymodbus client: prints each result's registers, bits or exception code.
  std::string pymodbus(const std::string& calls) {
    return run("/usr/bin/python3 -c \"\nfrom pymodbus.client import ModbusTcpClient\nc = ModbusTcpClient('127.0.0.1', port=" +
               port + ")\nc.connect()\ndef show(r):\n    print(('exception %d' % r.exception_code) if r.isError() else "
               "getattr(r, 'registers', None) or getattr(r, 'bits', [])[:8] or 'ok')\n" + calls + "\nc.close()\" 2>&1");
  }
  ModbusServerConfig config;
  std::unique_ptr<ModbusServer> server;
  std::string port;
};

TEST_F(ServerTest, MapReadByMbpollAndPymodbus) {
  start();
  const std::string map = server->MapText();
  EXPECT_NE(map.find("coil       1\tbit   writable   output image bit 1"), std::string::npos) << map;
  EXPECT_NE(map.find("input      0-1\tf32   read-only  tank.level [m] (abcd)"), std::string::npos) << map;
  EXPECT_NE(map.find("input      2-3\tf32   read-only  tank.temp (abcd)"), std::string::npos) << map;
  EXPECT_NE(map.find("discrete   9\tbit   read-only  tank.temp good"), std::string::npos) << map;
  // The values and bits at the addresses the map names.
  const std::string floats = mbpoll("-t 3:float -B -r 0 -c 2");
  EXPECT_NE(floats.find("[0]: \t12.5"), std::string::npos) << floats;
  EXPECT_NE(floats.find("[2]: \t-40"), std::string::npos) << floats;
  const std::string bits = mbpoll("-t 1 -r 0 -c 10");
  EXPECT_NE(bits.find("[0]: \t1\n[1]: \t0\n[2]: \t1"), std::string::npos) << bits;
  EXPECT_NE(bits.find("[8]: \t1\n[9]: \t0"), std::string::npos) << bits;  // level good, temp not
  EXPECT_EQ(pymodbus("show(c.read_coils(0, 8))"), "[False, True, False, False, False, False, False, False]\n");
  // Beyond the map and missing tables: illegal data address.
  EXPECT_EQ(pymodbus("show(c.read_input_registers(4, 1))\nshow(c.read_holding_registers(0, 1))"),
            "exception 2\nexception 2\n");
}

TEST_F(ServerTest, WritesRefusedByDefaultThenOnlyToWritableCoils) {
  start();
  // Nobody may write until the write check says so.
  EXPECT_EQ(pymodbus("show(c.write_coil(1, True))"), "exception 1\n");
  EXPECT_EQ(server->TakeWrites([](unsigned int, bool) {}), 0u);
  server->Stop();
  server->SetWriteCheck([](const std::string& who) { return who == "127.0.0.1"; });
  start();
  EXPECT_EQ(pymodbus("show(c.write_coil(1, False))\nshow(c.write_coils(4, [True, True]))\n"
                     "show(c.write_coil(0, True))\nshow(c.write_coils(3, [True, True]))\n"
                     "show(c.write_register(0, 7))"),
            "ok\nok\nexception 2\nexception 2\nexception 2\n");
  const std::string written = mbpoll("-t 0 -r 5", "1");
  EXPECT_NE(written.find("Written 1 references"), std::string::npos) << written;
  std::string taken;
  EXPECT_EQ(server->TakeWrites([&](unsigned int bit, bool on) { taken += std::to_string(bit) + (on ? "+" : "-"); }), 4u);
  EXPECT_EQ(taken, "1-4+5+5+");
  EXPECT_GE(server->GetStats().exceptions, 4u);
}

TEST_F(ServerTest, RefusedAddressesGetNothingAndConnectionsAreBounded) {
  server->SetAcceptCheck([](const std::string&) { return false; });
  start();
  modbus_t* c = modbus_new_tcp("127.0.0.1", server->Port());
  ASSERT_EQ(modbus_connect(c), 0);  // the kernel accepts, the server closes
  modbus_set_response_timeout(c, 2, 0);
  uint16_t r[2];
  EXPECT_EQ(modbus_read_input_registers(c, 0, 2, r), -1);
  modbus_free(c);
  EXPECT_EQ(server->GetStats().refused_connections, 1u);
  EXPECT_EQ(server->GetStats().requests, 0u);

  server->Stop();
  server->SetAcceptCheck(nullptr);
  start();
  modbus_t* clients[3];
  int answered = 0;
  for (modbus_t*& k : clients) {
    k = modbus_new_tcp("127.0.0.1", server->Port());
    modbus_set_response_timeout(k, 2, 0);
    if (modbus_connect(k) == 0 && modbus_read_input_registers(k, 0, 2, r) == 2) ++answered;
  }
  EXPECT_EQ(answered, 2);  // MaxConnections = 2
  for (modbus_t* k : clients) modbus_free(k);
}

TEST(ModbusServerConfig, ErrorsNameTheValue) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"Listen = localhost", "ModbusServer.Listen = 'localhost': not HOST:PORT"},
      {"MaxConnections = 0", "not 1..64"},
      {"WritableCoils = 3-9", "'3-9' is not a coil or range of coils 0..7"},
      {"Writable = 1", "unknown setting"},
  };
  for (const auto& c : cases) {
    std::istringstream in(std::string("[ModbusServer]\n") + c.text + "\n");
    Config_File cfg(in);
    ModbusServerConfig out;
    std::string error;
    EXPECT_FALSE(ModbusServerConfig::Load(cfg, {}, 1, out, error)) << c.text;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
  std::istringstream in("[Other]\n");
  Config_File cfg(in);
  ModbusServerConfig out;
  std::string error;
  EXPECT_TRUE(ModbusServerConfig::Load(cfg, {}, 1, out, error));
  EXPECT_EQ(out.listen, "");  // off unless asked for
}

}  // namespace
