// The Modbus server's request handling fed what a client's socket could
// carry: the first byte chooses whether the client may write, the rest
// arrives on the connection, then the client closes its end.
#include <fcntl.h>
#include <sys/socket.h>

#include "devices/modbus_server_core.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static zqdevices::details::ServerCore core(2, 3, {false, true, true, false, true});
  static modbus_t* ctx = modbus_new_tcp("127.0.0.1", 502);  // framing of the answers only
  int s[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, s) != 0) std::abort();
  const int big = 1 << 20;
  setsockopt(s[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  if (write(s[1], data + 1, size - 1) != static_cast<ssize_t>(size - 1)) std::abort();
  shutdown(s[1], SHUT_WR);
  fcntl(s[0], F_SETFL, O_NONBLOCK);
  fcntl(s[1], F_SETFL, O_NONBLOCK);
  zqdevices::details::Connection conn;
  conn.fd = s[0];
  conn.may_write = data[0] & 1;
  char drain[4096];
  for (int n = 0; n < 10000 && core.Serve(ctx, conn); ++n) {
    while (read(s[1], drain, sizeof drain) > 0) {
    }
  }
  core.TakeWrites([](unsigned int bit, bool) {
    if (bit != 1 && bit != 2 && bit != 4) __builtin_trap();  // only writable coils change
  });
  close(s[0]);
  close(s[1]);
  return 0;
}
