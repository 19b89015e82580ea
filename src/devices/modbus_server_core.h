// The Modbus server's request handling, apart from its listening socket, so
// that a fuzzer can feed it bytes the way a client's socket would.
#ifndef ZQDEVICES_MODBUS_SERVER_CORE_H
#define ZQDEVICES_MODBUS_SERVER_CORE_H

#include <modbus/modbus.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "zqdevices/ModbusServer.h"

namespace zqdevices {
namespace details {

// One client: its socket (non-blocking), whether it may write, its address
// and the start of a request not yet complete.
struct Connection {
  int fd = -1;
  bool may_write = false;
  char address[sizeof ModbusServer::WriteRecord::client] = "";
  uint8_t buffer[2 * MODBUS_TCP_MAX_ADU_LENGTH];
  size_t filled = 0;
};

// A fixed ring keeping the newest `N` items; no allocation once built.
template <typename T, size_t N>
class Ring {
 public:
  static constexpr size_t kSize = N;
  // Adds `item`; false when it pushed the oldest out.
  bool Push(const T& item) {
    items_[(first_ + count_) % N] = item;
    if (count_ < N) return ++count_, true;
    first_ = (first_ + 1) % N;
    return false;
  }
  template <typename F>
  unsigned int Drain(F&& f) {
    const auto n = static_cast<unsigned int>(count_);
    for (; count_ > 0; --count_, first_ = (first_ + 1) % N) f(items_[first_]);
    return n;
  }

 private:
  T items_[N];
  size_t first_ = 0, count_ = 0;
};

class ServerCore {
 public:
  ServerCore(unsigned int image_bytes, size_t values, std::vector<bool> writable);
  ~ServerCore();
  ServerCore(const ServerCore&) = delete;
  ServerCore& operator=(const ServerCore&) = delete;

  // Reads what the connection's socket holds now (it does not wait) and
  // answers every complete request in it: false when the connection is to
  // be closed (end of file, a malformed frame, a failed or partial send).
  // `ctx` provides the framing of the answers; its socket is set here.
  bool Serve(modbus_t* ctx, Connection& c);

  bool PublishImage(const uint8_t* inputs, const uint8_t* outputs);
  void PublishValue(size_t index, double value, bool good);
  unsigned int TakeWrites(const std::function<void(unsigned int, bool)>& apply);
  unsigned int TakeWriteRecords(const std::function<void(const ModbusServer::WriteRecord&)>& record,
                                uint64_t& unrecorded);
  ModbusServer::Stats GetStats();
  void CountRefused() { refused_.fetch_add(1, std::memory_order_relaxed); }

 private:
  bool answer(modbus_t* ctx, const Connection& c, const uint8_t* frame, int length);
  bool refuse(modbus_t* ctx, const uint8_t* frame, unsigned int code);
  void record(const Connection& c, const uint8_t* pdu, int pdu_length, unsigned int result);
  void take_published();

  // The map the answers come from belongs to the serving thread alone: the
  // image and values are published into the staged copies under `mutex_`
  // and taken into the map before the next request when `staged_` says so.
  modbus_mapping_t* map_;
  unsigned int image_bits_;
  std::vector<bool> writable_;
  std::atomic<uint64_t> requests_{0}, exceptions_{0}, refused_{0}, writes_applied_{0};

  std::mutex mutex_;  // guards what follows
  std::atomic<bool> staged_{false};  // image_staged_ || values_staged_
  bool image_staged_ = false, values_staged_ = false;
  std::vector<uint8_t> staged_inputs_, staged_outputs_, staged_good_;
  std::vector<uint16_t> staged_registers_;
  Ring<std::pair<unsigned int, bool>, 1024> writes_;  // older ones are dropped beyond
  Ring<ModbusServer::WriteRecord, 64> records_;
  uint64_t unrecorded_ = 0;
  double tokens_ = ModbusServer::kRecordBurst;
  std::chrono::steady_clock::time_point refilled_{};
};

}  // namespace details
}  // namespace zqdevices

#endif
