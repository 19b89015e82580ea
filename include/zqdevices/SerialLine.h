// A serial line opened by device path, with any speed, framing, flow control
// and RS-485 direction control the driver offers.
#ifndef ZQDEVICES_SERIALLINE_H
#define ZQDEVICES_SERIALLINE_H

#include <zqcommon/export.h>

#include <sys/types.h>

#include <string>

namespace zqdevices {

// Line settings. Any speed: the standard ones go by their speed code, others
// through the kernel's arbitrary-speed interface (BOTHER) where the driver
// supports it.
struct ZQ_EXPORT SerialSettings {
  enum Flow { flow_none, flow_rtscts, flow_xonxoff };
  unsigned int baud = 9600;
  unsigned int data_bits = 8;  // 5..8
  char parity = 'N';           // 'N', 'E', 'O' (also 'M' mark, 'S' space)
  unsigned int stop_bits = 1;  // 1 or 2
  Flow flow = flow_none;
  bool exclusive = true;       // TIOCEXCL: further opens of the device fail (except for root)
};

// RS-485 half-duplex direction control done by the driver (TIOCSRS485).
struct ZQ_EXPORT Rs485Settings {
  bool rts_on_send = true;           // RTS level while sending (true: high)
  bool rts_after_send = false;       // RTS level after sending
  unsigned int delay_before_ms = 0;  // RTS set to first byte
  unsigned int delay_after_ms = 0;   // last byte to RTS released
  bool rx_during_tx = false;         // receive own transmission (echo)
};

// The modem status and control lines as the driver reports them.
struct ZQ_EXPORT ModemLines {
  bool dtr = false, rts = false, cts = false, dsr = false, dcd = false, ri = false;
};

// One open serial line. Opening applies the settings, then reads them back:
// what the driver changed (a pseudo-terminal always runs 8N, a UART may round
// the speed) is listed in Adjusted(), and Open still succeeds. The file
// descriptor is owned and closed by Close() and the destructor; the settings
// found at open are put back first.
//
// Failures are results: false or -1, with the reason (naming the path, the
// setting and the system's error) in LastError(). RS-485 and modem lines on a
// device whose driver lacks them fail with a text that says so.
//
// Not thread-safe: one thread uses a line, or callers serialise.
class ZQ_EXPORT SerialLine {
 public:
  SerialLine() = default;
  ~SerialLine();
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;

  // Opens `path` (any device: /dev/ttyUSB0, /dev/serial/by-id/..., a pty)
  // raw, without becoming its controlling terminal, and applies `settings`.
  bool Open(const std::string& path, const SerialSettings& settings);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const { return fd_; }
  const std::string& Path() const { return path_; }

  // The settings the driver holds now (speed, framing, flow control and
  // whether the line is exclusive).
  bool ReadBack(SerialSettings& out);
  // Settings the driver did not take as asked, e.g. "data bits 7 -> 8";
  // empty when all took.
  const std::string& Adjusted() const { return adjusted_; }

  // Switches the driver's RS-485 mode on with `rs485`, or off.
  bool EnableRs485(const Rs485Settings& rs485);
  bool DisableRs485();

  bool SetDtr(bool on);
  bool SetRts(bool on);
  bool GetModemLines(ModemLines& out);

  // Reads what is there, waiting up to `timeout_ms` for the first byte:
  // the count, 0 at the deadline, -1 on error (including hang-up).
  ssize_t Read(void* buffer, size_t length, int timeout_ms);
  // Reads up to and including `terminator`, at most `max` bytes, until
  // `timeout_ms` has passed in all: the count appended to `out` when the
  // terminator arrived, 0 at the deadline or at `max` bytes (what came is
  // still appended), -1 on error.
  ssize_t ReadUntil(std::string& out, char terminator, size_t max, int timeout_ms);
  // Writes all of `length` within `timeout_ms`: the count, -1 on error or
  // deadline.
  ssize_t Write(const void* buffer, size_t length, int timeout_ms);
  // Waits until the output has been sent.
  bool Drain();
  // Discards unread input and unsent output.
  bool Flush();

  const std::string& LastError() const { return error_; }

 private:
  bool fail(const std::string& what);
  bool apply(const SerialSettings& settings);
  // Reads what is there, waiting until `deadline` (monotonic ms) for it.
  ssize_t read_some(void* buffer, size_t length, long long deadline);

  int fd_ = -1;
  std::string path_;
  std::string error_;
  std::string adjusted_;
  bool have_saved_ = false;
  unsigned char saved_[64] = {};  // the termios2 found at open
};

}  // namespace zqdevices

#endif
