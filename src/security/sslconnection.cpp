// A line connection with a start-TLS switch over OpenSSL.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "zqsecurity/sslconnection.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <cstdio>

#include "net/sigpipe_guard.h"
#include "security/openssl_init.h"
#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"
#include "zqcommon/functions.h"
#include "zqsecurity/sslcommon.h"
#include "zqsecurity/tlscontext.h"
#include "security/tls_identity.h"

namespace ZQSecurity {

namespace {
constexpr char kStartTLS[] = "virtual void ZQSecurity::SSLConnection::SSL_start_TLS(bool)";
constexpr long long kHandshakeLimit = 10LL * 1000 * 1000;  // microseconds
}  // namespace

// The session holds one reference to the BIO and the SSL object another, so
// each frees its own.
struct SSLConnection::Session {
  BIO* bio = nullptr;
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  std::shared_ptr<TLSContext> context;  // certificate mode: owns what ctx refers to
  std::string host;                     // the name a client expects of the server
  ~Session() {
    if (ssl != nullptr) SSL_free(ssl);
    if (bio != nullptr) BIO_vfree(bio);
    if (ctx != nullptr) SSL_CTX_free(ctx);
  }
};

SSLConnection::SSLConnection() : session_(std::make_shared<Session>()) {}

SSLConnection::SSLConnection(const SSLConnection& other)
    : Connection(other),
      RequireClientCert(other.RequireClientCert),
      CAfile(other.CAfile),
      CertFilenameWithKey(other.CertFilenameWithKey),
      CertFilePassword(other.CertFilePassword),
      ssl_setup(other.ssl_setup),
      ssl_isenc(other.ssl_isenc),
      session_(other.session_) {}

SSLConnection::~SSLConnection() { close(); }

bool SSLConnection::attach_bio(bool socket) {
  if (!holds_descriptor()) return false;
  session_->bio = socket ? BIO_new_socket(*fd, BIO_NOCLOSE) : BIO_new_fd(*fd, BIO_NOCLOSE);
  return session_->bio != nullptr;
}

bool SSLConnection::SetSocket(int* descriptor) {
  close();
  if (!Connection::SetSocket(descriptor)) return false;
  return attach_bio(true);
}

bool SSLConnection::SetFd(int* descriptor) {
  close();
  if (!Connection::SetFd(descriptor)) return false;
  return attach_bio(false);
}

void SSLConnection::release_session() {
  if (session_ != nullptr && session_.use_count() == 1 && session_->ssl != nullptr && ssl_isenc) {
    const zqdetail::SigpipeGuard no_sigpipe;  // OpenSSL writes with write(): the peer may have gone
    SSL_shutdown(session_->ssl);
  }
  session_ = std::make_shared<Session>();
  ssl_isenc = false;
  ssl_setup = false;
}

// Pending output is flushed while the channel is still encrypted; then the
// TLS session and the BIO go, and the descriptor is closed.
void SSLConnection::close() {
  if (IsConnected()) flush(0);
  release_session();
  close_core(true);
}

bool SSLConnection::SSL_setup(bool, std::string, std::string, std::string) {
  zqdetail::openssl_load_providers();
  if (session_->ctx != nullptr) SSL_CTX_free(session_->ctx);
  session_->context.reset();
  session_->ctx = SSL_CTX_new(TLS_method());
  if (session_->ctx == nullptr) return false;
  // Anonymous Diffie-Hellman does not exist in TLS 1.3; security level 0 lets
  // the ADH suites and the fixed groups through.
  SSL_CTX_set_max_proto_version(session_->ctx, TLS1_2_VERSION);
  SSL_CTX_set_tmp_dh_callback(session_->ctx, tmp_dh_callback);
  SSL_CTX_set_options(session_->ctx, SSL_OP_SINGLE_DH_USE | SSL_OP_NO_SSLv2);
  if (SSL_CTX_set_cipher_list(session_->ctx, "ALL:ADH:!LOW:!EXP:!MD5:@STRENGTH:@SECLEVEL=0") != 1) {
    _handle_ssl_error("virtual void ZQSecurity::SSLConnection::SSL_setup(bool, std::string, std::string, std::string)",
                      163, 0);
  }
  ssl_setup = true;
  return true;
}

bool SSLConnection::SSL_start_TLS(bool server) {
  if (!ssl_setup || session_->ctx == nullptr) {
    if (DEBUG_LEVEL >= 0) {
      zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "ERROR: in %s, line %i: cannot setup ssl object, since no SSL_CTX was prepared\n",
                   kStartTLS, 181);
    }
    return false;
  }
  if (!new_ssl()) {
    if (DEBUG_LEVEL >= 0) zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "ERROR: in %s, line %i: cannot setup ssl object\n", kStartTLS, 186);
    return false;
  }
  SSL* ssl = session_->ssl;
  // The descriptor is non-blocking: the handshake waits for each step.
  const long long deadline = GetLLTicks() + kHandshakeLimit;
  for (;;) {
    const int r = [&] {
      const zqdetail::SigpipeGuard no_sigpipe;
      return server ? SSL_accept(ssl) : SSL_connect(ssl);
    }();
    if (r > 0) {
      ssl_isenc = true;
      return true;
    }
    const int e = SSL_get_error(ssl, r);
    const long long remaining = deadline - GetLLTicks();
    if ((e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) && remaining > 0 &&
        holds_descriptor()) {
      pollfd p{*fd, static_cast<short>(e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
      poll(&p, 1, static_cast<int>((remaining + 999) / 1000));
      continue;
    }
    _handle_ssl_error(kStartTLS, server ? 197 : 206, r);
    return false;
  }
}

bool SSLConnection::new_ssl() {
  SSL* ssl = SSL_new(session_->ctx);
  if (ssl == nullptr) return false;
  if (session_->ssl != nullptr) SSL_free(session_->ssl);  // a failed earlier attempt
  session_->ssl = ssl;
  if (session_->bio != nullptr) {
    BIO_up_ref(session_->bio);  // the SSL object's own reference
    SSL_set_bio(ssl, session_->bio, session_->bio);
  }
  if (session_->context != nullptr && !session_->context->IsServer()) {
    return zqdetail::tls_expect_host(ssl, session_->host);
  }
  return true;
}

bool SSLConnection::SSL_use_context(std::shared_ptr<TLSContext> context, const std::string& peer_host) {
  if (context == nullptr) return false;
  if (session_->ctx != nullptr) SSL_CTX_free(session_->ctx);
  SSL_CTX_up_ref(context->Native());
  session_->ctx = context->Native();
  session_->context = std::move(context);
  session_->host = peer_host;
  ssl_setup = true;
  return true;
}

int SSLConnection::SSL_handshake_step(bool server) {
  handshake_events_ = 0;
  if (ssl_isenc) return 1;
  if (!ssl_setup || session_->ctx == nullptr || !holds_descriptor()) {
    tls_error_ = "no TLS context prepared";
    return -1;
  }
  if (session_->ssl == nullptr) {
    ERR_clear_error();
    if (!new_ssl()) {
      tls_error_ = "cannot make the TLS session";
      return -1;
    }
  }
  const int r = [&] {
    const zqdetail::SigpipeGuard no_sigpipe;
    return server ? SSL_accept(session_->ssl) : SSL_connect(session_->ssl);
  }();
  if (r > 0) {
    ssl_isenc = true;
    return 1;
  }
  const int e = SSL_get_error(session_->ssl, r);
  if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
    handshake_events_ = e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    return 0;
  }
  const unsigned long code = ERR_peek_last_error();
  const long verify = SSL_get_verify_result(session_->ssl);
  tls_error_ = verify != X509_V_OK ? X509_verify_cert_error_string(verify)
               : code != 0         ? ERR_reason_error_string(code) != nullptr ? ERR_reason_error_string(code)
                                                                              : "handshake failed"
                                   : "handshake failed (connection closed)";
  ERR_clear_error();
  SSL_free(session_->ssl);
  session_->ssl = nullptr;
  return -1;
}

std::string SSLConnection::PeerIdentity() const {
  return ssl_isenc ? zqdetail::tls_peer_identity(session_->ssl) : std::string();
}

std::string SSLConnection::TLSVersion() const {
  return ssl_isenc ? SSL_get_version(session_->ssl) : "";
}

std::string SSLConnection::TLSCipher() const {
  return ssl_isenc ? SSL_get_cipher_name(session_->ssl) : "";
}

void SSLConnection::_handle_ssl_error(const char* where, int line, int ret) {
  if (session_->ssl == nullptr) return;
  const int code = SSL_get_error(session_->ssl, ret);
  if (code != 0 && DEBUG_LEVEL >= 0) {
    zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "SSL error %i in %s, line %i:\n", code, where, line);
    // OpenSSL's queue, line by line as ERR_print_errors_fp would print it.
    ERR_print_errors_cb(
        [](const char* text, size_t length, void*) {
          zqcommon::WriteDiagnostic(zqcommon::DiagnosticStream::kError, text, length);
          return 1;
        },
        nullptr);
  }
}

bool SSLConnection::IsData_core(int timeout) {
  if (ssl_isenc && session_->ssl != nullptr && SSL_pending(session_->ssl) > 0) return true;
  if (!ssl_isenc && session_->bio != nullptr && BIO_pending(session_->bio) > 0) return true;
  return Connection::IsData_core(timeout);
}

int SSLConnection::read_core(void* buffer, int len, int timeout) {
  if (!IsConnected()) return -1;
  if (!IsData_core(timeout)) return -2;
  if (ssl_isenc) {
    const zqdetail::SigpipeGuard no_sigpipe;  // a read may answer the peer (key update, alerts)
    const int r = SSL_read(session_->ssl, buffer, len);
    if (r > 0) return r;
    const int e = SSL_get_error(session_->ssl, r);
    // Only part of a record has arrived: nothing to hand out yet.
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) return 0;
    return -1;
  }
  const int r = BIO_read(session_->bio, buffer, len);
  if (r >= 1) return r;
  return BIO_should_retry(session_->bio) ? 0 : -1;
}

int SSLConnection::write_core(const void* buffer, int len, int) {
  if (!holds_descriptor()) return -1;
  // OpenSSL's socket writes cannot pass MSG_NOSIGNAL: a peer that has gone
  // must give -1 here, not end the program.
  const zqdetail::SigpipeGuard no_sigpipe;
  if (ssl_isenc) {
    const int r = SSL_write(session_->ssl, buffer, len);
    if (r > 0) return r;
    const int e = SSL_get_error(session_->ssl, r);
    return (e == SSL_ERROR_WANT_WRITE || e == SSL_ERROR_WANT_READ) ? 0 : -1;
  }
  if (session_->bio == nullptr) return Connection::write_core(buffer, len, 0);
  const int r = BIO_write(session_->bio, buffer, len);
  if (r < 1 && BIO_should_retry(session_->bio)) return 0;
  return r;
}

Connection* create_connection() { return new SSLConnection(); }

Connection* create_connection(const Connection& c) {
  if (c.SSL_support()) return new SSLConnection(static_cast<const SSLConnection&>(c));
  return new Connection(c);
}

}  // namespace ZQSecurity
