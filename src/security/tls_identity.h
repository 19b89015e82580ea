// Certificate checks shared by TLSContext and SSLConnection.
#ifndef ZQSECURITY_SRC_TLS_IDENTITY_H
#define ZQSECURITY_SRC_TLS_IDENTITY_H

#include <string>

typedef struct ssl_st SSL;

namespace zqdetail {

// The verified peer's name: its certificate's common name, else its first
// DNS or e-mail subject alternative name; empty when unverified or absent.
std::string tls_peer_identity(SSL* ssl);
// Makes the handshake check that the peer's certificate names `host` (an IP
// address or a DNS name; empty checks no name). False when OpenSSL refuses it.
bool tls_expect_host(SSL* ssl, const std::string& host);

}  // namespace zqdetail

#endif
