// A Modbus device polled on its own thread, with outputs in the I/O image.
#ifndef ZQDEVICES_MODBUSDEVICE_H
#define ZQDEVICES_MODBUSDEVICE_H

#include <zqcommon/export.h>
#include <zqcommon/iocontrol.h>
#include <zqdevices/DeviceConfig.h>
#include <zqdevices/ValueSink.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zqdevices {

// Polls one Modbus TCP or RTU device every period on a thread of its own, so
// a dead or slow device never delays the others. Each poll reads the mapped
// coils, inputs and registers (adjacent ones in one request), hands every
// point to the ValueSink and writes the outputs the I/O image changed.
//
// Faults: a request that fails (timeout, lost connection) is tried Retries
// more times; then the device faults: every point is delivered once more with
// quality device_fault, the outputs' safe states are written (tried once,
// bounded by the timeout), and the sink hears StateChanged. With Retries = 0
// that is within one timeout of the failing request. A Modbus exception from
// the device (illegal address, device busy) faults only the points of that
// request; the device stays up. Recovery: automatic with back-off (BackoffMs
// doubling to BackoffMaxMs) or by Recover(), as configured; a recovered device
// starts from the safe states, so a task must command its outputs anew.
// Stop() (and the destructor) writes the safe states and joins the thread.
//
// The I/O handler (Io()) has the device's Bit.N entries as bits N of its
// bytes: inputs read the last poll, outputs the commanded state; while the
// device is faulted its transfers answer IOR_FAIL and commands are dropped.
//
// Thread safety: Start, Stop and the destructor from one thread; Recover,
// State, Stats, LastError and the handler from any thread.
class ZQ_EXPORT ModbusDevice {
 public:
  enum State { stopped, running, faulted };
  /// Counters of the device's polling since Start(), read with GetStats().
  struct Stats {
    uint64_t polls = 0;      // completed polls
    uint64_t failures = 0;   // failed requests (each try)
    uint64_t exceptions = 0; // Modbus exception answers
    uint64_t faults = 0;     // transitions into the fault state
    double p99_ms = 0;       // 99th percentile of the poll time since start
  };

  // `sink` (not owned, may be null) must outlive the device.
  ModbusDevice(const DeviceConfig& config, ValueSink* sink);
  ~ModbusDevice();
  ModbusDevice(const ModbusDevice&) = delete;
  ModbusDevice& operator=(const ModbusDevice&) = delete;

  // Starts the polling thread; false (reason in LastError) when the unit id is
  // outside 0-247 and not 255, libmodbus refuses the serial port's settings,
  // or the device already runs. The
  // first connection is made on the thread: a device that is away at start
  // faults there, it does not hold up the caller.
  bool Start();
  void Stop();
  // Asks a faulted device to try again now (the operator's "recover").
  void Recover();

  State GetState() const;
  Stats GetStats() const;
  std::string LastError() const;
  const DeviceConfig& Config() const;
  // The handler to add to an IOControl; valid while the device lives.
  IOHandler& Io();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace zqdevices

#endif
