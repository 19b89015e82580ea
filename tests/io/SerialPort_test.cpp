#include "zqcommon/SerialPort.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <dlfcn.h>

#include <string>

// The pseudo-terminal driver forces eight data bits and no parity whatever
// is asked, so the settings a port applies are also recorded on their way
// to the C library: the last call wins.
static termios g_applied;
extern "C" int tcsetattr(int fd, int action, const termios* t) {
  using real_t = int (*)(int, int, const termios*);
  static real_t real = reinterpret_cast<real_t>(dlsym(RTLD_NEXT, "tcsetattr"));
  if (t) g_applied = *t;
  return real(fd, action, t);
}

namespace {

// A pseudo-terminal pair with the port table pointed at its slave side.
class SerialOnPty : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[128];
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    fcntl(master, F_SETFL, O_NONBLOCK);
    path = name;
    saved = CSerialPort::PortName[0];
    CSerialPort::PortName[0] = path.c_str();
  }
  void TearDown() override {
    CSerialPort::PortName[0] = saved;
    close(master);
    close(slave);
  }

  // Collects n bytes from `read` (which answers 0 or less for none yet) within a second.
  template <typename Read>
  static std::string take(size_t n, Read read) {
    std::string got;
    char buf[512];
    for (int spins = 0; got.size() < n && spins < 1000; ++spins) {
      const long r = read(buf, sizeof buf);
      if (r > 0) got.append(buf, static_cast<size_t>(r));
      else usleep(1000);
    }
    return got;
  }

  bool open_quiet(CSerialPort& port, CSerialPort::BaudRate speed, unsigned int bits,
                  CSerialPort::Parity parity, unsigned int stop) {
    testing::internal::CaptureStdout();
    bool ok = port.Open(CSerialPort::pCOM1, speed, bits, parity, stop);
    line = testing::internal::GetCapturedStdout();
    return ok;
  }

  int master = -1, slave = -1;
  std::string path, line;
  const char* saved = nullptr;
};

TEST_F(SerialOnPty, EverySettingPassesBytesAndReadsBack) {
  using S = CSerialPort;
  const S::BaudRate speeds[] = {S::b300,  S::b1200,  S::b2400,  S::b4800, S::b9600,
                                S::b19200, S::b38400, S::b57600, S::b115200};
  const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);

  CSerialPort port;
  for (int k = 0; k < 9 * 4 * 3 * 2; ++k) {  // every speed, data size, parity and stop bits
    const S::BaudRate speed = speeds[k / 24];
    const unsigned int bits = 5 + k / 6 % 4, stop = 1 + k % 2;
    const auto parity = static_cast<S::Parity>(k / 2 % 3);
    SCOPED_TRACE(testing::Message() << speed << " " << bits << parity << stop);
    ASSERT_TRUE(open_quiet(port, speed, bits, parity, stop));
    ASSERT_EQ(line, "Serial Port " + path + "[" + std::to_string(speed) + "] open = 1.\n");
    EXPECT_EQ(g_applied.c_cflag & CSIZE, sizes[bits - 5]);
    EXPECT_EQ((g_applied.c_cflag & PARENB) != 0, parity != S::pNONE);
    termios t{};
    ASSERT_EQ(tcgetattr(slave, &t), 0);
    EXPECT_TRUE(cfgetospeed(&t) == static_cast<speed_t>(speed) && cfgetispeed(&t) == cfgetospeed(&t));
    EXPECT_EQ((t.c_cflag & PARODD) != 0, parity == S::pODD);
    EXPECT_EQ((t.c_cflag & CSTOPB) != 0, stop == 2);
    EXPECT_TRUE((t.c_cflag & CREAD) && !(t.c_lflag & (ICANON | ECHO | ISIG)) && !(t.c_iflag & (ICRNL | IXON)) &&
                !(t.c_oflag & OPOST) && t.c_cc[VMIN] == 0 && t.c_cc[VTIME] == 0)
        << "raw mode, reads answer at once";

    // Every byte value both ways, unchanged.
    ASSERT_EQ(port.Write(&all[0], all.size()), all.size());
    ASSERT_EQ(take(all.size(), [&](char* b, size_t n) { return read(master, b, n); }), all);
    ASSERT_EQ(write(master, all.data(), all.size()), 256);
    ASSERT_EQ(take(all.size(), [&](char* b, size_t n) { return static_cast<int>(port.Read(b, n)); }), all);
  }
  // Nothing arrived: with no minimum count the read answers 0 at once.
  char c;
  EXPECT_EQ(port.Read(&c, 1), 0u);
  EXPECT_FALSE(port.CTS());
  EXPECT_FALSE(port.DCD());
}

TEST_F(SerialOnPty, CloseRestoresTheSettingsFoundAtOpen) {
  termios before{};
  ASSERT_EQ(tcgetattr(slave, &before), 0);
  before.c_lflag |= ICANON | ECHO;
  cfsetospeed(&before, B4800);
  ASSERT_EQ(tcsetattr(slave, TCSANOW, &before), 0);
  const auto expect_restored = [&] {
    termios after{};
    ASSERT_EQ(tcgetattr(slave, &after), 0);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B4800));
  };

  {
    CSerialPort port;
    ASSERT_TRUE(open_quiet(port, CSerialPort::b115200, 7, CSerialPort::pEVEN, 2));
    // Opening again closes and restores before reading the settings anew.
    ASSERT_TRUE(open_quiet(port, CSerialPort::b9600, 8, CSerialPort::pNONE, 1));
    port.Close();
    EXPECT_FALSE(port.IsOpen());
    expect_restored();
    ASSERT_TRUE(open_quiet(port, CSerialPort::b300, 5, CSerialPort::pODD, 1));
  }  // the destructor restores as well
  expect_restored();
}

TEST_F(SerialOnPty, RefusalsAndClosedPort) {
  CSerialPort port;
  EXPECT_EQ(port.GetLastError(), nullptr);
  char buf[4] = "abc";
  EXPECT_EQ(port.Read(buf, 3), 0u);
  EXPECT_EQ(port.Write(buf, 3), 0u);
  port.Close();  // harmless on a closed port
  port.Reset();

  // Data bits, then the port, then stop bits are checked; a refusal prints
  // nothing. Port 4 passes the check, fails to open, prints and keeps the last
  // error; so does a device path that does not exist.
  const auto com1 = CSerialPort::pCOM1;
  const struct { int port; unsigned int bits, stop; const char* error; const char* printed; } rows[] = {
      {com1, 9, 1, "Wrong number of data bits", ""}, {com1, 4, 1, "Wrong number of data bits", ""},
      {5, 9, 1, "Wrong number of data bits", ""},    {5, 8, 1, "Invalid port", ""},
      {-1, 8, 1, "Invalid port", ""},                {com1, 8, 0, "Invalid number of stop bits", ""},
      {com1, 8, 3, "Invalid number of stop bits", ""},
      {4, 8, 1, "Invalid number of stop bits", "Serial Port #invalid_port[13] open = 0.\n"},
      {-2, 8, 1, "Invalid number of stop bits", "Serial Port /nonexistent/tty[13] open = 0.\n"},
  };
  for (const auto& r : rows) {
    if (r.port == -2) CSerialPort::PortName[0] = "/nonexistent/tty";
    testing::internal::CaptureStdout();
    EXPECT_FALSE(port.Open(static_cast<CSerialPort::Ports>(r.port < -1 ? com1 : r.port),
                           CSerialPort::b9600, r.bits, CSerialPort::pNONE, r.stop));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), r.printed) << r.port << r.bits << r.stop;
    EXPECT_STREQ(port.GetLastError(), r.error) << r.port << r.bits << r.stop;
    EXPECT_FALSE(port.IsOpen());
  }
  EXPECT_STREQ(CSerialPort::GetPortName(static_cast<CSerialPort::Ports>(4)), "#invalid_port");
  EXPECT_STREQ(CSerialPort::GetPortName(static_cast<CSerialPort::Ports>(-1)), "#invalid_port");
  EXPECT_STREQ(CSerialPort::GetPortName(CSerialPort::pCOM4), "/dev/ttyS3");
}

}  // namespace
