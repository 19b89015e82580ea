#include "zqdevices/SerialLine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <string>

using zqdevices::SerialLine;
using zqdevices::SerialSettings;

namespace {

// A pseudo-terminal pair: the line under test opens the slave by its path,
// the test plays the instrument on the master.
class SerialLineOnPty : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[128];
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    path = name;
  }
  void TearDown() override {
    close(master);
    close(slave);
  }
  void send(const std::string& s) { ASSERT_EQ(write(master, s.data(), s.size()), ssize_t(s.size())); }
  int master = -1, slave = -1;
  std::string path;
};

TEST_F(SerialLineOnPty, SettingsAppliedAndReadBack) {
  SerialLine line;
  // Standard speeds, speeds beyond 115200 and a speed only BOTHER can give.
  for (unsigned int baud : {1200u, 19200u, 115200u, 230400u, 921600u, 4000000u, 250000u, 31250u}) {
    SerialSettings s;
    s.baud = baud;
    s.stop_bits = 2;
    s.flow = baud == 19200 ? SerialSettings::flow_xonxoff : SerialSettings::flow_rtscts;
    ASSERT_TRUE(line.Open(path, s)) << line.LastError();
    SerialSettings got;
    ASSERT_TRUE(line.ReadBack(got));
    EXPECT_EQ(got.baud, baud);
    EXPECT_EQ(got.stop_bits, 2u);
    EXPECT_EQ(got.flow, s.flow);
    EXPECT_TRUE(got.exclusive);
    EXPECT_EQ(line.Adjusted(), "");
  }
  // The pty driver runs 8N whatever is asked: that is reported, not hidden.
  SerialSettings s;
  s.data_bits = 7;
  s.parity = 'E';
  s.exclusive = false;
  ASSERT_TRUE(line.Open(path, s));
  EXPECT_EQ(line.Adjusted(), "data bits 7 -> 8, parity E -> N");
  SerialSettings got;
  ASSERT_TRUE(line.ReadBack(got));
  EXPECT_FALSE(got.exclusive);
  line.Close();
  EXPECT_FALSE(line.IsOpen());
}

TEST_F(SerialLineOnPty, RefusalsNameTheValueAndThePath) {
  SerialLine line;
  SerialSettings s;
  s.data_bits = 9;
  EXPECT_FALSE(line.Open(path, s));
  EXPECT_EQ(line.LastError(), path + ": data bits 9 (5..8)");
  s = SerialSettings();
  s.parity = 'X';
  EXPECT_FALSE(line.Open(path, s));
  EXPECT_NE(line.LastError().find("parity 'X'"), std::string::npos);
  EXPECT_FALSE(line.Open("/nonexistent/ttyUSB9", SerialSettings()));
  EXPECT_EQ(line.LastError(), "/nonexistent/ttyUSB9: cannot open: No such file or directory");
  EXPECT_FALSE(line.Open("/dev/null", SerialSettings()));
  EXPECT_NE(line.LastError().find("not a serial line"), std::string::npos);

  // A pty has neither RS-485 mode nor modem lines: clear refusals.
  ASSERT_TRUE(line.Open(path, SerialSettings()));
  EXPECT_FALSE(line.EnableRs485(zqdevices::Rs485Settings()));
  EXPECT_NE(line.LastError().find("the driver has no RS-485 mode"), std::string::npos) << line.LastError();
  EXPECT_EQ(line.LastError().rfind(path, 0), 0u);
  zqdevices::ModemLines m;
  if (!line.SetRts(true)) {
    EXPECT_NE(line.LastError().find("no RTS line"), std::string::npos);
  }
  if (!line.GetModemLines(m)) {
    EXPECT_NE(line.LastError().find("no modem lines"), std::string::npos);
  }
}

TEST_F(SerialLineOnPty, ReadsWithDeadlineAndTerminator) {
  SerialLine line;
  ASSERT_TRUE(line.Open(path, SerialSettings()));
  char buf[16];
  EXPECT_EQ(line.Read(buf, sizeof buf, 30), 0);  // nothing came: deadline
  send("abc");
  EXPECT_EQ(line.Read(buf, sizeof buf, 1000), 3);
  EXPECT_EQ(std::string(buf, 3), "abc");

  send("T=21.5\r\nT=");
  std::string got;
  EXPECT_EQ(line.ReadUntil(got, '\n', 64, 1000), 8);
  EXPECT_EQ(got, "T=21.5\r\n");
  got.clear();
  // The rest of the next answer never comes: what came is kept.
  EXPECT_EQ(line.ReadUntil(got, '\n', 64, 30), 0);
  EXPECT_EQ(got, "T=");
  send("0123456789");
  got.clear();
  EXPECT_EQ(line.ReadUntil(got, '\n', 4, 1000), 0);
  EXPECT_EQ(got, "0123");

  EXPECT_EQ(line.Write("ping\n", 5, 1000), 5);
  EXPECT_TRUE(line.Drain());
  char echo[8] = {};
  EXPECT_EQ(read(master, echo, sizeof echo), 5);
  EXPECT_STREQ(echo, "ping\n");

  // The instrument goes away: an error, not an endless run of empty reads.
  close(master);
  master = -1;
  EXPECT_EQ(line.Read(buf, sizeof buf, 1000), -1);
  line.Close();
  EXPECT_EQ(line.Read(buf, sizeof buf, 0), -1);
  EXPECT_EQ(line.LastError(), path + ": not open");
}

}  // namespace
