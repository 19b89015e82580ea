// Field devices at the station: Modbus devices from [Device.*] sections and
// the Modbus TCP server from [ModbusServer], both off unless configured.
#ifndef STATION_DEVICES_H
#define STATION_DEVICES_H

#include <zqcommon/log.h>
#include <zqdevices/ModbusDevice.h>
#include <zqdevices/ModbusServer.h>

#include <chrono>
#include <cstdint>
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
class StationPoints;
struct Session;

// Owns the devices and the server. The devices' handlers join the task's
// image after the board (so image bit 8 is the first device's bit 0); each
// cycle the task hands the image to the server and applies the coil writes
// clients made. Device threads report through the ValueSink interface;
// their state changes wait in a queue for Poll() on the main thread, which
// logs them (the log is not shared across threads). Declare it before the
// Station, so that the task stops before the devices go.
//
// Every mapped value is also a process point ("DEVICE.VALUE", or the point a
// [Point.DEVICE.VALUE] section declared), and every device has a point
// "DEVICE.fault" (1 while faulted, alarm above 0.5). Device threads leave the
// newest value of each in a slot under one mutex (no allocation) and their
// faults in the event queue; Poll() moves both into the point table on the
// main thread, which owns it.
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
  // Makes or finds the points of the devices' values and faults in
  // `points` (after Attach, before Start); they are updated from then on.
  void BindPoints(StationPoints& points);
  // Main thread: logs the state changes that came from the devices and the
  // Modbus server's write records, and moves the newest values into the
  // points.
  void Poll();

  // The device values acquired since the previous call (the newest of each),
  // as the JSON array of the MQTT samples message: objects with name, unit,
  // value, time_us (acquisition, UTC microseconds) and quality ("good" or
  // "device-fault"); empty when there is none.
  std::string TakeSamples();

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
  // A device's fault or recovery, kept in order so that no transition is lost.
  struct Event {
    bool faulted;
    size_t device;    // index in faults_, or faults_.size() for an unknown name
    int64_t time_us;
    std::string text;
  };
  std::deque<Event> events_;
  // The newest value of one mapped value (or of a device's fault state).
  struct Slot {
    std::string name, unit;  // "device.value"
    double value = 0;
    int64_t time_us = 0;
    bool good = false, fresh = false;
    int point = -1;  // in the bound point table
    int64_t sampled_us = 0;  // time_us of the value TakeSamples() last handed out
  };
  std::vector<Slot> values_;  // every mapped value, in the devices' order
  std::vector<Slot> faults_;  // one per device (its point "DEVICE.fault")
  // device name -> its index and value name -> slot index
  std::map<std::string, std::pair<size_t, std::map<std::string, size_t>>> slot_of_;
  StationPoints* points_ = nullptr;
  // The server's write requests as audit lines; those beyond the server's
  // record rate are counted and said once a kUnloggedReport (and at stop).
  void log_writes();
  uint64_t unlogged_writes_ = 0;
  std::chrono::steady_clock::time_point next_unlogged_report_{};
  bool stopped_ = false;
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
