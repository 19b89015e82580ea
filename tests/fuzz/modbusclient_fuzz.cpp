// The device's Modbus TCP client reading what a device could send back: the
// first byte picks the request (function; whether the answer's transaction
// and unit are made to match, to get past those checks), the next two its
// count, the rest arrives on the connection before the device hangs up.
#include <cstdlib>
#include <vector>

#include "devices/modbus_tcp_client.h"
#include "support/loopback.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  static int port = 0;
  static const int s = listen_local(port, 4);
  const int function = 1 + data[0] % 5;
  const bool bits = function <= 2;
  const unsigned int limit = bits ? MODBUS_MAX_READ_BITS : MODBUS_MAX_READ_REGISTERS;
  const unsigned int count = 1 + (data[1] << 8 | data[2]) % limit;
  std::vector<uint8_t> answer(data + 3, data + size);
  if (data[0] & 0x08 && answer.size() >= 2) answer[0] = 0, answer[1] = 1;  // the first request's transaction
  if (data[0] & 0x10 && answer.size() >= 7) answer[6] = 9;

  zqdevices::details::ModbusTcpClient client("127.0.0.1", port, 9, 50);
  std::string why;
  if (!client.Connect(why)) std::abort();
  const int peer = accept(s, nullptr, nullptr);
  if (peer < 0) std::abort();
  if (!answer.empty() && send(peer, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) std::abort();
  shutdown(peer, SHUT_WR);
  std::vector<uint8_t> bit_values(limit, 0xee);
  std::vector<uint16_t> registers(limit, 0xeeee);
  int rc;
  if (function == 5)
    rc = client.WriteBit(3, 1);
  else if (bits)
    rc = client.ReadBits(function, 0, count, bit_values.data());
  else
    rc = client.ReadRegisters(function, 0, count, registers.data());
  // A read gives all it asked for or nothing; bits are 0 or 1.
  if (rc != -1 && rc != (function == 5 ? 1 : static_cast<int>(count))) __builtin_trap();
  if (rc > 0 && bits)
    for (unsigned int i = 0; i < count; ++i)
      if (bit_values[i] > 1) __builtin_trap();
  close(peer);
  return 0;
}
