// The Modbus TCP client of the device's polling thread: send, then recv.
#include "devices/modbus_tcp_client.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <utility>

#include "devices/modbus_words.h"

namespace zqdevices {
namespace details {

namespace {

constexpr size_t kHeader = 7;  // MBAP: transaction, protocol, length, unit

int fail(int e) {
  errno = e;
  return -1;
}

}  // namespace

int CheckTcpAnswer(const uint8_t* request, const uint8_t* answer, size_t length, uint8_t* bits,
                   uint16_t* registers) {
  if (length < kHeader + 2 || word(answer) != word(request) || word(answer + 2) != 0 ||
      word(answer + 4) + 6 != length)
    return fail(EMBBADDATA);
  if (answer[6] != request[6]) return fail(EMBBADSLAVE);
  const uint8_t function = request[7];
  const uint8_t* pdu = answer + kHeader;
  if (pdu[0] == (function | 0x80)) {
    if (length != kHeader + 2) return fail(EMBBADDATA);
    return fail(pdu[1] > 0 && pdu[1] < MODBUS_EXCEPTION_MAX ? MODBUS_ENOBASE + pdu[1] : EMBBADEXC);
  }
  if (pdu[0] != function) return fail(EMBBADDATA);
  if (function == MODBUS_FC_WRITE_SINGLE_COIL)
    return length == 12 && std::memcmp(pdu, request + kHeader, 5) == 0 ? 1 : fail(EMBBADDATA);
  const unsigned int count = word(request + 10);
  const bool bit_table = function == MODBUS_FC_READ_COILS || function == MODBUS_FC_READ_DISCRETE_INPUTS;
  const unsigned int bytes = bit_table ? (count + 7) / 8 : 2 * count;
  if (pdu[1] != bytes || length != kHeader + 2 + bytes) return fail(EMBBADDATA);
  const uint8_t* data = pdu + 2;
  for (unsigned int i = 0; i < count; ++i) {
    if (bit_table)
      bits[i] = (data[i / 8] >> (i % 8)) & 1;
    else
      registers[i] = static_cast<uint16_t>(word(data + 2 * i));
  }
  return static_cast<int>(count);
}

ModbusTcpClient::ModbusTcpClient(std::string host, int port, int unit, int timeout_ms)
    : host_(std::move(host)),
      port_(port),
      unit_(unit),
      timeout_ms_(timeout_ms > 0 ? timeout_ms : 1) {}  // a zero socket time-out would wait for ever

ModbusTcpClient::~ModbusTcpClient() { Close(); }

void ModbusTcpClient::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool ModbusTcpClient::Connect(std::string& why) {
  Close();
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int rc = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &list);
  if (rc != 0) {
    why = gai_strerror(rc);
    return false;
  }
  int error = ECONNREFUSED;
  for (const addrinfo* a = list; a && fd_ < 0; a = a->ai_next) {
    const int s = socket(a->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) {
      error = errno;
      continue;
    }
    if (connect(s, a->ai_addr, a->ai_addrlen) != 0) {
      error = errno;
      if (error == EINPROGRESS) {
        pollfd p{s, POLLOUT, 0};
        socklen_t size = sizeof error;
        const int ready = poll(&p, 1, timeout_ms_);
        if (ready == 0) error = ETIMEDOUT;
        else if (ready < 0) error = errno;
        else getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &size);
      }
      if (error != 0) {
        close(s);
        continue;
      }
    }
    // Blocking from here on, each wait bounded by the time-out.
    fcntl(s, F_SETFL, fcntl(s, F_GETFL) & ~O_NONBLOCK);
    const int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const timeval tv{timeout_ms_ / 1000, (timeout_ms_ % 1000) * 1000};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    fd_ = s;
  }
  freeaddrinfo(list);
  if (fd_ < 0) why = std::strerror(error);
  return fd_ >= 0;
}

int ModbusTcpClient::ReadBits(int function, unsigned int start, unsigned int count, uint8_t* bits) {
  if (count == 0 || count > MODBUS_MAX_READ_BITS) return fail(EMBMDATA);
  return transact(static_cast<uint8_t>(function), start, count, bits, nullptr);
}

int ModbusTcpClient::ReadRegisters(int function, unsigned int start, unsigned int count, uint16_t* registers) {
  if (count == 0 || count > MODBUS_MAX_READ_REGISTERS) return fail(EMBMDATA);
  return transact(static_cast<uint8_t>(function), start, count, nullptr, registers);
}

int ModbusTcpClient::WriteBit(unsigned int address, int value) {
  return transact(MODBUS_FC_WRITE_SINGLE_COIL, address, value ? 0xFF00 : 0, nullptr, nullptr);
}

int ModbusTcpClient::transact(uint8_t function, unsigned int a, unsigned int b, uint8_t* bits,
                              uint16_t* registers) {
  if (fd_ < 0) return fail(ENOTCONN);
  ++transaction_;
  const uint8_t request[sizeof request_] = {
      static_cast<uint8_t>(transaction_ >> 8), static_cast<uint8_t>(transaction_), 0, 0, 0, 6,
      static_cast<uint8_t>(unit_),             function,
      static_cast<uint8_t>(a >> 8),            static_cast<uint8_t>(a),
      static_cast<uint8_t>(b >> 8),            static_cast<uint8_t>(b)};
  std::memcpy(request_, request, sizeof request_);
  const ssize_t sent = send(fd_, request_, sizeof request_, MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(sizeof request_))
    return fail(sent >= 0 || errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : errno);
  size_t length = 0;
  if (!receive(length)) return -1;
  return CheckTcpAnswer(request_, answer_, length, bits, registers);
}

// Reads one whole answer, cut by its MBAP length. The first recv waits with
// the socket's time-out; an answer that arrives in pieces is waited for with
// poll for what is left of it, so the whole answer takes at most one time-out.
bool ModbusTcpClient::receive(size_t& length) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
  size_t got = 0;
  bool wait_first = false;
  for (;;) {
    if (wait_first) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{fd_, POLLIN, 0};
      const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
      if (ready == 0) return fail(ETIMEDOUT), false;
      if (ready < 0) {
        if (errno == EINTR) continue;  // wait again for what is left
        return false;
      }
    }
    const ssize_t n = recv(fd_, answer_ + got, sizeof answer_ - got, 0);
    if (n == 0) return fail(ECONNRESET), false;
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return fail(ETIMEDOUT), false;
      if (errno != EINTR) return false;
    } else {
      got += static_cast<size_t>(n);
    }
    if (got >= 6) {
      const size_t need = 6 + word(answer_ + 4);
      if (need < kHeader + 2 || need > sizeof answer_ || got > need) return fail(EMBBADDATA), false;
      if (got == need) {
        length = got;
        return true;
      }
    }
    wait_first = true;
  }
}

}  // namespace details
}  // namespace zqdevices
