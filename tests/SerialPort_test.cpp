#include "zqcommon/SerialPort.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
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
    path = name;
    saved = CSerialPort::PortName[0];
    CSerialPort::PortName[0] = path.c_str();
  }
  void TearDown() override {
    CSerialPort::PortName[0] = saved;
    close(master);
    close(slave);
  }

  // Reads exactly n bytes from `fd` within a second.
  static std::string take(int fd, size_t n) {
    std::string got;
    for (int spins = 0; got.size() < n && spins < 100; ++spins) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 10) <= 0) continue;
      char buf[512];
      ssize_t r = read(fd, buf, sizeof buf);
      if (r > 0) got.append(buf, r);
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
  const CSerialPort::BaudRate speeds[] = {CSerialPort::b300, CSerialPort::b1200,
                                          CSerialPort::b2400, CSerialPort::b4800,
                                          CSerialPort::b9600, CSerialPort::b19200,
                                          CSerialPort::b38400, CSerialPort::b57600,
                                          CSerialPort::b115200};
  const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
  std::string all;
  for (int b = 0; b < 256; ++b) all += static_cast<char>(b);

  CSerialPort port;
  for (auto speed : speeds) {
    for (unsigned int bits = 5; bits <= 8; ++bits) {
      for (auto parity : {CSerialPort::pNONE, CSerialPort::pEVEN, CSerialPort::pODD}) {
        for (unsigned int stop = 1; stop <= 2; ++stop) {
          SCOPED_TRACE(testing::Message() << speed << " " << bits << parity << stop);
          ASSERT_TRUE(open_quiet(port, speed, bits, parity, stop));
          ASSERT_EQ(line, "Serial Port " + path + "[" + std::to_string(speed) + "] open = 1.\n");

          const termios asked = g_applied;
          EXPECT_EQ(asked.c_cflag & CSIZE, sizes[bits - 5]);
          EXPECT_EQ((asked.c_cflag & PARENB) != 0, parity != CSerialPort::pNONE);
          termios t{};
          ASSERT_EQ(tcgetattr(slave, &t), 0);
          EXPECT_EQ(cfgetospeed(&t), static_cast<speed_t>(speed));
          EXPECT_EQ(cfgetispeed(&t), static_cast<speed_t>(speed));
          EXPECT_EQ((t.c_cflag & PARODD) != 0, parity == CSerialPort::pODD);
          EXPECT_EQ((t.c_cflag & CSTOPB) != 0, stop == 2);
          EXPECT_NE(t.c_cflag & CREAD, 0u);
          EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);
          EXPECT_EQ(t.c_iflag & (ICRNL | IXON), 0u);
          EXPECT_EQ(t.c_oflag & OPOST, 0u);
          EXPECT_EQ(t.c_cc[VMIN], 0);
          EXPECT_EQ(t.c_cc[VTIME], 0);

          // Every byte value both ways, unchanged.
          ASSERT_EQ(port.Write(&all[0], all.size()), all.size());
          ASSERT_EQ(take(master, all.size()), all);
          ASSERT_EQ(write(master, all.data(), all.size()), 256);
          std::string back;
          char buf[300];
          for (int spins = 0; back.size() < all.size() && spins < 100; ++spins) {
            unsigned int n = port.Read(buf, sizeof buf);
            if (n > 0 && n != static_cast<unsigned int>(-1)) back.append(buf, n);
            else usleep(1000);
          }
          ASSERT_EQ(back, all);
        }
      }
    }
  }
  // Nothing arrived: with no minimum count the read answers 0 at once.
  char c;
  EXPECT_EQ(port.Read(&c, 1), 0u);
  EXPECT_FALSE(port.CTS());
  EXPECT_FALSE(port.DCD());
  EXPECT_STREQ(port.GetPortName(), path.c_str());
}

TEST_F(SerialOnPty, CloseRestoresTheSettingsFoundAtOpen) {
  termios before{};
  ASSERT_EQ(tcgetattr(slave, &before), 0);
  before.c_lflag |= ICANON | ECHO;
  cfsetospeed(&before, B4800);
  ASSERT_EQ(tcsetattr(slave, TCSANOW, &before), 0);

  {
    CSerialPort port;
    ASSERT_TRUE(open_quiet(port, CSerialPort::b115200, 7, CSerialPort::pEVEN, 2));
    // Opening again closes and restores before reading the settings anew.
    ASSERT_TRUE(open_quiet(port, CSerialPort::b9600, 8, CSerialPort::pNONE, 1));
    port.Close();
    EXPECT_FALSE(port.IsOpen());
    termios after{};
    ASSERT_EQ(tcgetattr(slave, &after), 0);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B4800));

    ASSERT_TRUE(open_quiet(port, CSerialPort::b300, 5, CSerialPort::pODD, 1));
  }  // the destructor restores as well
  termios after{};
  ASSERT_EQ(tcgetattr(slave, &after), 0);
  EXPECT_EQ(after.c_cflag, before.c_cflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
}

TEST_F(SerialOnPty, RefusalsAndClosedPort) {
  CSerialPort port;
  EXPECT_EQ(port.GetLastError(), nullptr);
  char buf[4] = "abc";
  EXPECT_EQ(port.Read(buf, 3), 0u);
  EXPECT_EQ(port.Write(buf, 3), 0u);
  port.Close();  // harmless on a closed port
  port.Reset();

  // Data bits are checked before the port, and nothing is printed.
  EXPECT_FALSE(open_quiet(port, CSerialPort::b9600, 9, CSerialPort::pNONE, 1));
  EXPECT_STREQ(port.GetLastError(), "Wrong number of data bits");
  EXPECT_EQ(line, "");
  EXPECT_FALSE(open_quiet(port, CSerialPort::b9600, 4, CSerialPort::pNONE, 1));
  testing::internal::CaptureStdout();
  EXPECT_FALSE(port.Open(static_cast<CSerialPort::Ports>(5), CSerialPort::b9600, 9,
                         CSerialPort::pNONE, 1));
  EXPECT_STREQ(port.GetLastError(), "Wrong number of data bits");
  EXPECT_FALSE(port.Open(static_cast<CSerialPort::Ports>(5), CSerialPort::b9600, 8,
                         CSerialPort::pNONE, 1));
  EXPECT_STREQ(port.GetLastError(), "Invalid port");
  EXPECT_FALSE(port.Open(static_cast<CSerialPort::Ports>(-1), CSerialPort::b9600, 8,
                         CSerialPort::pNONE, 1));
  EXPECT_STREQ(port.GetLastError(), "Invalid port");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(open_quiet(port, CSerialPort::b9600, 8, CSerialPort::pNONE, 0));
  EXPECT_STREQ(port.GetLastError(), "Invalid number of stop bits");
  EXPECT_FALSE(open_quiet(port, CSerialPort::b9600, 8, CSerialPort::pNONE, 3));
  EXPECT_EQ(line, "");

  // Port 4 passes the check, fails to open, prints and keeps the last error.
  testing::internal::CaptureStdout();
  EXPECT_FALSE(port.Open(static_cast<CSerialPort::Ports>(4), CSerialPort::b9600, 8,
                         CSerialPort::pNONE, 1));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Serial Port #invalid_port[13] open = 0.\n");
  EXPECT_STREQ(port.GetLastError(), "Invalid number of stop bits");
  EXPECT_FALSE(port.IsOpen());

  EXPECT_STREQ(CSerialPort::GetPortName(static_cast<CSerialPort::Ports>(4)), "#invalid_port");
  EXPECT_STREQ(CSerialPort::GetPortName(static_cast<CSerialPort::Ports>(-1)), "#invalid_port");
  EXPECT_STREQ(CSerialPort::GetPortName(CSerialPort::pCOM4), "/dev/ttyS3");

  // A device path that does not exist.
  CSerialPort::PortName[0] = "/nonexistent/tty";
  EXPECT_FALSE(open_quiet(port, CSerialPort::b9600, 8, CSerialPort::pNONE, 1));
  EXPECT_EQ(line, "Serial Port /nonexistent/tty[13] open = 0.\n");
}

}  // namespace
