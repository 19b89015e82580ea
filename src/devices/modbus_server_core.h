// The Modbus server's request handling, apart from its sockets, so that a
// fuzzer can feed it frames the way a client's socket would.
#ifndef ZQDEVICES_MODBUS_SERVER_CORE_H
#define ZQDEVICES_MODBUS_SERVER_CORE_H

#include <modbus/modbus.h>

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "zqdevices/ModbusServer.h"

namespace zqdevices {
namespace details {

class ServerCore {
 public:
  ServerCore(unsigned int image_bytes, size_t values, std::vector<bool> writable);
  ~ServerCore();
  ServerCore(const ServerCore&) = delete;
  ServerCore& operator=(const ServerCore&) = delete;

  // Receives one request on the socket `ctx` is set to and answers it: false
  // when the connection is to be closed (end of file, a malformed frame, a
  // failed send).
  bool Serve(modbus_t* ctx, bool may_write);

  bool PublishImage(const uint8_t* inputs, const uint8_t* outputs);
  void PublishValue(size_t index, double value, bool good);
  unsigned int TakeWrites(const std::function<void(unsigned int, bool)>& apply);
  ModbusServer::Stats GetStats();
  void CountRefused();

 private:
  void queue_write(unsigned int bit, bool on);

  std::mutex mutex_;
  modbus_mapping_t* map_;
  unsigned int image_bits_;
  std::vector<bool> writable_;
  std::vector<std::pair<unsigned int, bool>> writes_;  // bounded: kMaxWrites
  ModbusServer::Stats stats_;
  uint8_t query_[MODBUS_TCP_MAX_ADU_LENGTH];
};

}  // namespace details
}  // namespace zqdevices

#endif
