// Buffered line connection over a socket or a file descriptor.
#include "zqcommon/connection.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <algorithm>
#include <cerrno>
#include <climits>

#include "net/sigpipe_guard.h"
#include "core/line_scan.h"
#include "zqcommon/bug.h"
#include "zqcommon/functions.h"

namespace {

constexpr char kTerminators[] = "\n\r";
constexpr std::string::size_type kLineLimit = 0x1FFFF;
constexpr std::string::size_type kReadStep = 16384;

// Milliseconds for poll(), rounded up so that a wait below 1 ms does not spin.
int poll_ms(long long microseconds) {
  if (microseconds < 0) return -1;
  return static_cast<int>((microseconds + 1023) >> 10);
}

}  // namespace

Connection::Connection() {
  SetWriteDelay(true);
  SetWriteBuffer(128000);
}

Connection::Connection(const Connection& other)
    : lockable(),
      isconnected(other.isconnected),
      fd(other.fd),
      modify_text(other.modify_text),
      delayon(other.delayon),
      buf(other.buf),
      issocket(other.issocket) {}

Connection::~Connection() { Connection::close(); }

bool Connection::set_descriptor(int* descriptor, bool socket) {
  close();
  fd = descriptor;
  isconnected = fd != nullptr && *fd != -1;
  if (!isconnected) fd = nullptr;
  issocket = socket && isconnected;
  SetBlocking(false);
  return isconnected;
}

bool Connection::SetFd(int* descriptor) { return set_descriptor(descriptor, false); }
bool Connection::SetSocket(int* descriptor) { return set_descriptor(descriptor, true); }

void Connection::SetBlocking(bool on) {
  if (!holds_descriptor()) return;
  int nonblocking = on ? 0 : 1;
  ioctl(*fd, FIONBIO, &nonblocking);
}

void Connection::SetWriteBuffer(unsigned int size) {
  lockable_hold hold(*this);
  if (size == 0) {
    buf.reset();
  } else if (buf == nullptr) {
    buf = std::make_shared<ConnectionBuffer>(static_cast<int>(size));
  } else {
    buf->maxbufsize = static_cast<int>(size);
  }
}

// A complete line still read ahead keeps a connection connected: such lines
// are handed out before a hang-up of the descriptor counts. (A partial line
// alone does not: after a hang-up it can never be completed.)
bool Connection::IsConnected() {
  if (isconnected) {
    const bool line_ready = line_end(rbuf.size()) != std::string::npos;
    isconnected = holds_descriptor() && (line_ready || !IsError());
  }
  return isconnected;
}

// A hang-up counts as an error only once nothing is left to read: a pipe
// reports it as soon as its writer closes, with the last lines still unread.
bool Connection::IsError() {
  if (!holds_descriptor()) return true;
  pollfd p{*fd, POLLIN | POLLERR | POLLHUP, 0};
  if (poll(&p, 1, 0) <= 0) return false;
  if (p.revents & (POLLERR | POLLNVAL)) return true;
  return (p.revents & POLLHUP) != 0 && (p.revents & POLLIN) == 0;
}

bool Connection::IsOutput(int timeout) {
  if (!holds_descriptor()) return false;
  pollfd p{*fd, POLLOUT, 0};
  return poll(&p, 1, poll_ms(timeout)) > 0 && (p.revents & POLLOUT) != 0;
}

bool Connection::IsData(int timeout) { return rbuf.size() > rpos_ || IsData_core(timeout); }

bool Connection::IsData_core(int timeout) {
  if (!holds_descriptor()) return false;
  const long long deadline = GetLLTicks() + timeout;
  pollfd p{*fd, POLLIN | POLLPRI, 0};
  for (bool first = true;; first = false) {
    long long remaining = -1;
    if (timeout >= 0) {
      remaining = deadline - GetLLTicks();
      if (remaining <= 0) {
        if (!first) return false;
        remaining = 0;  // a zero or spent time-out still looks once
      }
    }
    const int rc = poll(&p, 1, poll_ms(remaining));
    if (rc > 0) return IsConnected() && (p.revents & (POLLIN | POLLPRI)) != 0;
    if (rc == 0 || (errno == EINTR && IsConnected())) continue;
    return false;
  }
}

// Receives first and waits only when nothing is there: a busy peer costs one
// recv per batch of lines, no poll. A hard error marks the connection lost.
int Connection::read_core(void* buffer, int len, int timeout) {
  if (!isconnected || !holds_descriptor()) return -1;
  const long long deadline = timeout > 0 ? GetLLTicks() + timeout : 0;
  for (;;) {
    const ssize_t n = issocket ? recv(*fd, buffer, static_cast<size_t>(len), 0)
                               : ::read(*fd, buffer, static_cast<size_t>(len));
    if (n > 0) return static_cast<int>(n);
    if (n == 0) return -1;  // end of stream
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      isconnected = false;
      return -1;
    }
    long long remaining = -1;
    if (timeout >= 0) {
      remaining = deadline - GetLLTicks();
      if (timeout == 0 || remaining <= 0) return -2;
    }
    pollfd p{*fd, POLLIN | POLLPRI, 0};
    const int rc = poll(&p, 1, poll_ms(remaining));
    if (rc == 0) return -2;
    if (rc < 0 && errno != EINTR) return -1;
  }
}

int Connection::write_core(const void* buffer, int len, int) {
  if (!holds_descriptor()) return -1;
  if (issocket) return static_cast<int>(send(*fd, buffer, static_cast<size_t>(len), MSG_NOSIGNAL));
  const zqdetail::SigpipeGuard no_sigpipe;  // a pipe whose reader has gone
  return static_cast<int>(::write(*fd, buffer, static_cast<size_t>(len)));
}

void Connection::take_line(std::string& s, std::string::size_type p) {
  s.append(rbuf, rpos_, p - rpos_);
  const auto next = rbuf.find_first_not_of(kTerminators, p);
  // A run of terminators that reaches the end of what has arrived may go on
  // in the next read ("\r" now, "\n" later): remember to swallow the rest.
  in_terminators_ = next == std::string::npos;
  rpos_ = in_terminators_ ? rbuf.size() : next;
  scanned_ = 0;
  consumed();
}

std::string::size_type Connection::line_end(std::string::size_type end) {
  const char* base = rbuf.data();
  const char* from = base + rpos_ + scanned_;
  if (from >= base + end) return std::string::npos;
  const char* hit = zqdetail::find_line_end(from, base + end);
  scanned_ = static_cast<std::string::size_type>(hit - base) - rpos_;
  return hit == base + end ? std::string::npos : static_cast<std::string::size_type>(hit - base);
}

void Connection::skip_terminators(std::string::size_type end) {
  if (!in_terminators_) return;
  while (rpos_ < end && (rbuf[rpos_] == '\n' || rbuf[rpos_] == '\r')) ++rpos_;
  if (rpos_ < end) in_terminators_ = false;
}

// Handed-out bytes stay in front of rpos_ until all are handed out: the
// buffer holds at most one receive beyond a partial line (getline moves that
// line to the front before it receives again), so nothing is moved per line.
void Connection::consumed() {
  if (rpos_ == rbuf.size()) {
    rbuf.clear();
    rpos_ = 0;
    scanned_ = 0;
  }
}

int Connection::getline(std::string& s, int timeout) { return getline(s, timeout, false); }

int Connection::getline(std::string& s, int timeout, bool lost_is_empty) {
  skip_terminators(rbuf.size());
  auto p = line_end(rbuf.size());
  if (p != std::string::npos) {
    const auto length = p - rpos_;
    take_line(s, p);
    return static_cast<int>(length);
  }
  // Only a partial line is left: move it to the front before reading more.
  if (rpos_ != 0) {
    rbuf.erase(0, rpos_);
    rpos_ = 0;
  }
  const long long deadline = timeout >= 0 ? GetLLTicks() + timeout : 0;
  int result = 0;
  char chunk[kReadStep];  // rbuf holds only bytes received, so its scan stays valid
  for (bool first = true;; first = false) {
    if (rbuf.size() - rpos_ > kLineLimit) {
      result = -3;
      break;
    }
    long long remaining = -1;
    if (timeout >= 0) remaining = first ? timeout : std::max(0LL, deadline - GetLLTicks());
    const int r = read_core(chunk, static_cast<int>(sizeof chunk), static_cast<int>(remaining));
    if (r < 0) {
      // The stream ended on the first read: as when it had ended before the
      // call, the line is empty and the connection only marked as lost.
      if (r == -1 && first && lost_is_empty && !IsConnected()) {
        ZQ_DEBUG(1, "WARNING: Could not read from input stream!\n");
        return 0;
      }
      result = r;
      break;
    }
    rbuf.append(chunk, static_cast<std::string::size_type>(r));
    skip_terminators(rbuf.size());
    if (r > 0 && line_end(rbuf.size()) != std::string::npos) break;
    if (timeout >= 0 && GetLLTicks() > deadline) break;
  }
  if (result == -3 || result == -2) {
    consumed();
    return result;
  }
  if (result < 0) {
    ZQ_DEBUG(1, "WARNING: Connection::getline() connection unclear, considering lost (read return was %i)\n",
             result);
    close();
    return -1;
  }
  p = line_end(rbuf.size());
  if (p == std::string::npos) {
    consumed();
    return 0;
  }
  const auto length = p - rpos_;
  take_line(s, p);
  return static_cast<int>(length);
}

void Connection::modify(std::string& s) {
  const auto hash = s.find('#');
  if (hash != std::string::npos) s.erase(hash);
  std::string::size_type i = s.find('\b');
  if (i == std::string::npos) return;
  while (i < s.size()) {
    if (s[i] != '\b') {
      ++i;
    } else if (i == 0) {
      s.erase(0, 1);
    } else {
      s.erase(i - 1, 2);
      --i;
    }
  }
}

int Connection::readln(std::string& s, bool append, int timeout) {
  if (!append) s.clear();
  // A complete line already read ahead is handed out without asking the
  // descriptor (which also keeps it readable after the peer hung up). Else
  // the receive itself tells whether the peer is still there.
  const bool line_ready = line_end(rbuf.size()) != std::string::npos;
  if (!line_ready && !(isconnected && holds_descriptor()) && !IsConnected()) {
    ZQ_DEBUG(1, "WARNING: Could not read from input stream!\n");
    return 0;
  }
  const int r = getline(s, timeout, !line_ready);
  if (modify_text && r >= 1) modify(s);
  return r;
}

int Connection::read(std::string& s, int n, bool append, int timeout) {
  if (fd == nullptr) return -1;
  if (!append) s.clear();
  const std::string::size_type start = s.size();
  const auto want = static_cast<std::string::size_type>(n > 0 ? n : 0);
  const auto from_buffer = std::min(want, rbuf.size() - rpos_);
  s.append(rbuf, rpos_, from_buffer);
  rpos_ += from_buffer;
  scanned_ = 0;
  consumed();
  if (from_buffer == want) return static_cast<int>(from_buffer);
  if (!IsConnected()) {
    ZQ_DEBUG(1, "WARNING: Could not read from input stream: not connected!\n");
    return 0;
  }
  std::string::size_type filled = s.size();
  s.resize(start + want);
  while (filled < s.size() && IsConnected()) {
    if (!IsData_core(timeout)) break;
    const ssize_t r = issocket ? recv(*fd, &s[filled], s.size() - filled, 0)
                               : ::read(*fd, &s[filled], s.size() - filled);
    if (r < 0) break;
    if (r == 0) {  // end of stream
      close();
      break;
    }
    filled += static_cast<std::string::size_type>(r);
  }
  s.resize(filled);
  return static_cast<int>(s.size());
}

int Connection::read_available(std::string& s, size_t max, int timeout_ms) {
  const auto buffered = std::min<std::string::size_type>(max, rbuf.size() - rpos_);
  s.assign(rbuf, rpos_, buffered);
  rpos_ += buffered;
  scanned_ = 0;
  consumed();
  if (!isconnected || !holds_descriptor()) return s.empty() ? -1 : static_cast<int>(s.size());
  const long long deadline = GetLLTicks() + std::max(timeout_ms, 0) * 1000LL;
  char chunk[kReadStep];
  while (s.size() < max) {
    // Only the first byte is waited for; what follows is taken as it is there.
    const long long wait = s.empty() ? std::max(0LL, deadline - GetLLTicks()) : 0;
    const int r = read_core(chunk, static_cast<int>(std::min(sizeof chunk, max - s.size())),
                            static_cast<int>(std::min<long long>(wait, INT_MAX)));
    if (r > 0) {
      s.append(chunk, static_cast<std::string::size_type>(r));
      continue;
    }
    if (r == -1) {  // ended or failed: what came before it first
      if (!s.empty()) break;
      close();
      return -1;
    }
    // -2: nothing in time; 0: part of a TLS record, the rest may follow.
    if (!s.empty() || GetLLTicks() >= deadline) break;
  }
  return static_cast<int>(s.size());
}

// The state flags only: a peer that has gone shows when the send fails, which
// closes the connection with the same result (-1), so no poll per write.
bool Connection::writable() {
  if (isconnected && holds_descriptor()) return true;
  isconnected = false;
  ZQ_DEBUG(1, "WARNING: Connection::write_raw() disconnected, cannot write!\n");
  return false;
}

bool Connection::buffer_bytes(const void* data, int len) {
  if (static_cast<long long>(buf->length()) + len >= buf->maxbufsize) {
    ZQ_DEBUG(1, "WARNING: Connection::write_raw() buffer overflow [buf = %i, len = %i], closing.\n",
             static_cast<int>(buf->length()), len);
    close_core(false);
    return false;
  }
  buf->buf.append(static_cast<const char*>(data), static_cast<size_t>(len));
  return true;
}

int Connection::drain(bool flushing, int len, int timeout) {
  for (int round = 0; round < 3; ++round) {
    const int pending = static_cast<int>(buf->length());
    const int r = pending != 0 ? write_core(buf->c_str(), pending, timeout) : 0;
    if (r == pending) {
      buf->clear();
      break;
    }
    if (pending > 0 && r >= 0) {
      buf->rp += static_cast<unsigned int>(r);
      buf->move_if_needed(false);
      if (!flushing) break;  // the rest stays buffered for later
      usleep(1000);
      continue;
    }
    if (r == -1) {
      ZQ_DEBUG(1, "WARNING: Connection::write_raw() connection lost [buf = %i, len = %i], closing.\n",
               pending, len);
      close_core(false);
      return -1;
    }
    if (r == -2) {
      ZQ_DEBUG(1, "WARNING: Connection::write_raw() connection write timeout [buf = %i, len = %i], closing.\n",
               pending, len);
      close_core(false);
      return -2;
    }
    usleep(1000);
  }
  if (!flushing) return len;
  if (buf->length() == 0) return 0;
  ZQ_DEBUG(1, "WARNING: Connection::write_raw() connection flush failed [buf = %i, len = %i], closing.\n",
           static_cast<int>(buf->length()), len);
  close_core(false);
  return -4;
}

int Connection::write_raw(const void* data, int len, int timeout) {
  assert(delayon && buf != nullptr);
  if (!delayon || buf == nullptr) return -1;
  if (!writable()) return -1;
  if (len > 0 && !buffer_bytes(data, len)) return -3;
  return drain(len <= 0, len, timeout);
}

int Connection::writeln(const std::string& s, bool crlf, int timeout) {
  const bool ends_crlf = s.size() >= 2 && s.compare(s.size() - 2, 2, "\r\n") == 0;
  if (s.empty() || !crlf || ends_crlf) {
    const int r = write_raw(s.data(), static_cast<int>(s.size()), timeout);
    if (crlf && s.empty()) write_raw("\r\n", 2, timeout);
    return r;
  }
  // The text and its line end are buffered one after the other (each with its
  // own overflow check) and sent with one attempt.
  if (!delayon || buf == nullptr) return -1;
  if (!writable()) return -1;
  const int len = static_cast<int>(s.size());
  if (!buffer_bytes(s.data(), len)) return -3;
  if (!buffer_bytes("\r\n", 2)) return len;
  return drain(false, len, timeout);
}

void Connection::close() {
  if (IsConnected()) flush(0);
  close_core(true);
}

void Connection::close_core(bool lock) {
  if (lock) this->lock();
  if (buf != nullptr) buf->clear();
  rbuf.clear();
  rpos_ = 0;
  scanned_ = 0;
  in_terminators_ = false;
  isconnected = false;
  SetBlocking(false);
  if (fd != nullptr) {
    if (issocket && *fd != -1) shutdown(*fd, SHUT_RDWR);
    if (*fd != -1) {
      ::close(*fd);
      *fd = -1;
    }
  }
  issocket = false;
  fd = nullptr;
  if (lock) this->unlock();
}
