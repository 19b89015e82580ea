// devices: digital I/O through a process image, and a serial port.
//
//   devices
//
// Drives a simulated I/O board through IOControl (set a bit, write the image
// out, read it back), then opens a serial port at 9600 8N1 on one end of a
// pseudo-terminal (the port table is pointed at it, so no real serial device
// is touched), writes a line and reads it on the other end.
#include <poll.h>
#include <pty.h>
#include <unistd.h>
#include <zqcommon/SerialPort.h>
#include <zqcommon/iocontrol.h>

#include <cstdio>
#include <cstring>

int main() {
  unsigned char previous[8] = {}, inputs[8] = {}, in_and[8], in_or[8] = {}, outputs[8] = {},
                out_and[8], out_or[8] = {};
  std::memset(in_and, 0xFF, sizeof in_and);
  std::memset(out_and, 0xFF, sizeof out_and);
  IOControl io(sizeof inputs, previous, inputs, in_and, in_or, outputs, out_and, out_or);
  SimIOHandler board;
  if (io.AddHandler(board) != IOR_SUCCESS) return 1;
  io.SetBit(board.Id(), 3);
  io.WriteAll();  // the output image goes to the board
  io.ReadAll();   // and comes back as inputs
  bool bit = false;
  io.GetBit(board.Id(), 3, bit);
  std::printf("board byte 0x%02x, input bit 3 = %d\n", board.data[0], bit ? 1 : 0);

  int master = -1, slave = -1;
  char name[128];
  if (openpty(&master, &slave, name, nullptr, nullptr) != 0) return 1;
  CSerialPort::PortName[0] = name;
  CSerialPort port;
  if (!port.Open(CSerialPort::pCOM1, CSerialPort::b9600, 8, CSerialPort::pNONE, 1)) return 1;
  char hello[] = "hello device\n";
  port.Write(hello, sizeof hello - 1);
  pollfd p{master, POLLIN, 0};
  char got[64] = {};
  if (poll(&p, 1, 1000) == 1) {
    const ssize_t n = read(master, got, sizeof got - 1);
    got[n > 0 ? n : 0] = 0;
  }
  std::printf("the other end read: %s", got);
  port.Close();  // the pseudo-terminal's settings are back
  close(master);
  close(slave);
  return 0;
}
