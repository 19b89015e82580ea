// The device's Modbus TCP client: what it accepts as an answer, and how it
// waits for one from a peer that splits, pads, withholds or drops it.
#include "devices/modbus_tcp_client.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "support/loopback.h"

using zqdevices::details::CheckTcpAnswer;
using zqdevices::details::ModbusTcpClient;
using Bytes = std::vector<uint8_t>;

namespace {

// Request frame: transaction 0x0102, unit 7, function, two 16-bit fields.
Bytes request(uint8_t function, unsigned int a, unsigned int b) {
  return {1, 2, 0, 0, 0, 6, 7, function, uint8_t(a >> 8), uint8_t(a), uint8_t(b >> 8), uint8_t(b)};
}

// An answer to `request`'s transaction and unit carrying `pdu`.
Bytes answer(const Bytes& pdu) {
  Bytes a = {1, 2, 0, 0, 0, uint8_t(pdu.size() + 1), 7};
  for (uint8_t b : pdu) a.push_back(b);
  return a;
}

int check(const Bytes& req, const Bytes& ans, uint8_t* bits = nullptr, uint16_t* regs = nullptr) {
  errno = 0;
  return CheckTcpAnswer(req.data(), ans.data(), ans.size(), bits, regs);
}

}  // namespace

TEST(ModbusTcpClient, AcceptsOnlyTheAnswerToItsRequest) {
  const Bytes holding = request(3, 0, 2);
  uint16_t regs[2] = {};
  EXPECT_EQ(check(holding, answer({3, 4, 0x12, 0x34, 0xff, 0xfe}), nullptr, regs), 2);
  EXPECT_EQ(regs[0], 0x1234);
  EXPECT_EQ(regs[1], 0xfffe);

  uint8_t bits[10] = {};
  EXPECT_EQ(check(request(1, 0, 10), answer({1, 2, 0b10000101, 0b10}), bits), 10);
  const uint8_t want[10] = {1, 0, 1, 0, 0, 0, 0, 1, 0, 1};
  EXPECT_EQ(Bytes(bits, bits + 10), Bytes(want, want + 10));

  EXPECT_EQ(check(request(5, 9, 0xff00), answer({5, 0, 9, 0xff, 0})), 1);
  EXPECT_EQ(check(request(5, 9, 0xff00), answer({5, 0, 9, 0, 0})), -1) << "a write's answer must echo it";
  EXPECT_EQ(errno, EMBBADDATA);

  // Exceptions keep their code; codes outside the protocol's are bad.
  EXPECT_EQ(check(holding, answer({0x83, 2})), -1);
  EXPECT_EQ(errno, EMBXILADD);
  EXPECT_EQ(check(holding, answer({0x83, 6})), -1);
  EXPECT_EQ(errno, EMBXSBUSY);
  EXPECT_EQ(check(holding, answer({0x83, 0x20})), -1);
  EXPECT_EQ(errno, EMBBADEXC);

  struct Bad {
    const char* why;
    Bytes frame;
    int error;
  };
  Bytes other_transaction = answer({3, 4, 0, 0, 0, 0}), other_protocol = other_transaction,
        other_unit = other_transaction, long_length = other_transaction;
  other_transaction[1] = 3;
  other_protocol[3] = 1;
  other_unit[6] = 8;
  long_length[5] += 1;
  const Bad bad[] = {
      {"another transaction (a late answer)", other_transaction, EMBBADDATA},
      {"another protocol", other_protocol, EMBBADDATA},
      {"another unit", other_unit, EMBBADSLAVE},
      {"MBAP length beyond the frame", long_length, EMBBADDATA},
      {"another function", answer({4, 4, 0, 0, 0, 0}), EMBBADDATA},
      {"fewer registers than asked", answer({3, 2, 0, 0}), EMBBADDATA},
      {"byte count against the frame", answer({3, 4, 0, 0, 0}), EMBBADDATA},
      {"exception with a trailing byte", answer({0x83, 2, 0}), EMBBADDATA},
      {"header only", Bytes{1, 2, 0, 0, 0, 1, 7}, EMBBADDATA},
  };
  for (const Bad& b : bad) {
    EXPECT_EQ(check(holding, b.frame, nullptr, regs), -1) << b.why;
    EXPECT_EQ(errno, b.error) << b.why;
  }
}

// A peer on a loopback port that answers each request as `script` says.
struct ScriptedPeer {
  int port = 0;
  int listener = -1;
  std::thread thread;
  explicit ScriptedPeer(std::vector<std::function<bool(int fd, const uint8_t* req)>> script) {
    listener = listen_local(port, 1);
    EXPECT_GE(listener, 0);
    thread = std::thread([this, script] {
      const int fd = accept(listener, nullptr, nullptr);
      uint8_t req[12];
      for (const auto& step : script)
        if (recv(fd, req, sizeof req, MSG_WAITALL) != sizeof req || !step(fd, req)) break;
      close(fd);
    });
  }
  ~ScriptedPeer() {
    thread.join();
    close(listener);
  }
};

// Sends the answer to `req` (10 holding registers, all 0x0101), in pieces
// `gap` apart, and `extra` bytes after it.
bool send_answer(int fd, const uint8_t* req, std::chrono::milliseconds gap, size_t extra = 0) {
  Bytes frame(req, req + 6);
  frame[5] = 23;
  frame.insert(frame.end(), {req[6], 3, 20});
  frame.insert(frame.end(), 20 + extra, 1);
  for (size_t at = 0; at < frame.size(); at += 5) {
    if (at > 0) std::this_thread::sleep_for(gap);
    if (send(fd, frame.data() + at, std::min<size_t>(5, frame.size() - at), MSG_NOSIGNAL) < 0) return false;
  }
  return true;
}

TEST(ModbusTcpClient, WaitsOneTimeoutForAWholeAnswer) {
  using namespace std::chrono;
  ScriptedPeer peer({
      [](int fd, const uint8_t* req) { return send_answer(fd, req, milliseconds(20)); },
      [](int fd, const uint8_t* req) { return send_answer(fd, req, milliseconds(0), 1); },
      [](int, const uint8_t*) { return true; },  // no answer
      [](int, const uint8_t*) { return false; },  // hangs up
  });
  ModbusTcpClient client("127.0.0.1", peer.port, 7, 300);
  std::string why;
  ASSERT_TRUE(client.Connect(why)) << why;
  uint16_t regs[10] = {};
  EXPECT_EQ(client.ReadRegisters(3, 0, 10, regs), 10) << "an answer in five pieces";
  EXPECT_EQ(regs[9], 0x0101);
  EXPECT_EQ(client.ReadRegisters(3, 0, 10, regs), -1) << "an answer with a byte too many";
  EXPECT_EQ(errno, EMBBADDATA);
  const auto t0 = steady_clock::now();
  EXPECT_EQ(client.ReadRegisters(3, 0, 10, regs), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  const auto waited = steady_clock::now() - t0;
  EXPECT_GE(waited, milliseconds(250));
  EXPECT_LT(waited, milliseconds(3000)) << "one 300 ms time-out, with slack for a loaded machine";
  EXPECT_EQ(client.ReadRegisters(3, 0, 10, regs), -1);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(client.ReadRegisters(3, 0, 126, regs), -1) << "more than one request may carry";
  EXPECT_EQ(errno, EMBMDATA);

  client.Close();
  EXPECT_EQ(client.ReadBits(1, 0, 1, nullptr), -1);
  EXPECT_EQ(errno, ENOTCONN);
  ModbusTcpClient nobody("127.0.0.1", free_local_port(), 1, 300);
  EXPECT_FALSE(nobody.Connect(why));
  EXPECT_EQ(why, "Connection refused");
}
