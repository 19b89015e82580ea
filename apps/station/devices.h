// Field devices at the station: Modbus devices from [Device.*] sections and
// the Modbus TCP server from [ModbusServer], both off unless configured.
#ifndef STATION_DEVICES_H
#define STATION_DEVICES_H

#include <zqcommon/log.h>
#include <zqdevices/ModbusDevice.h>
#include <zqdevices/ModbusServer.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class Config_File;
class CLI;

namespace station {

class SensorTask;
struct Session;

// Owns the devices and the server. The devices' handlers join the task's
// image after the board (so image bit 8 is the first device's bit 0); each
// cycle the task hands the image to the server and applies the coil writes
// clients made. Device threads report through the ValueSink interface;
// their state changes wait in a queue for Poll() on the main thread, which
// logs them (the log is not shared across threads). Declare it before the
// Station, so that the task stops before the devices go.
class FieldDevices : public zqdevices::ValueSink {
 public:
  FieldDevices(Config_File& cfg, Log& log);
  ~FieldDevices() override;
  // Reads the sections and adds the handlers to `task` (not yet started);
  // Modbus clients must pass the access list `acl_file` (Server.ACL; empty:
  // everyone). False with the reason in `why`.
  bool Attach(SensorTask& task, const std::string& acl_file, std::string& why);
  // Starts the devices and the server; false with the reason in `why`.
  bool Start(std::string& why);
  // Writes the safe states and stops; the task must have stopped.
  void Stop();
  // Main thread: logs the state changes that came from the devices.
  void Poll();

  // The `device` command's texts.
  std::string List();
  bool Recover(const std::string& name, std::string& why);
  bool Empty() const { return devices_.empty() && !server_; }

  void Deliver(const zqdevices::DeviceValue& value) override;
  void StateChanged(const std::string& device, bool faulted, const std::string& reason) override;

 private:
  Config_File& cfg_;
  Log& log_;
  std::vector<std::unique_ptr<zqdevices::ModbusDevice>> devices_;
  std::unique_ptr<zqdevices::ModbusServer> server_;
  unsigned int image_bytes_ = 0;
  std::mutex mutex_;  // guards what the device threads leave for the main thread
  std::deque<std::pair<bool, std::string>> events_;
  struct Latest {
    double value = 0;
    std::string unit;
    bool good = false;
  };
  std::map<std::string, Latest> latest_;  // "device.point"
};

// The active FieldDevices (set while one lives), for the commands.
FieldDevices* field_devices();
// Registers `device [list | recover NAME]`.
void register_device_commands(CLI& cli, Session& session);
// station --modbus-map: prints the server's register map from `cfg`; the
// exit status.
int print_modbus_map(Config_File& cfg);
// Removes "--modbus-map" from the arguments; true when it was there.
bool take_modbus_map_option(int& argc, char** argv);

}  // namespace station

#endif
