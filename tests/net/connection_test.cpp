// Buffered connection: line reading, editing, limits, time-outs and writing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>
#include <thread>
#include <vector>

#include "zqcommon/connection.h"

namespace {

// A pipe whose read end a Connection reads and whose write end the test feeds.
struct Pipe {
  int fd[2] = {-1, -1};
  int &r = fd[0], &w = fd[1];
  Pipe() { EXPECT_EQ(pipe2(fd, O_CLOEXEC), 0); }
  ~Pipe() {
    for (int f : fd)
      if (f >= 0) close(f);
  }
  void feed(const std::string& data) const {
    EXPECT_EQ(::write(w, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  }
  // What is waiting in the pipe; leaves the read end non-blocking.
  std::string drain() const {
    std::string out;
    char chunk[4096];
    fcntl(r, F_SETFL, O_NONBLOCK);
    for (ssize_t n; (n = ::read(r, chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<size_t>(n));
    return out;
  }
};

constexpr int kSecond = Connection::wait_1s;

}  // namespace

TEST(Connection, LinesTerminatorsAndEditing) {
  Pipe p;
  Connection c;
  ASSERT_TRUE(c.SetFd(&p.r));
  p.feed("abc\r\n\r\ndef\nset x 1 # note\nab\bc\n\bz\n");
  std::string line;
  // The empty line is swallowed with the terminators; comments and
  // backspaces are edited out. The result counts the bytes received.
  const std::pair<const char*, int> lines[] = {{"abc", 3}, {"def", 3}, {"set x 1 ", 14}, {"ac", 4}, {"z", 2}};
  for (const auto& [want, received] : lines) {
    EXPECT_EQ(c.readln(line, false, kSecond), received) << want;
    EXPECT_EQ(line, want);
  }
  // A line end split over two reads is still one line end.
  p.feed("split\r");
  c.readln(line, false, kSecond);
  EXPECT_EQ(line, "split");
  p.feed("\nnext\n");
  c.readln(line, false, kSecond);
  EXPECT_EQ(line, "next");

  c.Set_Modify(false);
  p.feed("keep # this\n");
  c.readln(line, false, kSecond);
  EXPECT_EQ(line, "keep # this");
  EXPECT_TRUE(c.readln(line, true, 0) == -2 && line == "keep # this");  // append keeps it
}

TEST(Connection, TimeoutsPartialLinesAndLimits) {
  Pipe p;
  Connection c;
  c.SetFd(&p.r);
  std::string line;
  EXPECT_EQ(c.readln(line, false, 0), -2);  // idle
  p.feed("part");
  EXPECT_EQ(c.readln(line, false, 20000), -2);  // no complete line in time: kept
  EXPECT_TRUE(c.IsData(0));  // the partial line is buffered
  p.feed("ial\n");
  EXPECT_EQ(c.readln(line, false, kSecond), 7);
  EXPECT_EQ(line, "partial");

  p.feed("xy\n0123456789");
  EXPECT_EQ(c.readln(line, false, kSecond), 2);  // "0123456789" stays read ahead
  std::string bytes = "pre";
  EXPECT_EQ(c.read(bytes, 4, true, kSecond), 4);  // all from the buffer: the count
  EXPECT_EQ(bytes, "pre0123");
  p.feed("abc");
  EXPECT_EQ(c.read(bytes, 9, false, kSecond), 9);  // 6 buffered + 3 read: the whole length
  EXPECT_EQ(bytes, "456789abc");

  Pipe big;
  Connection flood;
  flood.SetFd(&big.r);
  std::thread writer([&] {
    const std::string block(14000, 'z');
    for (int i = 0; i < 10; ++i) big.feed(block);  // 140000 bytes, no line end
  });
  EXPECT_EQ(flood.readln(line, false, 5 * kSecond), -3);
  writer.join();

  // End of stream: the connection closes and writes -1 to the owner.
  p.feed("last line\ntail without end");
  close(std::exchange(p.w, -1));
  EXPECT_EQ(c.readln(line, false, kSecond), 9);  // still readable after the writer left
  EXPECT_EQ(line, "last line");
  EXPECT_EQ(c.readln(line, false, kSecond), 0);  // the writer is gone: not connected
  EXPECT_FALSE(c.IsConnected());
  c.close();
  EXPECT_EQ(p.r, -1);  // closed, and -1 written to the owner
}

TEST(Connection, WritingLineEndsOverflowAndLostPeers) {
  Pipe p;
  Connection c;
  ASSERT_TRUE(c.SetFd(&p.w));
  // The counts leave out the line end added; a text's own line end is kept.
  EXPECT_EQ((std::vector<int>{c.writeln("one"), c.writeln("two\r\n"), c.writeln(""), c.writeln("raw", false),
                              c.flush()}),
            (std::vector<int>{3, 5, 0, 3, 0}));
  EXPECT_EQ(p.drain(), "one\r\ntwo\r\n\r\nraw");

  // A stalled peer takes a little; the rest waits in the write buffer until
  // the buffer would overflow.
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  fcntl(sv[0], F_SETFL, O_NONBLOCK);
  const std::string chunk(4096, 'f');
  while (send(sv[0], chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) {
  }
  char sink[8192];
  ASSERT_GT(recv(sv[1], sink, sizeof sink, 0), 0);  // room for a few bytes
  Connection w;
  w.SetSocket(&sv[0]);
  w.SetWriteBuffer(100000);
  const std::string block(99999, 'b');
  EXPECT_EQ(w.write_raw(block.data(), 99999), 99999);  // a few KiB go, the rest waits
  EXPECT_EQ(w.write_raw(block.data(), 99999), -3);
  EXPECT_EQ(sv[0], -1);
  EXPECT_EQ(w.write_raw("x", 1), -1);
  close(sv[1]);

  // A peer that has gone: the write fails, and there is no SIGPIPE.
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  {
    Connection s;
    s.SetSocket(&sv[0]);
    close(sv[1]);
    EXPECT_EQ(s.writeln("lost"), -1);
    EXPECT_FALSE(s.IsConnected());
  }
  EXPECT_EQ(sv[0], -1);  // closed by the connection's end

  Pipe gone;
  close(std::exchange(gone.r, -1));
  Connection g;
  g.SetFd(&gone.w);
  EXPECT_EQ(g.writeln("nobody reads"), -1);
}

TEST(Connection, CopiesShareTheDescriptor) {
  Pipe p;
  auto* original = new Connection;
  original->SetFd(&p.w);
  Connection copy(*original);
  EXPECT_TRUE(copy.IsConnected());
  delete original;  // closes the shared descriptor
  EXPECT_EQ(p.w, -1);
  EXPECT_FALSE(copy.IsConnected());
}
