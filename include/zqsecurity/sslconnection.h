// A line connection that can switch to TLS in the middle of a conversation.
#ifndef ZQSECURITY_SSLCONNECTION_H
#define ZQSECURITY_SSLCONNECTION_H

#include <memory>
#include <string>

#include "zqcommon/connection.h"
#include "zqcommon/export.h"

typedef struct bio_st BIO;
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace ZQSecurity {

// A Connection that keeps an OpenSSL BIO on its descriptor from the start and
// switches to TLS (1.2 at most, anonymous Diffie-Hellman, no certificates)
// when both sides call SSL_start_TLS at an agreed point of the clear-text
// exchange: SSL_setup() prepares a context, SSL_start_TLS(true) answers the
// handshake as server, SSL_start_TLS(false) starts it as client. Lines, time-
// outs and results are those of Connection, encrypted or not; an encrypted
// read waits for data like a clear one. A failed handshake leaves the
// connection in clear text (IsEncrypted() false); nothing throws, set-up
// errors are printed unless DEBUG_LEVEL is negative. Copies share the OpenSSL
// objects, which go with the last of them.
class ZQ_EXPORT SSLConnection : public Connection {
 public:
  SSLConnection();
  SSLConnection(const SSLConnection& other);
  ~SSLConnection() override;

  bool SetFd(int* fd) override;
  bool SetSocket(int* fd) override;
  void close() override;
  bool SSL_support() const override { return true; }
  // Prepares the context; the arguments are accepted and not used.
  bool SSL_setup(bool server, std::string a, std::string b, std::string c) override;
  // The handshake (server or client); true when the connection is encrypted.
  bool SSL_start_TLS(bool server) override;
  bool IsEncrypted() const override { return ssl_isenc; }
  // Prints the SSL error of `ret` with the OpenSSL error queue.
  void _handle_ssl_error(const char* where, int line, int ret);

  bool RequireClientCert = false;
  std::string CAfile;
  std::string CertFilenameWithKey;
  std::string CertFilePassword;

 protected:
  bool IsData_core(int timeout) override;
  int read_core(void* buffer, int len, int timeout) override;
  int write_core(const void* buffer, int len, int timeout) override;

 private:
  struct Session;  // the BIO, SSL object and context, shared by copies
  bool attach_bio(bool socket);
  void release_session();

  bool ssl_setup = false;
  bool ssl_isenc = false;
  std::shared_ptr<Session> session_;
};

// A new SSLConnection; the caller owns it.
ZQ_EXPORT Connection* create_connection();
// A copy of `c` of its own class (SSLConnection when c.SSL_support()).
ZQ_EXPORT Connection* create_connection(const Connection& c);

}  // namespace ZQSecurity

#endif
