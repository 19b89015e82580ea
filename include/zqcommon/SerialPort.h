// One of the machine's first four serial ports in raw, non-blocking mode.
#ifndef ZQCOMMON_SERIALPORT_H
#define ZQCOMMON_SERIALPORT_H

#include <termios.h>

#include "zqcommon/export.h"

// Opens a serial device with a speed, character size, parity and stop bits,
// and reads and writes bytes without waiting. Close() (and the destructor)
// puts back the terminal settings found at open. Modem status and control
// lines are inert: the status reads 0 and the setters change nothing.
//
// Failures: Open answers false; a refused parameter leaves its reason in
// GetLastError() (texts that live as long as the program). Read and Write
// answer the system call's result as unsigned, so an error reads as the
// largest unsigned value; on a closed port they answer 0. Not thread-safe.
//
// The open device raises SIGIO on arrivals (asynchronous notification). When
// SIGIO still has its default action, which would end the process, Open sets
// it to be ignored; a handler the program installed stays in place.
//
// The device paths live in the table PortName, which a program (or a test,
// with a pseudo-terminal) may point elsewhere before opening.
class ZQ_EXPORT CSerialPort {
 public:
  enum Ports { pCOM1 = 0, pCOM2 = 1, pCOM3 = 2, pCOM4 = 3 };
  // The values are the Linux terminal speed codes.
  enum BaudRate {
    b0 = 0,
    b300 = 7,
    b1200 = 9,
    b2400 = 11,
    b4800 = 12,
    b9600 = 13,
    b19200 = 14,
    b38400 = 15,
    b57600 = 4097,
    b115200 = 4098
  };
  enum Parity { pNONE = 0, pEVEN = 1, pODD = 2 };

  CSerialPort() = default;
  ~CSerialPort();
  CSerialPort(const CSerialPort&) = delete;
  CSerialPort& operator=(const CSerialPort&) = delete;

  // Closes whatever was open, checks the parameters (data bits 5..8, port
  // 0..4, stop bits 1 or 2), opens the device raw and non-blocking, and
  // prints "Serial Port <path>[<speed code>] open = <0|1>." on standard
  // output. Port 4 passes the check and fails to open.
  bool Open(Ports port, BaudRate speed, unsigned int databits, Parity parity,
            unsigned int stopbits);
  bool IsOpen() const { return m_PortHandle != -1; }
  // Restores the settings found at open and closes the device.
  void Close();
  // Discards pending input and output.
  void Reset();
  unsigned int Read(char* buffer, unsigned int length);
  unsigned int Write(char* buffer, unsigned int length);

  const char* GetPortName() const { return GetPortName(Port); }
  // The device path of ports 0..3, else "#invalid_port".
  static const char* GetPortName(Ports port);
  const char* GetLastError() const { return last_error; }

  unsigned int Get_MSR() const { return 0; }
  bool CTS() const { return Get_MSR() & 0x10; }
  bool DSR() const { return Get_MSR() & 0x20; }
  bool RI() const { return Get_MSR() & 0x40; }
  bool DCD() const { return Get_MSR() & 0x80; }
  void Set_DTR_State(bool) {}
  void Set_RTS_State(bool) {}

  static const char* PortName[4];

 private:
  int m_PortHandle = -1;
  termios old_termios{};
  Ports Port = pCOM1;
  const char* last_error = nullptr;
};

#endif
