// Serial lines by path. The kernel's termios2 interface is used directly (not
// <termios.h>), so that any speed can be asked for and read back.
#include "zqdevices/SerialLine.h"

#include "devices/serial_ioctl.h"

#include <asm/termbits.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace zqdevices {
namespace {

static_assert(sizeof(termios2) <= 64, "saved settings buffer");

struct Speed {
  unsigned int baud;
  tcflag_t code;
};
const Speed kSpeeds[] = {
    {50, B50},         {75, B75},         {110, B110},         {134, B134},         {150, B150},
    {200, B200},       {300, B300},       {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},     {4800, B4800},     {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},   {115200, B115200}, {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000}, {921600, B921600}, {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000},
    {4000000, B4000000}};

tcflag_t speed_code(unsigned int baud) {
  for (const Speed& s : kSpeeds)
    if (s.baud == baud) return s.code;
  return BOTHER;
}

long long now_ms() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

// Waits for `events` on `fd` until `deadline` (monotonic ms): 1 ready, 0 at
// the deadline, -1 on error.
int wait_for(int fd, short events, long long deadline) {
  for (;;) {
    const long long left = deadline - now_ms();
    pollfd p{fd, events, 0};
    const int r = poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return r;
    if (p.revents & (POLLERR | POLLNVAL)) return -1;
    if ((p.revents & POLLHUP) && !(p.revents & events)) return -1;
    return 1;
  }
}

unsigned int data_bits_of(tcflag_t cflag) {
  switch (cflag & CSIZE) {
    case CS5: return 5;
    case CS6: return 6;
    case CS7: return 7;
    default: return 8;
  }
}

char parity_of(tcflag_t cflag) {
  if (!(cflag & PARENB)) return 'N';
  if (cflag & CMSPAR) return (cflag & PARODD) ? 'M' : 'S';
  return (cflag & PARODD) ? 'O' : 'E';
}

}  // namespace

namespace details {

bool set_rs485(int fd, const Rs485Settings& r, std::string& error, std::string& adjusted) {
  serial_rs485 conf{};
  conf.flags = SER_RS485_ENABLED;
  if (r.rts_on_send) conf.flags |= SER_RS485_RTS_ON_SEND;
  if (r.rts_after_send) conf.flags |= SER_RS485_RTS_AFTER_SEND;
  if (r.rx_during_tx) conf.flags |= SER_RS485_RX_DURING_TX;
  conf.delay_rts_before_send = r.delay_before_ms;
  conf.delay_rts_after_send = r.delay_after_ms;
  if (ioctl(fd, TIOCSRS485, &conf) != 0) {
    const int e = errno;
    if (e == ENOTTY || e == EINVAL || e == EOPNOTSUPP)
      error = std::string("the driver has no RS-485 mode (TIOCSRS485: ") + std::strerror(e) +
              "); use an adapter with automatic direction control or one whose driver supports it";
    else
      error = std::string("RS-485 mode refused: ") + std::strerror(e);
    return false;
  }
  // Drivers clamp delays and drop flags they cannot do: report what they kept.
  serial_rs485 got{};
  if (ioctl(fd, TIOCGRS485, &got) == 0 &&
      (got.delay_rts_before_send != conf.delay_rts_before_send ||
       got.delay_rts_after_send != conf.delay_rts_after_send || got.flags != conf.flags)) {
    if (!adjusted.empty()) adjusted += ", ";
    adjusted += "RS-485 flags " + std::to_string(conf.flags) + " -> " + std::to_string(got.flags) + " delays " +
                std::to_string(got.delay_rts_before_send) + "/" + std::to_string(got.delay_rts_after_send) + " ms";
  }
  return true;
}

bool set_speed(int fd, unsigned int baud, std::string& error) {
  termios2 t{};
  if (ioctl(fd, TCGETS2, &t) != 0) {
    error = std::string("TCGETS2: ") + std::strerror(errno);
    return false;
  }
  const tcflag_t code = speed_code(baud);
  t.c_cflag &= ~(CBAUD | (CBAUD << IBSHIFT));
  t.c_cflag |= code | (code << IBSHIFT);
  t.c_ispeed = t.c_ospeed = baud;
  if (ioctl(fd, TCSETS2, &t) != 0) {
    error = "cannot set " + std::to_string(baud) + " baud: " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace details

SerialLine::~SerialLine() { Close(); }

bool SerialLine::fail(const std::string& what) {
  error_ = path_ + ": " + what;
  return false;
}

bool SerialLine::Open(const std::string& path, const SerialSettings& settings) {
  Close();
  path_ = path;
  adjusted_.clear();
  error_.clear();
  if (settings.data_bits < 5 || settings.data_bits > 8)
    return fail("data bits " + std::to_string(settings.data_bits) + " (5..8)");
  if (settings.stop_bits != 1 && settings.stop_bits != 2)
    return fail("stop bits " + std::to_string(settings.stop_bits) + " (1 or 2)");
  if (!std::strchr("NEOMS", settings.parity) || settings.parity == 0)
    return fail(std::string("parity '") + settings.parity + "' (N, E, O, M or S)");
  if (settings.baud == 0) return fail("baud rate 0");
  fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) return fail(std::string("cannot open: ") + std::strerror(errno));
  termios2 t{};
  if (ioctl(fd_, TCGETS2, &t) != 0) {
    const int e = errno;
    ::close(fd_);
    fd_ = -1;
    return fail(std::string("not a serial line: ") + std::strerror(e));
  }
  std::memcpy(saved_, &t, sizeof t);
  have_saved_ = true;
  if (settings.exclusive && ioctl(fd_, TIOCEXCL) != 0) {
    const std::string reason = std::string("exclusive open refused: ") + std::strerror(errno);
    Close();
    return fail(reason);
  }
  if (!apply(settings)) {
    const std::string reason = error_;
    Close();
    error_ = reason;
    return false;
  }
  return true;
}

bool SerialLine::apply(const SerialSettings& s) {
  termios2 t{};
  if (ioctl(fd_, TCGETS2, &t) != 0) return fail(std::string("TCGETS2: ") + std::strerror(errno));
  // Raw: no echo, no line editing, no translation, no signals.
  t.c_iflag &= ~(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF | IXANY | INPCK);
  t.c_oflag &= ~OPOST;
  t.c_lflag &= ~(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
  t.c_cflag &= ~(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS | CBAUD | (CBAUD << IBSHIFT));
  t.c_cflag |= CREAD | CLOCAL;
  static const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
  t.c_cflag |= sizes[s.data_bits - 5];
  if (s.parity != 'N') {
    t.c_cflag |= PARENB;
    t.c_iflag |= INPCK;
    if (s.parity == 'O' || s.parity == 'M') t.c_cflag |= PARODD;
    if (s.parity == 'M' || s.parity == 'S') t.c_cflag |= CMSPAR;
  }
  if (s.stop_bits == 2) t.c_cflag |= CSTOPB;
  if (s.flow == SerialSettings::flow_rtscts) t.c_cflag |= CRTSCTS;
  if (s.flow == SerialSettings::flow_xonxoff) t.c_iflag |= IXON | IXOFF;
  const tcflag_t code = speed_code(s.baud);
  t.c_cflag |= code | (code << IBSHIFT);
  t.c_ispeed = t.c_ospeed = s.baud;
  t.c_cc[VMIN] = 0;
  t.c_cc[VTIME] = 0;
  if (ioctl(fd_, TCSETS2, &t) != 0)
    return fail("cannot apply " + std::to_string(s.baud) + " baud " + std::to_string(s.data_bits) +
                s.parity + std::to_string(s.stop_bits) + ": " + std::strerror(errno));
  // What the driver kept.
  SerialSettings got;
  if (!ReadBack(got)) return false;
  auto note = [this](const char* what, const std::string& asked, const std::string& kept) {
    if (asked == kept) return;
    if (!adjusted_.empty()) adjusted_ += ", ";
    adjusted_ += std::string(what) + " " + asked + " -> " + kept;
  };
  note("baud", std::to_string(s.baud), std::to_string(got.baud));
  note("data bits", std::to_string(s.data_bits), std::to_string(got.data_bits));
  note("parity", std::string(1, s.parity), std::string(1, got.parity));
  note("stop bits", std::to_string(s.stop_bits), std::to_string(got.stop_bits));
  note("flow", std::to_string(s.flow), std::to_string(got.flow));
  return true;
}

bool SerialLine::ReadBack(SerialSettings& out) {
  if (fd_ < 0) return fail("not open");
  termios2 t{};
  if (ioctl(fd_, TCGETS2, &t) != 0) return fail(std::string("TCGETS2: ") + std::strerror(errno));
  out.baud = t.c_ospeed;
  if ((t.c_cflag & CBAUD) != BOTHER)
    for (const Speed& s : kSpeeds)
      if (s.code == (t.c_cflag & CBAUD)) out.baud = s.baud;
  out.data_bits = data_bits_of(t.c_cflag);
  out.parity = parity_of(t.c_cflag);
  out.stop_bits = (t.c_cflag & CSTOPB) ? 2 : 1;
  out.flow = (t.c_cflag & CRTSCTS)                 ? SerialSettings::flow_rtscts
             : (t.c_iflag & (IXON | IXOFF)) != 0 ? SerialSettings::flow_xonxoff
                                                 : SerialSettings::flow_none;
  int excl = 0;
  out.exclusive = ioctl(fd_, TIOCGEXCL, &excl) == 0 && excl != 0;
  return true;
}

void SerialLine::Close() {
  if (fd_ < 0) return;
  if (have_saved_) ioctl(fd_, TCSETS2, reinterpret_cast<termios2*>(saved_));
  ioctl(fd_, TIOCNXCL);
  ::close(fd_);
  fd_ = -1;
  have_saved_ = false;
}

bool SerialLine::EnableRs485(const Rs485Settings& r) {
  if (fd_ < 0) return fail("not open");
  std::string why;
  if (!details::set_rs485(fd_, r, why, adjusted_)) return fail(why);
  return true;
}

bool SerialLine::DisableRs485() {
  if (fd_ < 0) return fail("not open");
  serial_rs485 conf{};
  if (ioctl(fd_, TIOCSRS485, &conf) != 0 && errno != ENOTTY)
    return fail(std::string("RS-485 mode off: ") + std::strerror(errno));
  return true;
}

namespace {
bool modem_bit(int fd, int bit, bool on) { return ioctl(fd, on ? TIOCMBIS : TIOCMBIC, &bit) == 0; }
}  // namespace

bool SerialLine::SetDtr(bool on) {
  if (fd_ < 0) return fail("not open");
  if (!modem_bit(fd_, TIOCM_DTR, on)) return fail(std::string("the driver has no DTR line: ") + std::strerror(errno));
  return true;
}

bool SerialLine::SetRts(bool on) {
  if (fd_ < 0) return fail("not open");
  if (!modem_bit(fd_, TIOCM_RTS, on)) return fail(std::string("the driver has no RTS line: ") + std::strerror(errno));
  return true;
}

bool SerialLine::GetModemLines(ModemLines& out) {
  if (fd_ < 0) return fail("not open");
  int bits = 0;
  if (ioctl(fd_, TIOCMGET, &bits) != 0) return fail(std::string("the driver has no modem lines: ") + std::strerror(errno));
  out.dtr = bits & TIOCM_DTR;
  out.rts = bits & TIOCM_RTS;
  out.cts = bits & TIOCM_CTS;
  out.dsr = bits & TIOCM_DSR;
  out.dcd = bits & TIOCM_CD;
  out.ri = bits & TIOCM_RI;
  return true;
}

ssize_t SerialLine::read_some(void* buffer, size_t length, long long deadline) {
  // The line is raw with VMIN = VTIME = 0: an empty read means nothing
  // there; empty after poll() said ready means hung up.
  bool ready = false;
  for (;;) {
    const ssize_t n = ::read(fd_, buffer, length);
    if (n > 0) return n;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return fail(std::string("read: ") + std::strerror(errno)), -1;
    if (ready) return fail("read: hung up"), -1;
    const int w = wait_for(fd_, POLLIN, deadline);
    if (w < 0) return fail("read: hung up or line in error"), -1;
    if (w == 0) return 0;
    ready = true;
  }
}

ssize_t SerialLine::Read(void* buffer, size_t length, int timeout_ms) {
  if (fd_ < 0) return fail("not open"), -1;
  return read_some(buffer, length, now_ms() + (timeout_ms > 0 ? timeout_ms : 0));
}

ssize_t SerialLine::ReadUntil(std::string& out, char terminator, size_t max, int timeout_ms) {
  if (fd_ < 0) return fail("not open"), -1;
  const long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
  // One byte at a time: what follows the terminator stays in the driver for
  // the next read.
  for (size_t got = 0; got < max;) {
    char c;
    const ssize_t n = read_some(&c, 1, deadline);
    if (n <= 0) return n;
    out.push_back(c);
    ++got;
    if (c == terminator) return static_cast<ssize_t>(got);
  }
  return 0;
}

ssize_t SerialLine::Write(const void* buffer, size_t length, int timeout_ms) {
  if (fd_ < 0) return fail("not open"), -1;
  const long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
  const char* p = static_cast<const char*>(buffer);
  size_t done = 0;
  while (done < length) {
    const ssize_t n = ::write(fd_, p + done, length - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return fail(std::string("write: ") + std::strerror(errno)), -1;
    const int w = wait_for(fd_, POLLOUT, deadline);
    if (w <= 0) return fail(w == 0 ? "write: deadline passed" : "write: line in error"), -1;
  }
  return static_cast<ssize_t>(done);
}

bool SerialLine::Drain() {
  if (fd_ < 0) return fail("not open");
  if (ioctl(fd_, TCSBRK, 1) != 0) return fail(std::string("drain: ") + std::strerror(errno));
  return true;
}

bool SerialLine::Flush() {
  if (fd_ < 0) return fail("not open");
  if (ioctl(fd_, TCFLSH, TCIOFLUSH) != 0) return fail(std::string("flush: ") + std::strerror(errno));
  return true;
}

}  // namespace zqdevices
