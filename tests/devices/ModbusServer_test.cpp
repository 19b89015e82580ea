// The Modbus TCP server as mbpoll, pymodbus and a plain libmodbus client see it.
#include "zqdevices/ModbusServer.h"

#include <gtest/gtest.h>
#include <modbus/modbus.h>
#include <zqcommon/lib_config.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>

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

  // One record per write request, refused ones included, naming the client.
  std::string records;
  uint64_t unrecorded = 0;
  EXPECT_EQ(server->TakeWriteRecords(
                [&](const ModbusServer::WriteRecord& r) {
                  records += std::string(r.client) + " " + std::to_string(r.function) + "@" +
                             std::to_string(r.address) + "x" + std::to_string(r.count) + "=" +
                             std::to_string(r.value) + ":" + std::to_string(r.result) + "\n";
                },
                unrecorded),
            7u);
  EXPECT_EQ(records,
            "127.0.0.1 5@1x1=65280:1\n127.0.0.1 5@1x1=0:0\n127.0.0.1 15@4x2=3:0\n127.0.0.1 5@0x1=65280:2\n127.0.0.1 15@3x2=3:2\n"
            "127.0.0.1 6@0x1=7:2\n127.0.0.1 5@5x1=65280:0\n");
  EXPECT_EQ(unrecorded, 0u);
  // A flood is recorded up to the burst size, the rest counted.
  modbus_t* c = modbus_new_tcp("127.0.0.1", server->Port());
  ASSERT_EQ(modbus_connect(c), 0);
  const auto began = std::chrono::steady_clock::now();
  for (int k = 0; k < 200; ++k) ASSERT_EQ(modbus_write_bit(c, 1, k & 1), 1);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  modbus_free(c);
  const unsigned int kept = server->TakeWriteRecords([](const ModbusServer::WriteRecord&) {}, unrecorded);
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, ModbusServer::kRecordBurst + 1 + seconds * ModbusServer::kRecordsPerSecond);
  EXPECT_EQ(kept + unrecorded, 200u);
}

TEST_F(ServerTest, RequestsSplitOrJoinedOnTheWireAndMalformedFramesClose) {
  start();
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(server->Port()));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  const timeval wait{5, 0};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  // Read input registers 0..1 (tank.level as a float), transaction ids 1..3.
  auto request = [](uint8_t id) {
    return std::string{0, static_cast<char>(id), 0, 0, 0, 6, 1, 4, 0, 0, 0, 2};
  };
  auto answers = [&](size_t count) {
    std::string got(count * 13, '\0');
    size_t n = 0;
    for (ssize_t r = 1; n < got.size() && r > 0; n += static_cast<size_t>(r > 0 ? r : 0))
      r = recv(s, &got[n], got.size() - n, 0);
    got.resize(n);
    return got;
  };
  const std::string two = request(1) + request(2), split = request(3);
  ASSERT_EQ(send(s, two.data(), two.size(), 0), static_cast<ssize_t>(two.size()));
  ASSERT_EQ(send(s, split.data(), 5, 0), 5);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(send(s, split.data() + 5, split.size() - 5, 0), static_cast<ssize_t>(split.size() - 5));
  const std::string got = answers(3);
  ASSERT_EQ(got.size(), 39u);
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(got[13 * k + 1], k + 1);  // transaction id
    EXPECT_EQ(got.substr(13 * k + 7, 6), (std::string{4, 4, 0x41, 0x48, 0, 0}));  // 12.5 as abcd
  }
  // Reads of no register or of more than a request may carry: illegal data
  // value, answered at once (not after libmodbus's half-second pause).
  const auto t0 = std::chrono::steady_clock::now();
  for (int k = 0; k < 20; ++k) {
    std::string zero = request(10);
    zero[11] = k % 2 ? 0 : 126;
    ASSERT_EQ(send(s, zero.data(), zero.size(), 0), static_cast<ssize_t>(zero.size()));
    char exception[9] = {};
    ASSERT_EQ(recv(s, exception, sizeof exception, MSG_WAITALL), 9);
    EXPECT_EQ(exception[7], '\x84');
    EXPECT_EQ(exception[8], 3);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << "20 answers; 10 s when each waits";
  // A read whose MBAP length says one byte more than its function: closed.
  std::string bad = request(4);
  bad[5] = 7;
  bad += '\0';
  ASSERT_EQ(send(s, bad.data(), bad.size(), 0), static_cast<ssize_t>(bad.size()));
  char byte;
  EXPECT_EQ(recv(s, &byte, 1, 0), 0);
  close(s);
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
