// The program as a Modbus TCP server: its I/O image and device values.
#ifndef ZQDEVICES_MODBUSSERVER_H
#define ZQDEVICES_MODBUSSERVER_H

#include <zqcommon/export.h>
#include <zqdevices/DeviceConfig.h>
#include <zqdevices/ValueSink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class Config_File;

namespace zqdevices {

// [ModbusServer]: off unless Listen is set.
//   Listen = 127.0.0.1:1502   address and port (port 0: any free one)
//   MaxConnections = 4        clients at once; further ones are closed at once
//   WritableCoils = 0-3,7     output bits clients may write (none by default)
//   WriteFrom = 127.0.0.1/32  address rules of the clients that may write, kept
//                             for the program's write check (see SetWriteCheck)
// The register map follows from the configuration (see MapText()):
//   coils 0..8*B-1             the output image bits (B = image bytes)
//   discrete inputs 0..8*B-1   the input image bits
//   discrete input 8*B+k       1 while value k is good
//   input registers 2k, 2k+1   value k (scaled) as a 32-bit float, abcd order
// with values k in the order of the [Device.*] sections and their points.
// Everything is read-only except WritableCoils; even those only for clients
// the write check allows (by default none).
struct ZQ_EXPORT ModbusServerConfig {
  std::string listen;  // empty: no server
  int max_connections = 4;
  std::vector<bool> writable;  // per coil
  std::string write_from;      // WriteFrom, as written
  unsigned int image_bytes = 0;
  std::vector<std::pair<std::string, std::string>> values;  // (device, point)
  std::vector<std::string> units;

  // Reads [ModbusServer] (absent: off) and takes the values of `devices`;
  // false with the reason (file, line, value) in `error`.
  static bool Load(Config_File& cfg, const std::vector<DeviceConfig>& devices, unsigned int image_bytes,
                   ModbusServerConfig& out, std::string& error);
};

// Serves the map above on a thread of its own, with libmodbus framing. The
// program's task never waits for it: PublishImage skips a cycle rather than
// wait for the server, and values arrive through the ValueSink interface
// (from the devices' threads). Client writes to writable coils are kept until
// the task collects them with TakeWrites and applies them to its image.
//
// Connection rules: the accept check (by default everyone) sees each
// client's address; a refused client is closed without a byte. The write
// check (by default no one) decides whether a client may write at all; a
// refused write answers exception 1 (illegal function), a write to a
// read-only coil or register exception 2 (illegal data address). Requests
// are framed by their MBAP length; a frame whose length disagrees with its
// function closes the connection, and so does a client that does not take
// its answers (the server never waits on one client).
//
// Every write request, accepted or refused, leaves a WriteRecord for the
// program's audit log (TakeWriteRecords), at most kRecordsPerSecond a second
// on average (bursts up to kRecordBurst); the ones beyond are counted.
//
// Thread safety: Start, Stop and the checks from one thread before or after
// serving; Publish*, TakeWrites, Deliver and the statistics from any thread.
class ZQ_EXPORT ModbusServer : public ValueSink {
 public:
  using PeerCheck = std::function<bool(const std::string& address)>;
  /// Counters of the server since Start(): requests answered, exception
  /// answers, connections refused (access list or cap) and writes applied.
  struct Stats {
    uint64_t requests = 0, exceptions = 0, refused_connections = 0, writes = 0;
  };
  /// One write request as the audit log shows it.
  struct WriteRecord {
    char client[46] = "";   // the client's address
    uint8_t function = 0;   // the Modbus function code (5, 6, 15, 16, 22, 23)
    uint16_t address = 0;   // the first coil or register written
    uint16_t count = 0;     // coils or registers written
    uint16_t value = 0;     // the first register's value, or the coils' states from bit 0 (first 16)
    uint8_t result = 0;     // 0: accepted; else the exception code answered
  };
  static constexpr unsigned int kRecordsPerSecond = 10, kRecordBurst = 20;

  explicit ModbusServer(const ModbusServerConfig& config);
  ~ModbusServer() override;
  ModbusServer(const ModbusServer&) = delete;
  ModbusServer& operator=(const ModbusServer&) = delete;

  void SetAcceptCheck(PeerCheck check);
  void SetWriteCheck(PeerCheck check);
  // Listens and starts serving; false with the reason in LastError().
  bool Start();
  void Stop();
  int Port() const;  // the port listened on, 0 before Start
  std::string LastError() const;

  // The image as the task has it now, served from the next request on; false
  // (nothing copied) when the server is taking the previous one at this
  // moment (it holds its lock for that copy only).
  bool PublishImage(const uint8_t* inputs, const uint8_t* outputs);
  void Deliver(const DeviceValue& value) override;
  // Hands the coil writes accepted since the last call to `apply` (bit,
  // state), oldest first; the count. Neither waits nor allocates: while
  // the server is recording a write it hands nothing (0), and the writes
  // wait for the next call. `apply` must be quick.
  unsigned int TakeWrites(const std::function<void(unsigned int bit, bool on)>& apply);
  // Hands the write records kept since the last call to `record`, oldest
  // first, and adds to `unrecorded` the writes beyond the rate (or beyond
  // the kept records when nobody took them); the count handed.
  unsigned int TakeWriteRecords(const std::function<void(const WriteRecord&)>& record, uint64_t& unrecorded);
  Stats GetStats() const;
  // The register map, one line per range, as documented above.
  std::string MapText() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace zqdevices

#endif
