#include "zqcommon/SerialPort.h"

#include "zqcommon/diagnostics.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

namespace {

// With asynchronous notification the terminal sends SIGIO to the process on
// every arrival, and SIGIO's default action ends the process. A program that
// installed a handler (or ignores it) keeps its choice.
void keep_sigio_harmless() {
  struct sigaction current {};
  if (sigaction(SIGIO, nullptr, &current) != 0 || current.sa_handler != SIG_DFL) return;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGIO, &ignore, nullptr);
}

}  // namespace

const char* CSerialPort::PortName[4] = {"/dev/ttyS0", "/dev/ttyS1", "/dev/ttyS2", "/dev/ttyS3"};

CSerialPort::~CSerialPort() { Close(); }

const char* CSerialPort::GetPortName(Ports port) {
  int p = static_cast<int>(port);
  return p >= 0 && p < 4 ? PortName[p] : "#invalid_port";
}

void CSerialPort::Close() {
  // Unconditional: on a closed port both calls fail on descriptor -1.
  tcsetattr(m_PortHandle, TCSANOW, &old_termios);
  close(m_PortHandle);
  m_PortHandle = -1;
}

void CSerialPort::Reset() {
  if (IsOpen()) tcflush(m_PortHandle, TCIOFLUSH);
}

bool CSerialPort::Open(Ports port, BaudRate speed, unsigned int databits, Parity parity,
                       unsigned int stopbits) {
  Close();
  Port = port;
  if (databits < 5 || databits > 8) {
    last_error = "Wrong number of data bits";
    return false;
  }
  if (static_cast<int>(port) < 0 || static_cast<int>(port) > 4) {
    last_error = "Invalid port";
    return false;
  }
  if (stopbits != 1 && stopbits != 2) {
    last_error = "Invalid number of stop bits";
    return false;
  }

  const char* path = GetPortName(port);
  int fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd == 0) close(fd);  // descriptor 0 does not count as a port
  if (fd > 0) {
    m_PortHandle = fd;
    keep_sigio_harmless();
    fcntl(fd, F_SETFL, O_NONBLOCK | O_ASYNC);
    tcgetattr(fd, &old_termios);
    struct termios t = old_termios;
    cfmakeraw(&t);
    cfsetispeed(&t, static_cast<speed_t>(speed));
    cfsetospeed(&t, static_cast<speed_t>(speed));
    static const tcflag_t sizes[4] = {CS5, CS6, CS7, CS8};
    t.c_cflag = (t.c_cflag & ~CSIZE) | sizes[databits - 5];
    if (parity == pEVEN) {
      t.c_cflag = (t.c_cflag | PARENB) & ~PARODD;
    } else if (parity == pODD) {
      t.c_cflag |= PARENB | PARODD;
    } else {
      t.c_cflag &= ~PARENB;
    }
    if (stopbits == 2) t.c_cflag |= CSTOPB; else t.c_cflag &= ~CSTOPB;
    t.c_cflag |= CREAD;
    t.c_cc[VTIME] = 0;
    t.c_cc[VMIN] = 0;
    tcflush(fd, TCIOFLUSH);
    tcsetattr(fd, TCSANOW, &t);
  }
  Reset();
  zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kOutput, "Serial Port %s[%i] open = %i.\n", path,
                             static_cast<int>(speed), IsOpen() ? 1 : 0);
  return IsOpen();
}

unsigned int CSerialPort::Read(char* buffer, unsigned int length) {
  if (!IsOpen()) return 0;
  return static_cast<unsigned int>(read(m_PortHandle, buffer, length));
}

unsigned int CSerialPort::Write(char* buffer, unsigned int length) {
  if (!IsOpen()) return 0;
  return static_cast<unsigned int>(write(m_PortHandle, buffer, length));
}
