// A descriptor as a line-oriented text channel with delayed, non-blocking writes.
#ifndef ZQCOMMON_CONNECTION_H
#define ZQCOMMON_CONNECTION_H

#include <memory>
#include <string>

#include "zqthreads/lockable.h"
#include "zqcommon/export.h"

// The write buffer of a Connection: bytes waiting to be sent, of which the
// first `rp` were sent already.
class ZQ_EXPORT ConnectionBuffer {
 public:
  explicit ConnectionBuffer(int size) : maxbufsize(size) {}
  void clear() {
    buf.clear();
    rp = 0;
  }
  unsigned int length() const { return static_cast<unsigned int>(buf.size() - rp); }
  const char* c_str() const { return buf.data() + rp; }
  // Drops the sent bytes when forced or when more than half were sent.
  void move_if_needed(bool force) {
    if (rp != 0 && (force || rp > buf.size() / 2)) {
      buf.erase(0, rp);
      rp = 0;
    }
  }

  int maxbufsize;
  int timeout = -1;
  std::string buf;
  unsigned int rp = 0;
};

// Lines over a descriptor: a socket (recv/send, shutdown) or any other file
// descriptor (read/write), put in non-blocking mode. Lines end at "\n" or
// "\r"; runs of terminators (and so empty lines) are swallowed. Writes go
// into a bounded buffer (128000 bytes by default) and are sent with one
// attempt each; flush() retries three times, 1 ms apart. A peer that does not
// read is dropped rather than allowed to stall the writer.
//
// The descriptor stays the caller's, passed by pointer: when the connection
// ends (close(), end of stream, read or write failure, overflow) it closes the
// descriptor and writes -1 through the pointer. Results: -1 lost or not
// connected, -2 time-out, -3 write buffer overflow or line too long (more
// than 131071 bytes), -4 flush failed. Times are microseconds; -1 waits
// without limit. The connection locks itself only around changes of its
// write buffer and its closing: threads that share one hold its lock around
// their reads and writes. Copies share the descriptor pointer and the write
// buffer; destroy at most one of them while the other is in use.
class ZQ_EXPORT Connection : public lockable {
 public:
  static const int wait_1s = 1000000;
  static const int wait_1ms = 1000;
  static const int wait_1us = 1;

  Connection();
  Connection(const Connection& other);
  Connection& operator=(const Connection&) = delete;
  ~Connection() override;

  // Closes the current descriptor and holds `fd` (a file or a socket);
  // whether it is connected (fd not null and not -1).
  virtual bool SetFd(int* fd);
  virtual bool SetSocket(int* fd);
  void SetBlocking(bool on);
  void SetWriteDelay(bool on) { delayon = on; }
  // Whether input lines are edited: comments from '#' cut, backspaces applied.
  void Set_Modify(bool on) { modify_text = on; }
  // Size 0 removes the buffer; otherwise creates it or changes its capacity.
  void SetWriteBuffer(unsigned int size);
  // Flushes what it can and closes.
  virtual void close();
  // Once false, stays false until a new descriptor is set.
  virtual bool IsConnected();
  virtual bool IsError();
  bool IsOutput(int timeout);
  // True when a line's bytes are buffered or the descriptor has data.
  virtual bool IsData(int timeout);
  virtual bool SSL_support() const { return false; }
  virtual bool SSL_setup(bool server, std::string a, std::string b, std::string c) {
    (void)server, (void)a, (void)b, (void)c;
    return false;
  }
  virtual bool SSL_start_TLS(bool server) {
    (void)server;
    return false;
  }
  virtual bool IsEncrypted() const { return false; }

  // Reads one line into `s` (cleared unless `append`): its length, 0 for an
  // empty line or when no complete line arrived in time (the partial line
  // stays buffered), or -1, -2, -3 as above.
  int readln(std::string& s, bool append = false, int timeout = -1);
  // Reads `n` bytes if it can; the number taken from the read-ahead buffer
  // when that was enough, else the whole length of `s`; -1 without descriptor.
  int read(std::string& s, int n, bool append = false, int timeout = -1);
  // Whatever has arrived, up to `max` bytes, replacing the content of `s`:
  // bytes read ahead by readln() first, then what the descriptor holds (the
  // decrypted stream on an encrypted connection), without regard to lines,
  // terminators or Set_Modify. Waits at most `timeout_ms` milliseconds (a
  // negative one counts as 0) for the first byte and none for the rest; never
  // blocks longer. The number of bytes, 0 when none came in time (or `max`
  // is 0), -1 when the connection is closed, ended or failed (it is then
  // closed; bytes that came before the end are handed out first). For keys
  // of a peer in raw mode. Locking as for readln.
  int read_available(std::string& s, size_t max, int timeout_ms);
  // Writes `s` and, with `crlf`, "\r\n" unless `s` ends with it; the result of
  // writing `s` (an empty `s` flushes).
  int writeln(const std::string& s, bool crlf = true, int timeout = -1);
  // Buffers and sends; `len` 0 flushes. `len` when accepted, else a failure.
  int write_raw(const void* buf, int len, int timeout = -1);
  int flush(int timeout = -1) { return write_raw(nullptr, 0, timeout); }
  // Bytes accepted by writes but not yet sent (a server loop flushes them
  // when the descriptor is writable again).
  unsigned int WritePending() const { return buf != nullptr ? buf->length() : 0; }
  // Bytes received but not yet handed out (a partial line, or more lines).
  unsigned int ReadPending() const { return static_cast<unsigned int>(rbuf.size() - rpos_); }
  // The descriptor held, or -1.
  int Descriptor() const { return fd != nullptr ? *fd : -1; }

  // Cuts the text at the first '#' and applies backspaces (8).
  static void modify(std::string& s);

 protected:
  virtual int read_core(void* buffer, int len, int timeout);
  virtual int write_core(const void* buffer, int len, int timeout);
  virtual bool IsData_core(int timeout);
  int getline(std::string& s, int timeout);
  // With `lost_is_empty`, a stream found ended by the first read gives 0 (an
  // empty line) and leaves the connection marked lost, as readln promises.
  int getline(std::string& s, int timeout, bool lost_is_empty);
  void close_core(bool lock);
  bool holds_descriptor() const { return fd != nullptr && *fd >= 0; }

  bool isconnected = false;
  int* fd = nullptr;
  bool modify_text = true;
  bool delayon = false;
  std::shared_ptr<ConnectionBuffer> buf;
  std::string rbuf;
  bool issocket = false;

 private:
  bool set_descriptor(int* fd, bool socket);
  bool writable();
  void consumed();
  // Swallows terminators at rpos_ (before `end`) that continue a run.
  void skip_terminators(std::string::size_type end);
  bool in_terminators_ = false;
  std::string::size_type rpos_ = 0;  // rbuf's bytes before this were handed out
  std::string::size_type scanned_ = 0;  // bytes from rpos_ known to hold no line end
  // The first line end at or after rpos_ before `end`, or npos; each byte is
  // looked at once however often it is asked.
  std::string::size_type line_end(std::string::size_type end);
  // Appends `len` bytes to the write buffer; false (closed, -3) on overflow.
  bool buffer_bytes(const void* data, int len);
  // Sends what is buffered: one attempt for a write, three rounds for a flush.
  int drain(bool flushing, int len, int timeout);
  // Extracts the line before the terminator at `p` from rbuf into `s`.
  void take_line(std::string& s, std::string::size_type p);
};

#endif
