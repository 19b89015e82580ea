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

class TLSContext;

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

  // Certificate mode (opt-in): the handshakes that follow use `context`
  // instead of the anonymous one of SSL_setup(). A client checks that the
  // server's certificate names `peer_host` (a DNS name or an IP address;
  // empty: the chain only). False for a null context.
  bool SSL_use_context(std::shared_ptr<TLSContext> context, const std::string& peer_host = "");
  // One step of a handshake that never waits: 1 when encrypted, 0 while it
  // waits for the peer (poll the descriptor for HandshakeEvents()), -1 when
  // it failed (the reason in TLSError(); the connection stays clear text).
  // SSL_setup() or SSL_use_context() first.
  int SSL_handshake_step(bool server);
  short HandshakeEvents() const { return handshake_events_; }
  const std::string& TLSError() const { return tls_error_; }
  // The name in the peer's verified certificate (its common name, else its
  // first DNS or e-mail alternative name); empty without one.
  std::string PeerIdentity() const;
  // The negotiated protocol ("TLSv1.3") and cipher, empty in clear text.
  std::string TLSVersion() const;
  std::string TLSCipher() const;

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
  // A new SSL object on the BIO for the next handshake; false without one.
  bool new_ssl();
  void release_session();

  bool ssl_setup = false;
  bool ssl_isenc = false;
  std::shared_ptr<Session> session_;
  short handshake_events_ = 0;
  std::string tls_error_;
};

// A new SSLConnection; the caller owns it.
ZQ_EXPORT Connection* create_connection();
// A copy of `c` of its own class (SSLConnection when c.SSL_support()).
ZQ_EXPORT Connection* create_connection(const Connection& c);

}  // namespace ZQSecurity

#endif
