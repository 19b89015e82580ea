// The Modbus TCP server: the listening thread, the map and its checks.
#include "zqdevices/ModbusServer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/lib_config.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "devices/modbus_server_core.h"
#include "devices/modbus_words.h"

namespace zqdevices {
namespace details {
namespace {

// Whether a request's PDU (function code first) is as long as its function
// says; a frame that is not would have libmodbus read past it or answer
// from bytes that are not there. Functions not listed are answered with an
// exception whatever follows them.
bool consistent(const uint8_t* q, int n) {
  switch (q[0]) {
    case MODBUS_FC_READ_COILS:
    case MODBUS_FC_READ_DISCRETE_INPUTS:
    case MODBUS_FC_READ_HOLDING_REGISTERS:
    case MODBUS_FC_READ_INPUT_REGISTERS:
    case MODBUS_FC_WRITE_SINGLE_COIL:
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
      return n == 5;
    case MODBUS_FC_WRITE_MULTIPLE_COILS:
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
      return n >= 6 && n == 6 + q[5];
    case MODBUS_FC_MASK_WRITE_REGISTER:
      return n == 7;
    case MODBUS_FC_WRITE_AND_READ_REGISTERS:
      return n >= 10 && n == 10 + q[9];
    default:
      return true;
  }
}


}  // namespace

ServerCore::ServerCore(unsigned int image_bytes, size_t values, std::vector<bool> writable)
    : map_(modbus_mapping_new_start_address(0, image_bytes * 8, 0, static_cast<unsigned int>(image_bytes * 8 + values),
                                            0, 0, 0, static_cast<unsigned int>(values * 2))),
      image_bits_(image_bytes * 8),
      writable_(std::move(writable)),
      staged_inputs_(image_bits_),
      staged_outputs_(image_bits_),
      staged_good_(values),
      staged_registers_(values * 2) {
  writable_.resize(image_bits_, false);
}

ServerCore::~ServerCore() { modbus_mapping_free(map_); }

bool ServerCore::Serve(modbus_t* ctx, Connection& c) {
  const ssize_t got = recv(c.fd, c.buffer + c.filled, sizeof c.buffer - c.filled, MSG_DONTWAIT);
  if (got == 0 || !map_) return false;
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  c.filled += static_cast<size_t>(got);
  if (staged_.load(std::memory_order_acquire)) take_published();
  modbus_set_socket(ctx, c.fd);
  // MBAP header: transaction, protocol, length (of what follows: the unit
  // id and the PDU), unit id. The buffer holds two frames of the largest
  // size, so the rest of an incomplete one always fits.
  size_t at = 0;
  while (c.filled - at >= 7) {
    const uint8_t* frame = c.buffer + at;
    const unsigned int rest = word(frame + 4);
    if (rest < 2 || rest > MODBUS_TCP_MAX_ADU_LENGTH - 6) return false;
    if (c.filled - at < 6 + rest) break;
    if (!answer(ctx, c, frame, static_cast<int>(6 + rest))) return false;
    at += 6 + rest;
  }
  std::memmove(c.buffer, c.buffer + at, c.filled - at);
  c.filled -= at;
  return true;
}

bool ServerCore::refuse(modbus_t* ctx, const uint8_t* frame, unsigned int code) {
  exceptions_.fetch_add(1, std::memory_order_relaxed);
  return modbus_reply_exception(ctx, frame, code) >= 0;
}

bool ServerCore::answer(modbus_t* ctx, const Connection& c, const uint8_t* frame, int length) {
  const uint8_t* q = frame + 7;  // the PDU
  const int n = length - 7;
  if (!consistent(q, n)) return false;
  requests_.fetch_add(1, std::memory_order_relaxed);
  const int function = q[0];
  switch (function) {
    case MODBUS_FC_WRITE_SINGLE_COIL:
    case MODBUS_FC_WRITE_MULTIPLE_COILS: {
      const unsigned int address = word(q + 1);
      const unsigned int k = function == MODBUS_FC_WRITE_SINGLE_COIL ? 1 : word(q + 3);
      unsigned int code = 0;
      if (!c.may_write) {
        code = MODBUS_EXCEPTION_ILLEGAL_FUNCTION;
      } else if (k == 0 || k > MODBUS_MAX_WRITE_BITS || address + k > image_bits_) {
        code = MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS;
      } else if (function == MODBUS_FC_WRITE_SINGLE_COIL ? word(q + 3) != 0xFF00 && word(q + 3) != 0
                                                         : q[5] * 8u < k) {
        code = MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE;
      } else {
        for (unsigned int b = address; b < address + k && code == 0; ++b)
          if (!writable_[b]) code = MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS;
      }
      record(c, q, n, code);
      if (code != 0) return refuse(ctx, frame, code);
      // Queued before the answer goes out, so that a client holding its
      // answer finds the write in the owner's next TakeWrites.
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (unsigned int b = address; b < address + k; ++b) {
          const unsigned int i = b - address;
          const bool on =
              function == MODBUS_FC_WRITE_SINGLE_COIL ? word(q + 3) == 0xFF00 : ((q[6 + i / 8] >> (i % 8)) & 1) != 0;
          if (on != (map_->tab_bits[b] != 0) || function == MODBUS_FC_WRITE_SINGLE_COIL) {
            writes_.Push({b, on});
            writes_applied_.fetch_add(1, std::memory_order_relaxed);
          }
        }
      }
      return modbus_reply(ctx, frame, length, map_) >= 0;
    }
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
    case MODBUS_FC_MASK_WRITE_REGISTER:
    case MODBUS_FC_WRITE_AND_READ_REGISTERS: {
      // No register is writable.
      const unsigned int code =
          c.may_write ? MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS : MODBUS_EXCEPTION_ILLEGAL_FUNCTION;
      record(c, q, n, code);
      return refuse(ctx, frame, code);
    }
    case MODBUS_FC_READ_COILS:
    case MODBUS_FC_READ_DISCRETE_INPUTS:
    case MODBUS_FC_READ_HOLDING_REGISTERS:
    case MODBUS_FC_READ_INPUT_REGISTERS: {
      // Quantities checked here: libmodbus answers an illegal one only after
      // sleeping its response time-out, which would let any client stall
      // every other for half a second a request.
      const unsigned int count = word(q + 3);
      const bool bits = function == MODBUS_FC_READ_COILS || function == MODBUS_FC_READ_DISCRETE_INPUTS;
      if (count == 0 || count > (bits ? MODBUS_MAX_READ_BITS : MODBUS_MAX_READ_REGISTERS))
        return refuse(ctx, frame, MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE);
      return modbus_reply(ctx, frame, length, map_) >= 0;
    }
    default:
      return refuse(ctx, frame, MODBUS_EXCEPTION_ILLEGAL_FUNCTION);
  }
}

void ServerCore::record(const Connection& c, const uint8_t* q, int n, unsigned int result) {
  ModbusServer::WriteRecord r;
  std::memcpy(r.client, c.address, sizeof r.client);
  r.function = q[0];
  r.address = static_cast<uint16_t>(word(q + 1));
  r.count = 1;
  r.value = static_cast<uint16_t>(word(q + 3));
  r.result = static_cast<uint8_t>(result);
  if (q[0] == MODBUS_FC_WRITE_MULTIPLE_COILS) {
    r.count = static_cast<uint16_t>(word(q + 3));
    r.value = static_cast<uint16_t>(n > 6 ? q[6] | (n > 7 ? q[7] << 8 : 0) : 0);
  } else if (q[0] == MODBUS_FC_WRITE_MULTIPLE_REGISTERS) {
    r.count = static_cast<uint16_t>(word(q + 3));
    r.value = static_cast<uint16_t>(n > 7 ? word(q + 6) : 0);
  } else if (q[0] == MODBUS_FC_WRITE_AND_READ_REGISTERS) {
    r.address = static_cast<uint16_t>(word(q + 5));
    r.count = static_cast<uint16_t>(word(q + 7));
    r.value = static_cast<uint16_t>(n > 11 ? word(q + 10) : 0);
  }
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  // A token bucket: kRecordsPerSecond on average, kRecordBurst at once.
  tokens_ = std::min<double>(ModbusServer::kRecordBurst,
                             tokens_ + std::chrono::duration<double>(now - refilled_).count() *
                                           ModbusServer::kRecordsPerSecond);
  refilled_ = now;
  if (tokens_ < 1) {
    ++unrecorded_;
    return;
  }
  tokens_ -= 1;
  if (!records_.Push(r)) ++unrecorded_;
}

void ServerCore::take_published() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (image_staged_) {
    std::copy(staged_inputs_.begin(), staged_inputs_.end(), map_->tab_input_bits);
    std::copy(staged_outputs_.begin(), staged_outputs_.end(), map_->tab_bits);
  }
  if (values_staged_) {
    std::copy(staged_good_.begin(), staged_good_.end(), map_->tab_input_bits + image_bits_);
    std::copy(staged_registers_.begin(), staged_registers_.end(), map_->tab_input_registers);
  }
  image_staged_ = values_staged_ = false;
  staged_.store(false, std::memory_order_relaxed);
}

bool ServerCore::PublishImage(const uint8_t* inputs, const uint8_t* outputs) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return false;
  for (unsigned int b = 0; b < image_bits_; ++b) {
    staged_inputs_[b] = (inputs[b / 8] >> (b % 8)) & 1;
    staged_outputs_[b] = (outputs[b / 8] >> (b % 8)) & 1;
  }
  image_staged_ = true;
  staged_.store(true, std::memory_order_release);
  return true;
}

void ServerCore::PublishValue(size_t index, double value, bool good) {
  DevicePoint as_float;
  as_float.type = DevicePoint::f32;
  std::lock_guard<std::mutex> lock(mutex_);
  encode_raw(as_float, value, staged_registers_.data() + 2 * index);
  staged_good_[index] = good;
  values_staged_ = true;
  staged_.store(true, std::memory_order_release);
}

unsigned int ServerCore::TakeWrites(const std::function<void(unsigned int, bool)>& apply) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return 0;
  return writes_.Drain([&](const std::pair<unsigned int, bool>& w) { apply(w.first, w.second); });
}

unsigned int ServerCore::TakeWriteRecords(const std::function<void(const ModbusServer::WriteRecord&)>& record,
                                          uint64_t& unrecorded) {
  // Handed outside the lock: `record` may write a log line.
  ModbusServer::WriteRecord taken[decltype(records_)::kSize];
  unsigned int n = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    unrecorded += unrecorded_;
    unrecorded_ = 0;
    records_.Drain([&](const ModbusServer::WriteRecord& r) { taken[n++] = r; });
  }
  for (unsigned int k = 0; k < n; ++k) record(taken[k]);
  return n;
}

ModbusServer::Stats ServerCore::GetStats() {
  ModbusServer::Stats s;
  s.requests = requests_.load(std::memory_order_relaxed);
  s.exceptions = exceptions_.load(std::memory_order_relaxed);
  s.refused_connections = refused_.load(std::memory_order_relaxed);
  s.writes = writes_applied_.load(std::memory_order_relaxed);
  return s;
}

}  // namespace details

namespace {

bool parse_int(const std::string& text, long low, long high, long& out) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  out = std::strtol(text.c_str(), nullptr, 10);
  return out >= low && out <= high;
}

// "host:port" or "[v6]:port".
bool split_listen(const std::string& text, std::string& host, std::string& port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  host = text.substr(0, colon);
  port = text.substr(colon + 1);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  long n = 0;
  return parse_int(port, 0, 65535, n);
}

}  // namespace

bool ModbusServerConfig::Load(Config_File& cfg, const std::vector<DeviceConfig>& devices, unsigned int image_bytes,
                              ModbusServerConfig& out, std::string& error) {
  ModbusServerConfig c;
  c.image_bytes = image_bytes;
  c.writable.assign(image_bytes * 8, false);
  for (const DeviceConfig& d : devices)
    for (const DevicePoint& p : d.points)
      if (p.io_bit < 0) {
        c.values.emplace_back(d.name, p.name);
        c.units.push_back(p.unit);
      }
  if (cfg.has_section("ModbusServer")) {
    for (LINE* line : cfg.get_section("ModbusServer")) {
      const std::string key = line->Name(), value = line->Value();
      const std::string at = cfg.getfilename() + ":" + std::to_string(line->Line()) + ": ModbusServer." + key + " = '" +
                             value + "': ";
      std::string host, port;
      long n = 0;
      if (key == "Listen") {
        if (!value.empty() && !split_listen(value, host, port)) {
          error = at + "not HOST:PORT (port 0..65535)";
          return false;
        }
        c.listen = value;
      } else if (key == "MaxConnections") {
        if (!parse_int(value, 1, 64, n)) {
          error = at + "not 1..64";
          return false;
        }
        c.max_connections = static_cast<int>(n);
      } else if (key == "WritableCoils") {
        std::istringstream in(value);
        std::string range;
        while (std::getline(in, range, ',')) {
          const size_t dash = range.find('-');
          long first = 0, last = 0;
          if (!parse_int(range.substr(0, dash), 0, 65535, first) ||
              !parse_int(dash == std::string::npos ? range.substr(0, dash) : range.substr(dash + 1), first, 65535, last) ||
              last >= static_cast<long>(image_bytes * 8)) {
            error = at + "'" + range + "' is not a coil or range of coils 0.." + std::to_string(image_bytes * 8 - 1);
            return false;
          }
          for (long b = first; b <= last; ++b) c.writable[b] = true;
        }
      } else if (key == "WriteFrom") {
        c.write_from = value;
      } else {
        error = at + "unknown setting (Listen, MaxConnections, WritableCoils, WriteFrom)";
        return false;
      }
    }
  }
  out = std::move(c);
  return true;
}

struct ModbusServer::Impl {
  explicit Impl(const ModbusServerConfig& c) : config(c), core(c.image_bytes, c.values.size(), c.writable) {
    for (size_t k = 0; k < c.values.size(); ++k) index[c.values[k].first][c.values[k].second] = k;
  }

  void set_error(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    error = text;
  }

  bool listen_on() {
    std::string host, port;
    if (!split_listen(config.listen, host, port)) {
      set_error("ModbusServer.Listen '" + config.listen + "' is not HOST:PORT");
      return false;
    }
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    if (const int r = getaddrinfo(host.c_str(), port.c_str(), &hints, &found)) {
      set_error("ModbusServer.Listen '" + config.listen + "': " + gai_strerror(r));
      return false;
    }
    listen_fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int one = 1;
    setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const bool ok = listen_fd >= 0 && bind(listen_fd, found->ai_addr, found->ai_addrlen) == 0 && listen(listen_fd, 16) == 0;
    freeaddrinfo(found);
    if (!ok) {
      set_error("ModbusServer.Listen '" + config.listen + "': " + std::strerror(errno));
      if (listen_fd >= 0) close(listen_fd);
      listen_fd = -1;
      return false;
    }
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    getsockname(listen_fd, reinterpret_cast<sockaddr*>(&a), &len);
    port_bound = ntohs(a.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&a)->sin6_port
                                               : reinterpret_cast<sockaddr_in*>(&a)->sin_port);
    return true;
  }

  static std::string peer_address(const sockaddr_storage& a) {
    char text[INET6_ADDRSTRLEN] = "";
    if (a.ss_family == AF_INET)
      inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&a)->sin_addr, text, sizeof text);
    else if (a.ss_family == AF_INET6)
      inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&a)->sin6_addr, text, sizeof text);
    return text;
  }

  void accept_one() {
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    const int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&a), &len, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    const std::string who = peer_address(a);
    if (static_cast<int>(clients.size()) >= config.max_connections || (accept_check && !accept_check(who))) {
      core.CountRefused();
      close(fd);
      return;
    }
    // Answers leave at once, also to a client that sends several requests
    // before it reads.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    clients.emplace_back();
    details::Connection& c = clients.back();
    c.fd = fd;
    c.may_write = write_check && write_check(who);
    std::snprintf(c.address, sizeof c.address, "%s", who.c_str());
  }

  void run() {
    std::vector<pollfd> fds;
    for (;;) {
      fds.clear();
      fds.push_back(pollfd{stop_fd, POLLIN, 0});
      fds.push_back(pollfd{listen_fd, POLLIN, 0});
      for (const details::Connection& c : clients) fds.push_back(pollfd{c.fd, POLLIN, 0});
      if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
      if (fds[0].revents) break;
      // Clients first (their indexes match fds), then new ones.
      for (size_t k = clients.size(); k-- > 0;) {
        if (!fds[k + 2].revents) continue;
        if (!core.Serve(ctx, clients[k])) {
          close(clients[k].fd);
          clients.erase(clients.begin() + static_cast<long>(k));
        }
      }
      if (fds[1].revents & POLLIN) accept_one();
    }
    for (const details::Connection& c : clients) close(c.fd);
    clients.clear();
  }

  ModbusServerConfig config;
  details::ServerCore core;
  std::map<std::string, std::map<std::string, size_t, std::less<>>, std::less<>> index;
  PeerCheck accept_check, write_check;
  modbus_t* ctx = nullptr;
  int listen_fd = -1, stop_fd = -1, port_bound = 0;
  std::vector<details::Connection> clients;
  std::thread thread;
  mutable std::mutex mutex;
  std::string error;
};

ModbusServer::ModbusServer(const ModbusServerConfig& config) : impl_(new Impl(config)) {}
ModbusServer::~ModbusServer() { Stop(); }

void ModbusServer::SetAcceptCheck(PeerCheck check) { impl_->accept_check = std::move(check); }
void ModbusServer::SetWriteCheck(PeerCheck check) { impl_->write_check = std::move(check); }

bool ModbusServer::Start() {
  Impl& d = *impl_;
  if (d.thread.joinable()) return d.set_error("already serving"), false;
  if (!d.listen_on()) return false;
  d.ctx = modbus_new_tcp("127.0.0.1", d.port_bound);  // framing only: the sockets are ours
  d.stop_fd = eventfd(0, EFD_CLOEXEC);
  if (!d.ctx || d.stop_fd < 0) {
    d.set_error(std::string("cannot set up the server: ") + std::strerror(errno));
    Stop();
    return false;
  }
  d.clients.reserve(static_cast<size_t>(d.config.max_connections));
  d.thread = std::thread([&d] { d.run(); });
  return true;
}

void ModbusServer::Stop() {
  Impl& d = *impl_;
  if (d.thread.joinable()) {
    const uint64_t one = 1;
    if (write(d.stop_fd, &one, sizeof one) < 0) {
      // eventfd writes only fail on overflow: the thread is woken anyway.
    }
    d.thread.join();
  }
  if (d.ctx) modbus_free(d.ctx);
  d.ctx = nullptr;
  if (d.listen_fd >= 0) close(d.listen_fd);
  if (d.stop_fd >= 0) close(d.stop_fd);
  d.listen_fd = d.stop_fd = -1;
}

int ModbusServer::Port() const { return impl_->port_bound; }

std::string ModbusServer::LastError() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->error;
}

bool ModbusServer::PublishImage(const uint8_t* inputs, const uint8_t* outputs) {
  return impl_->core.PublishImage(inputs, outputs);
}

void ModbusServer::Deliver(const DeviceValue& v) {
  const auto device = impl_->index.find(v.device);
  if (device == impl_->index.end()) return;
  const auto point = device->second.find(v.name);
  if (point == device->second.end()) return;
  impl_->core.PublishValue(point->second, v.value, v.quality == Quality::good);
}

unsigned int ModbusServer::TakeWrites(const std::function<void(unsigned int, bool)>& apply) {
  return impl_->core.TakeWrites(apply);
}

unsigned int ModbusServer::TakeWriteRecords(const std::function<void(const WriteRecord&)>& record,
                                            uint64_t& unrecorded) {
  return impl_->core.TakeWriteRecords(record, unrecorded);
}

ModbusServer::Stats ModbusServer::GetStats() const { return impl_->core.GetStats(); }

std::string ModbusServer::MapText() const {
  const ModbusServerConfig& c = impl_->config;
  std::ostringstream out;
  const unsigned int bits = c.image_bytes * 8;
  out << "# Modbus TCP map of " << (c.listen.empty() ? std::string("(server off)") : c.listen)
      << ", any unit id; addresses from 0\n"
      << "# table    address  type  access     meaning\n";
  for (unsigned int b = 0; b < bits; ++b)
    out << "coil       " << b << "\tbit   " << (c.writable[b] ? "writable " : "read-only") << "  output image bit "
        << b << "\n";
  for (unsigned int b = 0; b < bits; ++b)
    out << "discrete   " << b << "\tbit   read-only  input image bit " << b << "\n";
  for (size_t k = 0; k < c.values.size(); ++k)
    out << "input      " << 2 * k << "-" << 2 * k + 1 << "\tf32   read-only  " << c.values[k].first << "."
        << c.values[k].second << (c.units[k].empty() ? "" : " [" + c.units[k] + "]") << " (abcd)\n";
  for (size_t k = 0; k < c.values.size(); ++k)
    out << "discrete   " << bits + k << "\tbit   read-only  " << c.values[k].first << "." << c.values[k].second
        << " good\n";
  return out.str();
}

}  // namespace zqdevices
