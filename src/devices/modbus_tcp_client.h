// A Modbus TCP client for a device's polling thread.
//
// One request and its answer cost two system calls: a send, then a recv that
// waits with the socket's receive time-out. libmodbus's client spends seven
// (a select before each of the three reads it splits an answer into), and on
// a loopback or LAN link those calls are a good part of a poll.
//
// Results follow libmodbus's conventions, so the device treats this client and
// libmodbus's RTU context alike: the number of bits or registers read (1 for a
// write), or -1 with errno set: ETIMEDOUT when no whole answer came within the
// time-out, ECONNRESET when the peer closed, EMBBADDATA for an answer that is
// malformed or not the one to this request, MODBUS_ENOBASE + code for a Modbus
// exception (EMBBADEXC for a code outside the protocol's).
//
// Not thread-safe: one thread uses a client. The socket is closed by Close()
// and by the destructor.
#ifndef ZQDEVICES_MODBUS_TCP_CLIENT_H
#define ZQDEVICES_MODBUS_TCP_CLIENT_H

#include <modbus/modbus.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zqdevices {
namespace details {

// Checks `answer` (`length` bytes, a whole frame from its MBAP header on)
// against the request frame `request` it should answer, and unpacks its data
// into `bits` (one byte per bit, functions 1 and 2) or `registers`
// (functions 3 and 4); a write's answer must echo the request. The result is
// as described above.
int CheckTcpAnswer(const uint8_t* request, const uint8_t* answer, size_t length, uint8_t* bits,
                   uint16_t* registers);

class ModbusTcpClient {
 public:
  ModbusTcpClient(std::string host, int port, int unit, int timeout_ms);
  ~ModbusTcpClient();
  ModbusTcpClient(const ModbusTcpClient&) = delete;
  ModbusTcpClient& operator=(const ModbusTcpClient&) = delete;

  // Connects to the first address of the host that accepts within the
  // time-out (closing any earlier connection); false with the reason in `why`.
  bool Connect(std::string& why);
  void Close();

  // `function` 1 (coils) or 2 (discrete inputs); `count` up to 2000.
  int ReadBits(int function, unsigned int start, unsigned int count, uint8_t* bits);
  // `function` 3 (holding) or 4 (input registers); `count` up to 125.
  int ReadRegisters(int function, unsigned int start, unsigned int count, uint16_t* registers);
  int WriteBit(unsigned int address, int value);

 private:
  int transact(uint8_t function, unsigned int a, unsigned int b, uint8_t* bits, uint16_t* registers);
  bool receive(size_t& length);

  std::string host_;
  int port_, unit_, timeout_ms_;
  int fd_ = -1;
  uint16_t transaction_ = 0;
  uint8_t request_[12] = {};
  uint8_t answer_[MODBUS_TCP_MAX_ADU_LENGTH] = {};
};

}  // namespace details
}  // namespace zqdevices

#endif
