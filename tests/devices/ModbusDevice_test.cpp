// Modbus devices against real peers: pymodbus on loopback TCP and on one end
// of a socat pseudo-terminal pair (RTU).
#include "zqdevices/ModbusDevice.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <modbus/modbus.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zqcommon/lib_config.h>

#include "support/child_process.h"
#include "support/eventually.h"
#include "support/loopback.h"
#include "support/scratch_dir.h"

#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

using namespace zqdevices;
using namespace std::chrono_literals;

namespace {

struct TcpPeer {
  int port = free_local_port();
  ChildProcess child{{"/usr/bin/python3", ZQ_MODBUS_PEER, "--tcp", std::to_string(port)}};
  // A plain libmodbus client beside the device under test, to see the coils.
  modbus_t* probe = modbus_new_tcp("127.0.0.1", port);
  TcpPeer() {
    eventually([&] { return modbus_connect(probe) == 0; }, 20000);  // Python starts slowly on a busy machine
  }
  ~TcpPeer() { modbus_free(probe); }
  int coil(int address) {
    uint8_t bit = 0xff;
    return modbus_read_bits(probe, address, 1, &bit) == 1 ? bit : -1;
  }
};

struct Recorder : ValueSink {
  struct Seen {
    double value = 0;
    std::string unit;
    Quality quality = Quality::good;
    int count = 0;
  };
  std::mutex mutex;
  std::map<std::string, Seen> seen;
  std::vector<std::string> events;
  void Deliver(const DeviceValue& v) override {
    std::lock_guard<std::mutex> lock(mutex);
    Seen& s = seen[v.device + "." + v.name];
    s.value = v.value;
    s.unit = v.unit;
    s.quality = v.quality;
    ++s.count;
  }
  void StateChanged(const std::string& device, bool faulted, const std::string& reason) override {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(device + (faulted ? " fault: " : " up: ") + reason);
  }
  Seen get(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex);
    return seen[key];
  }
};

DeviceConfig config_of(const std::string& text, const std::string& section) {
  std::istringstream in(text);
  Config_File cfg(in);
  DeviceConfig d;
  std::string error;
  EXPECT_TRUE(DeviceConfig::FromSection(cfg, section, d, error)) << error;
  return d;
}

const char kMap[] =
    "Point.level = holding 0 u16 scale=0.1 unit=m\n"
    "Point.delta = holding 1 s16\n"
    "Point.t_abcd = holding 2 f32 abcd unit=degC\n"
    "Point.t_cdab = holding 4 f32 cdab\n"
    "Point.t_badc = holding 6 f32 badc\n"
    "Point.t_dcba = holding 8 f32 dcba\n"
    "Point.count = holding 10 u32 offset=-100000\n"
    "Point.flow = input 0 scale=0.5 offset=1 unit=l/min\n"
    "Point.missing = holding 50\n"
    "Point.busy = holding 100\n"
    "Bit.0 = coil 0 safe=0\n"
    "Bit.1 = coil 1 safe=1\n"
    "Bit.2 = discrete 2\n"
    "Bit.3 = discrete 1\n";

TEST(ModbusDevice, TcpValuesWordOrdersExceptionsAndOutputs) {
  TcpPeer peer;
  Recorder sink;
  ModbusDevice dev(config_of("[Device.tank]\nUrl = modbus-tcp://127.0.0.1:" + std::to_string(peer.port) +
                                 "\nPeriodMs = 20\nTimeoutMs = 500\nIoId = 3\n" + kMap,
                             "Device.tank"),
                   &sink);
  ASSERT_TRUE(dev.Start()) << dev.LastError();
  ASSERT_TRUE(eventually([&] { return sink.get("tank.flow").count >= 2; })) << dev.LastError();
  EXPECT_DOUBLE_EQ(sink.get("tank.level").value, 123.4);
  EXPECT_EQ(sink.get("tank.level").unit, "m");
  EXPECT_EQ(sink.get("tank.delta").value, -2);
  for (const char* order : {"abcd", "cdab", "badc", "dcba"})
    EXPECT_EQ(sink.get(std::string("tank.t_") + order).value, 21.5) << order;
  EXPECT_EQ(sink.get("tank.count").value, 0);
  EXPECT_EQ(sink.get("tank.flow").value, 251);
  EXPECT_EQ(sink.get("tank.flow").quality, Quality::good);
  // Exceptions fault the points of their request only; the device stays up.
  EXPECT_EQ(sink.get("tank.missing").quality, Quality::device_fault);
  EXPECT_EQ(sink.get("tank.busy").quality, Quality::device_fault);
  EXPECT_EQ(dev.GetState(), ModbusDevice::running);
  EXPECT_GT(dev.GetStats().exceptions, 0u);
  EXPECT_EQ(dev.GetStats().faults, 0u);
  EXPECT_NE(dev.LastError().find("tank: read "), std::string::npos);

  // The I/O image drives the coils; inputs come back as bits.
  uint8_t image[7][8] = {};
  memset(image[2], 0xff, 8);  // the input AND mask lets every bit through
  IOControl io(8, image[0], image[1], image[2], image[3], image[4], image[5], image[6]);
  ASSERT_EQ(io.AddHandler(dev.Io()), IOR_SUCCESS);
  ASSERT_EQ(io.ReadAll(), IOR_SUCCESS);
  bool bit = false;
  EXPECT_EQ(io.GetBit(3, 2, bit), IOR_SUCCESS);
  EXPECT_TRUE(bit);
  EXPECT_EQ(io.GetBit(3, 3, bit), IOR_SUCCESS);
  EXPECT_FALSE(bit);
  EXPECT_EQ(peer.coil(1), 1);  // the safe state, written at start
  io.SetBit(3, 0);
  io.ClearBit(3, 1);
  io.WriteAll();
  EXPECT_TRUE(eventually([&] { return peer.coil(0) == 1 && peer.coil(1) == 0; }));

  // Stopping writes the safe states.
  dev.Stop();
  EXPECT_EQ(peer.coil(0), 0);
  EXPECT_EQ(peer.coil(1), 1);
  EXPECT_EQ(dev.GetState(), ModbusDevice::stopped);
}

// Polls per second of `dev` over `window`.
double poll_rate(ModbusDevice& dev, std::chrono::milliseconds window) {
  const uint64_t before = dev.GetStats().polls;
  std::this_thread::sleep_for(window);
  return double(dev.GetStats().polls - before) * 1000.0 / double(window.count());
}

TEST(ModbusDevice, DeadDeviceFaultsAloneAndRecovers) {
  TcpPeer alive, dying;
  Recorder sink;
  const std::string map = "Point.level = holding 0\nBit.0 = coil 0 safe=1\nBit.1 = coil 1 safe=1\n";
  ModbusDevice a(config_of("[Device.a]\nUrl = modbus-tcp://127.0.0.1:" + std::to_string(alive.port) +
                               "\nPeriodMs = 20\n" + map, "Device.a"), &sink);
  ModbusDevice b(config_of("[Device.b]\nUrl = modbus-tcp://127.0.0.1:" + std::to_string(dying.port) +
                               "\nPeriodMs = 20\nTimeoutMs = 200\nRecovery = command\nIoId = 2\n" + map,
                           "Device.b"), &sink);
  ASSERT_TRUE(a.Start());
  ASSERT_TRUE(b.Start());
  ASSERT_TRUE(eventually([&] { return sink.get("a.level").count > 0 && sink.get("b.level").count > 0; }));
  // Command b's output away from its safe state.
  uint8_t byte = 0;
  ASSERT_EQ(b.Io().Set8(0, &byte), IOR_SUCCESS);
  ASSERT_TRUE(eventually([&] { return dying.coil(0) == 0; }));
  const double rate_before = poll_rate(a, 2000ms);

  kill(dying.child.pid(), SIGSTOP);  // b stops answering
  const auto stopped_at = std::chrono::steady_clock::now();
  ASSERT_TRUE(eventually([&] { return sink.get("b.level").quality == Quality::device_fault; }));
  const auto took = std::chrono::steady_clock::now() - stopped_at;
  EXPECT_LT(took, 2000ms) << "one 200 ms timeout plus a period, with slack for a loaded machine";
  EXPECT_EQ(b.GetState(), ModbusDevice::faulted);
  EXPECT_NE(b.Io().Set8(0, &byte), IOR_SUCCESS);  // commands to a faulted device are refused
  const double rate_during = poll_rate(a, 2000ms);
  EXPECT_GT(rate_during, rate_before * 0.9) << rate_before << " polls/s before, " << rate_during << " during";
  EXPECT_EQ(sink.get("a.level").quality, Quality::good);

  // Recovery by command only: the device answers again but stays faulted
  // until the operator says so, then starts from the safe state.
  kill(dying.child.pid(), SIGCONT);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(b.GetState(), ModbusDevice::faulted);
  b.Recover();
  ASSERT_TRUE(eventually([&] { return b.GetState() == ModbusDevice::running; })) << b.LastError();
  EXPECT_EQ(dying.coil(0), 1);
  EXPECT_TRUE(eventually([&] { return sink.get("b.level").quality == Quality::good; }));
  {
    std::lock_guard<std::mutex> lock(sink.mutex);
    ASSERT_EQ(sink.events.size(), 2u);
    EXPECT_EQ(sink.events[0].rfind("b fault: b: ", 0), 0u) << sink.events[0];
    EXPECT_EQ(sink.events[1], "b up: recovered");
  }

  // Stopping a device that answers writes every output's safe state.
  ASSERT_EQ(a.Io().Set8(0, &byte), IOR_SUCCESS);
  ASSERT_TRUE(eventually([&] { return alive.coil(0) == 0 && alive.coil(1) == 0; }));
  a.Stop();
  EXPECT_EQ(alive.coil(0), 1);
  EXPECT_EQ(alive.coil(1), 1);
}

TEST(ModbusDevice, AutomaticRecoveryWithBackOff) {
  // Nothing listens yet: the device faults at once and keeps retrying.
  const int port = free_local_port();
  Recorder sink;
  ModbusDevice dev(config_of("[Device.late]\nUrl = modbus-tcp://127.0.0.1:" + std::to_string(port) +
                                 "\nPeriodMs = 20\nBackoffMs = 50\nBackoffMaxMs = 200\nPoint.level = holding 0\n",
                             "Device.late"), &sink);
  ASSERT_TRUE(dev.Start());
  ASSERT_TRUE(eventually([&] { return dev.GetState() == ModbusDevice::faulted; }));
  EXPECT_NE(dev.LastError().find("cannot connect to modbus-tcp://127.0.0.1:"), std::string::npos) << dev.LastError();
  ChildProcess peer({"/usr/bin/python3", ZQ_MODBUS_PEER, "--tcp", std::to_string(port)});
  ASSERT_TRUE(eventually([&] { return dev.GetState() == ModbusDevice::running; }, 20000)) << dev.LastError();
  EXPECT_TRUE(eventually([&] { return sink.get("late.level").value == 1234; }));
}

TEST(ModbusDevice, RtuOverPseudoTerminalPair) {
  ScratchDir dir;
  const std::string ours = dir / "ours", theirs = dir / "theirs";
  ChildProcess socat({"/usr/bin/socat", "pty,raw,echo=0,link=" + ours, "pty,raw,echo=0,link=" + theirs});
  ASSERT_TRUE(eventually([&] { return access(ours.c_str(), F_OK) == 0 && access(theirs.c_str(), F_OK) == 0; }));
  ChildProcess peer({"/usr/bin/python3", ZQ_MODBUS_PEER, "--rtu", theirs, "19200"});
  Recorder sink;
  ModbusDevice dev(config_of("[Device.meter]\nUrl = modbus-rtu://" + ours +
                                 "?baud=19200&parity=N\nUnit = 7\nPeriodMs = 50\nTimeoutMs = 300\nBackoffMs = 100\n"
                                 "Point.t = holding 4 f32 cdab scale=2 unit=degC\nPoint.flow = input 0 unit=l/h\n",
                             "Device.meter"), &sink);
  ASSERT_TRUE(dev.Start()) << dev.LastError();
  ASSERT_TRUE(eventually([&] { return sink.get("meter.t").quality == Quality::good && sink.get("meter.t").count > 0; },
                         20000))
      << dev.LastError();
  EXPECT_EQ(sink.get("meter.t").value, 43);
  EXPECT_EQ(sink.get("meter.t").unit, "degC");
  EXPECT_EQ(sink.get("meter.flow").value, 500);
  dev.Stop();
}

TEST(DeviceConfig, ErrorsNameFileLineAndValue) {
  const std::string path = ::testing::TempDir() + "devices.cfg";
  std::ofstream(path) << "[Device.pump]\nUrl = modbus-tcp://10.0.0.5\nUnit = 1\n"
                         "Point.p = holding 3 f32 cdab scale=0.01 unit=bar\nBit.4 = coil 9 safe=1\n"
                         "[Device.bad]\nUrl = modbus-tcp://h\nPoint.x = holding 3 f64\n";
  Config_File cfg(path);
  DeviceConfig d;
  std::string error;
  ASSERT_TRUE(DeviceConfig::FromSection(cfg, "Device.pump", d, error)) << error;
  EXPECT_EQ(d.name, "pump");
  ASSERT_EQ(d.points.size(), 2u);
  EXPECT_EQ(d.points[0].type, DevicePoint::f32);
  EXPECT_EQ(d.points[0].order, DevicePoint::cdab);
  EXPECT_EQ(d.points[0].scale, 0.01);
  EXPECT_TRUE(d.points[1].output && d.points[1].safe);
  EXPECT_EQ(d.points[1].io_bit, 4);
  std::vector<DeviceConfig> all;
  EXPECT_FALSE(DeviceConfig::LoadAll(cfg, all, error));
  EXPECT_EQ(error, path + ":8: Point.x = 'holding 3 f64': 'f64' is not a type (u16 s16 u32 s32 f32), "
                   "a word order (abcd cdab badc dcba), scale=NUMBER, offset=NUMBER or unit=TEXT");
  const struct {
    const char* entry;
    const char* error;
  } cases[] = {
      {"Unit = 300", "Unit = '300': not 0..247"},
      {"Url = modbus-tcp://h:99999", "port '99999' is not 1..65535"},
      {"Recovery = sometimes", "not auto or command"},
      {"Bit.1 = holding 3", "Bit.N takes N 0..255 and a coil or discrete input"},
      {"Point.x = discrete 2 safe=1", "'safe=1' is not scale="},
      {"Point.x = holding 65535 u32", "passes 65535"},
      {"Speed = 5", "unknown setting"},
  };
  for (const auto& c : cases) {
    std::istringstream in(std::string("[Device.d]\nUrl = modbus-tcp://h\n") + c.entry + "\n");
    Config_File one(in);
    EXPECT_FALSE(DeviceConfig::FromSection(one, "Device.d", d, error)) << c.entry;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

}  // namespace
