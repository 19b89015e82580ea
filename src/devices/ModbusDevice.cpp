// A Modbus client device: its polling thread, fault policy and I/O handler.
#include "zqdevices/ModbusDevice.h"

#include <errno.h>
#include <modbus/modbus.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "devices/modbus_tcp_client.h"
#include "devices/modbus_words.h"
#include "devices/serial_ioctl.h"

namespace zqdevices {

ValueSink::~ValueSink() = default;
void ValueSink::StateChanged(const std::string&, bool, const std::string&) {}

namespace {

using Clock = std::chrono::steady_clock;

// Adjacent points of one table read in one request, within the protocol's
// limits per request.
struct Block {
  DevicePoint::Table table;
  unsigned int start = 0, count = 0;
  std::vector<uint16_t> regs;
  std::vector<uint8_t> bits;
  bool ok = false;
};

bool is_exception(int e) { return e >= EMBXILFUN && e <= EMBXGTAR; }

// Poll times in a log-scale histogram (8 buckets per doubling of the
// microseconds), so percentiles cost no allocation while polling.
struct LatencyHistogram {
  std::array<uint64_t, 256> count{};
  uint64_t total = 0;
  static unsigned int bucket(double us) {
    if (us < 1) return 0;
    const double b = std::log2(us) * 8;
    return b >= 255 ? 255 : static_cast<unsigned int>(b);
  }
  void add(double us) {
    ++count[bucket(us)];
    ++total;
  }
  double percentile_ms(double q) const {
    if (total == 0) return 0;
    const uint64_t want = static_cast<uint64_t>(std::ceil(q * static_cast<double>(total)));
    uint64_t seen = 0;
    for (unsigned int b = 0; b < count.size(); ++b) {
      seen += count[b];
      if (seen >= want) return std::exp2((b + 1) / 8.0) / 1000.0;  // the bucket's upper edge
    }
    return 0;
  }
};

}  // namespace

struct ModbusDevice::Impl {
  class Handler : public IOHandler {
   public:
    Handler(Impl& d) : IOHandler(d.config.io_id, d.config.name.c_str()), d(d) {}
    unsigned int isize() override { return d.io_bytes; }
    unsigned int osize() override { return d.io_bytes; }
    IOResult Get8(unsigned int index, void* byte) override {
      std::lock_guard<std::mutex> lock(d.io_mutex);
      if (index >= d.io_bytes || d.state != running) return fail();
      *static_cast<uint8_t*>(byte) = d.image[index];
      return IOR_SUCCESS;
    }
    IOResult Set8(unsigned int index, const void* byte) override {
      std::lock_guard<std::mutex> lock(d.io_mutex);
      if (index >= d.io_bytes || d.state != running) return fail();
      const uint8_t v = *static_cast<const uint8_t*>(byte);
      d.image[index] = static_cast<uint8_t>((d.image[index] & ~d.output_mask[index]) | (v & d.output_mask[index]));
      return IOR_SUCCESS;
    }

   private:
    Impl& d;
  };

  Impl(const DeviceConfig& c, ValueSink* s) : config(c), sink(s), handler(*this) {
    for (const DevicePoint& p : config.points) {
      if (p.io_bit < 0) continue;
      io_bytes = std::max(io_bytes, static_cast<unsigned int>(p.io_bit / 8 + 1));
    }
    image.assign(io_bytes, 0);
    output_mask.assign(io_bytes, 0);
    for (const DevicePoint& p : config.points)
      if (p.output) output_mask[p.io_bit / 8] |= static_cast<uint8_t>(1u << (p.io_bit % 8));
    written.assign(config.points.size(), -1);
    values.assign(config.points.size(), 0.0);
    plan();
    set_safe_image();
  }

  // Groups the points that are read (all but output coils) into blocks.
  void plan() {
    std::vector<size_t> order;
    for (size_t i = 0; i < config.points.size(); ++i)
      if (!config.points[i].output) order.push_back(i);
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      const DevicePoint &p = config.points[a], &q = config.points[b];
      return p.table != q.table ? p.table < q.table : p.address < q.address;
    });
    point_block.assign(config.points.size(), -1);
    for (size_t i : order) {
      const DevicePoint& p = config.points[i];
      const bool bits = p.table == DevicePoint::coil || p.table == DevicePoint::discrete;
      const unsigned int limit = bits ? MODBUS_MAX_READ_BITS : MODBUS_MAX_READ_REGISTERS;
      Block* last = blocks.empty() ? nullptr : &blocks.back();
      if (last && last->table == p.table && p.address <= last->start + last->count &&
          std::max(last->start + last->count, p.address + p.Width()) - last->start <= limit) {
        last->count = std::max(last->start + last->count, p.address + p.Width()) - last->start;
      } else {
        blocks.push_back(Block{p.table, p.address, p.Width(), {}, {}, false});
      }
      point_block[i] = static_cast<int>(blocks.size() - 1);
    }
    for (Block& b : blocks) {
      if (b.table == DevicePoint::coil || b.table == DevicePoint::discrete)
        b.bits.assign(b.count, 0);
      else
        b.regs.assign(b.count, 0);
    }
  }

  // Output bits back to their safe states (the image's and what a recovered
  // device is written first).
  void set_safe_image() {
    std::lock_guard<std::mutex> lock(io_mutex);
    for (const DevicePoint& p : config.points) {
      if (!p.output) continue;
      uint8_t& byte = image[p.io_bit / 8];
      const uint8_t bit = static_cast<uint8_t>(1u << (p.io_bit % 8));
      byte = p.safe ? (byte | bit) : (byte & ~bit);
    }
    std::fill(written.begin(), written.end(), -1);
  }

  void set_error(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    error = config.name + ": " + text;
  }

  bool connect() {
    if (connected) return true;
    if (tcp) {
      std::string why;
      if (!tcp->Connect(why)) {
        set_error("cannot connect to " + config.url.ToString() + ": " + why);
        return false;
      }
      connected = true;
      return true;
    }
    if (modbus_connect(ctx) != 0) {
      set_error(std::string("cannot connect to ") + config.url.ToString() + ": " + modbus_strerror(errno));
      return false;
    }
    if (config.url.kind == DeviceUrl::modbus_rtu) {
      // libmodbus knows the standard speeds only and no RS-485 delays.
      std::string why, adjusted;
      const int fd = modbus_get_socket(ctx);
      if (!details::set_speed(fd, config.url.serial.baud, why) ||
          (config.url.rs485 && !details::set_rs485(fd, config.url.rs485_settings, why, adjusted))) {
        set_error(config.url.path + ": " + why);
        modbus_close(ctx);
        return false;
      }
    }
    connected = true;
    return true;
  }

  void disconnect() {
    if (!connected) return;
    if (tcp)
      tcp->Close();
    else
      modbus_close(ctx);
    connected = false;
  }

  // The transport: our own client for Modbus TCP, libmodbus's context for
  // RTU. Both answer as libmodbus does (count, or -1 and errno).
  int write_bit(unsigned int address, int value) {
    return tcp ? tcp->WriteBit(address, value) : modbus_write_bit(ctx, static_cast<int>(address), value);
  }

  int read(Block& b) {
    if (tcp) {
      static constexpr int kFunction[] = {MODBUS_FC_READ_COILS, MODBUS_FC_READ_DISCRETE_INPUTS,
                                          MODBUS_FC_READ_HOLDING_REGISTERS, MODBUS_FC_READ_INPUT_REGISTERS};
      const int function = kFunction[b.table];
      return b.bits.empty() ? tcp->ReadRegisters(function, b.start, b.count, b.regs.data())
                            : tcp->ReadBits(function, b.start, b.count, b.bits.data());
    }
    const int start = static_cast<int>(b.start), count = static_cast<int>(b.count);
    switch (b.table) {
      case DevicePoint::coil: return modbus_read_bits(ctx, start, count, b.bits.data());
      case DevicePoint::discrete: return modbus_read_input_bits(ctx, start, count, b.bits.data());
      case DevicePoint::holding: return modbus_read_registers(ctx, start, count, b.regs.data());
      default: return modbus_read_input_registers(ctx, start, count, b.regs.data());
    }
  }

  // Runs `request` with the configured retries: 1 done, 0 Modbus exception
  // (the device is there), -1 communication failure after all tries.
  template <typename F>
  int with_retries(const char* what, unsigned int address, F request) {
    for (int attempt = 0; attempt <= config.retries; ++attempt) {
      if (!connect()) {
        bump(&Stats::failures);
        continue;
      }
      if (request() >= 0) return 1;
      const int e = errno;
      if (is_exception(e)) {
        bump(&Stats::exceptions);
        set_error(std::string(what) + " " + std::to_string(address) + ": " + modbus_strerror(e));
        return 0;
      }
      bump(&Stats::failures);
      set_error(std::string(what) + " " + std::to_string(address) + ": " + modbus_strerror(e));
      // A late answer must not be taken for the next request's.
      disconnect();
    }
    return -1;
  }

  void bump(uint64_t Stats::*field) {
    std::lock_guard<std::mutex> lock(mutex);
    ++(stats.*field);
  }

  // Writes the output coils whose commanded state changed; false on a
  // communication failure.
  bool write_outputs() {
    for (size_t i = 0; i < config.points.size(); ++i) {
      const DevicePoint& p = config.points[i];
      if (!p.output) continue;
      int want;
      {
        std::lock_guard<std::mutex> lock(io_mutex);
        want = (image[p.io_bit / 8] >> (p.io_bit % 8)) & 1;
      }
      if (written[i] == want) continue;
      const int r = with_retries("write coil", p.address, [&] { return write_bit(p.address, want); });
      if (r < 0) return false;
      written[i] = want;  // an exception is not retried every poll
    }
    return true;
  }

  bool read_blocks() {
    for (Block& b : blocks) {
      const int r = with_retries("read", b.start, [&] { return read(b); });
      if (r < 0) return false;
      b.ok = r == 1;
    }
    return true;
  }

  // Values to the sink and input bits to the image. The sink is called
  // without the image's lock, so the task's transfers never wait for it.
  void deliver(bool fault) {
    const auto now = std::chrono::system_clock::now();
    {
      std::lock_guard<std::mutex> lock(io_mutex);
      for (size_t i = 0; i < config.points.size(); ++i) {
        const DevicePoint& p = config.points[i];
        if (point_block[i] < 0 || p.io_bit < 0 || fault || !blocks[point_block[i]].ok) continue;
        const Block& b = blocks[point_block[i]];
        uint8_t& byte = image[p.io_bit / 8];
        const uint8_t bit = static_cast<uint8_t>(1u << (p.io_bit % 8));
        byte = b.bits[p.address - b.start] ? (byte | bit) : (byte & ~bit);
      }
    }
    for (size_t i = 0; i < config.points.size(); ++i) {
      const DevicePoint& p = config.points[i];
      if (point_block[i] < 0 || p.io_bit >= 0) continue;
      const Block& b = blocks[point_block[i]];
      const bool good = !fault && b.ok;
      if (good) {
        const unsigned int at = p.address - b.start;
        const double raw = b.bits.empty() ? details::decode_raw(p, &b.regs[at]) : b.bits[at];
        values[i] = raw * p.scale + p.offset;
      }
      if (sink)
        sink->Deliver(DeviceValue{config.name, p.name, values[i], p.unit,
                                  good ? Quality::good : Quality::device_fault, now});
    }
  }

  // Writes the safe states once, without retries: used on the way into the
  // fault state and at stop.
  void write_safe_state() {
    set_safe_image();
    if (!connected) return;
    for (const DevicePoint& p : config.points)
      if (p.output && write_bit(p.address, p.safe) < 0 && !is_exception(errno)) {
        disconnect();
        return;
      }
  }

  bool poll() {
    const auto t0 = Clock::now();
    const bool ok = write_outputs() && read_blocks();
    if (!ok) return false;
    deliver(false);
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    std::lock_guard<std::mutex> lock(mutex);
    ++stats.polls;
    latency.add(us);
    return true;
  }

  void change_state(State to, const std::string& reason) {
    {
      std::lock_guard<std::mutex> lock(io_mutex);
      state = to;
    }
    if (to == faulted) bump(&Stats::faults);
    if (sink) sink->StateChanged(config.name, to == faulted, reason);
  }

  void enter_fault() {
    deliver(true);
    write_safe_state();
    disconnect();
    change_state(faulted, LastError());
  }

  // Waits until `until`, a stop or (when `faulted`) a recover request; true
  // while the device should go on. A recover request while running is
  // dropped.
  bool wait(Clock::time_point until, bool faulted) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!faulted) recover_requested = false;
    // A wait whose time has passed still costs a futex call and the timer
    // slack: polling back to back skips it.
    if (until > Clock::now())
      cv.wait_until(lock, until, [&] { return stop_requested || (faulted && recover_requested); });
    return !stop_requested;
  }

  std::string LastError() {
    std::lock_guard<std::mutex> lock(mutex);
    return error;
  }

  void run() {
    const auto period = std::chrono::milliseconds(config.period_ms);
    auto backoff = std::chrono::milliseconds(config.backoff_ms);
    auto next = Clock::now();
    for (;;) {
      State now_state;
      {
        std::lock_guard<std::mutex> lock(io_mutex);
        now_state = state;
      }
      if (now_state == running) {
        if (!poll()) {
          enter_fault();
          backoff = std::chrono::milliseconds(config.backoff_ms);
          next = Clock::now() + backoff;
          continue;
        }
        next += period;
        const auto now = Clock::now();
        if (next < now) next = now;  // overran: no burst of catch-up polls
        if (!wait(next, false)) break;
        continue;
      }
      // Faulted: wait for the back-off (auto) or the operator (command).
      const auto until = config.recovery == DeviceConfig::recover_auto ? next : Clock::now() + std::chrono::hours(24);
      if (!wait(until, true)) break;
      bool asked;
      {
        std::lock_guard<std::mutex> lock(mutex);
        asked = recover_requested;
        recover_requested = false;
      }
      if (config.recovery == DeviceConfig::recover_command && !asked) continue;
      if (config.recovery == DeviceConfig::recover_auto && !asked && Clock::now() < next) continue;
      set_safe_image();
      if (connect() && poll()) {
        change_state(running, "recovered");
        next = Clock::now() + period;
        if (!wait(next, false)) break;
      } else {
        disconnect();
        backoff = std::min(backoff * 2, std::chrono::milliseconds(config.backoff_max_ms));
        next = Clock::now() + backoff;
      }
    }
    write_safe_state();
    disconnect();
  }

  DeviceConfig config;
  ValueSink* sink;
  Handler handler;
  modbus_t* ctx = nullptr;                       // RTU
  std::unique_ptr<details::ModbusTcpClient> tcp;  // TCP
  bool connected = false;
  std::thread thread;

  // Guards stop/recover requests, the error text and the statistics.
  std::mutex mutex;
  std::condition_variable cv;
  bool stop_requested = false, recover_requested = false;
  std::string error;
  Stats stats;
  LatencyHistogram latency;

  // Guards the state and the I/O image.
  std::mutex io_mutex;
  State state = stopped;
  unsigned int io_bytes = 0;
  std::vector<uint8_t> image, output_mask;

  // Polling thread only.
  std::vector<Block> blocks;
  std::vector<int> point_block;
  std::vector<int> written;  // per point: the coil state last written, -1 unknown
  std::vector<double> values;
};

ModbusDevice::ModbusDevice(const DeviceConfig& config, ValueSink* sink) : impl_(new Impl(config, sink)) {}

ModbusDevice::~ModbusDevice() { Stop(); }

bool ModbusDevice::Start() {
  Impl& d = *impl_;
  if (d.thread.joinable()) {
    d.set_error("already running");
    return false;
  }
  const DeviceUrl& u = d.config.url;
  if (u.kind == DeviceUrl::modbus_tcp) {
    if ((d.config.unit < 0 || d.config.unit > 247) && d.config.unit != 255) {
      d.set_error("cannot use unit " + std::to_string(d.config.unit) + " (0-247 or 255)");
      return false;
    }
    d.tcp.reset(new details::ModbusTcpClient(u.host, u.port, d.config.unit, d.config.timeout_ms));
  } else {
    d.ctx = modbus_new_rtu(u.path.c_str(), static_cast<int>(u.serial.baud), u.serial.parity,
                           static_cast<int>(u.serial.data_bits), static_cast<int>(u.serial.stop_bits));
    if (!d.ctx || modbus_set_slave(d.ctx, d.config.unit) != 0) {
      d.set_error(std::string("cannot use ") + u.ToString() + ": " + modbus_strerror(errno));
      if (d.ctx) modbus_free(d.ctx);
      d.ctx = nullptr;
      return false;
    }
    modbus_set_error_recovery(d.ctx, MODBUS_ERROR_RECOVERY_NONE);
    const int ms = d.config.timeout_ms;
    modbus_set_response_timeout(d.ctx, static_cast<uint32_t>(ms / 1000), static_cast<uint32_t>(ms % 1000) * 1000);
  }
  {
    std::lock_guard<std::mutex> lock(d.mutex);
    d.stop_requested = d.recover_requested = false;
  }
  {
    std::lock_guard<std::mutex> lock(d.io_mutex);
    d.state = running;
  }
  d.set_safe_image();
  d.thread = std::thread([&d] { d.run(); });
  return true;
}

void ModbusDevice::Stop() {
  Impl& d = *impl_;
  if (!d.thread.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(d.mutex);
    d.stop_requested = true;
  }
  d.cv.notify_all();
  d.thread.join();
  {
    std::lock_guard<std::mutex> lock(d.io_mutex);
    d.state = stopped;
  }
  if (d.ctx) modbus_free(d.ctx);
  d.ctx = nullptr;
  d.tcp.reset();
}

void ModbusDevice::Recover() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->recover_requested = true;
  }
  impl_->cv.notify_all();
}

ModbusDevice::State ModbusDevice::GetState() const {
  std::lock_guard<std::mutex> lock(impl_->io_mutex);
  return impl_->state;
}

ModbusDevice::Stats ModbusDevice::GetStats() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Stats s = impl_->stats;
  s.p99_ms = impl_->latency.percentile_ms(0.99);
  return s;
}

std::string ModbusDevice::LastError() const { return impl_->LastError(); }
const DeviceConfig& ModbusDevice::Config() const { return impl_->config; }
IOHandler& ModbusDevice::Io() { return impl_->handler; }

}  // namespace zqdevices
