// A checked OpenSSL context for certificate-authenticated TLS.
#ifndef ZQSECURITY_TLSCONTEXT_H
#define ZQSECURITY_TLSCONTEXT_H

#include <memory>
#include <string>

#include "zqcommon/export.h"
#include "zqsecurity/tlssettings.h"

typedef struct ssl_ctx_st SSL_CTX;

namespace ZQSecurity {

// One side's TLS context made from TLSSettings. Create() checks everything
// it can before any peer connects: the files exist and are readable, the key
// is not readable by group or others, certificate and key match, the CA file
// loads, the names of VerifyPeer and MinVersion and the cipher lists are
// valid. A failure returns null and a message naming the file or setting and
// OpenSSL's reason; private key material never appears in it.
//
// Immutable once made; share it (shared_ptr) between any number of
// connections and threads. Owns its SSL_CTX.
class ZQ_EXPORT TLSContext {
 public:
  static std::shared_ptr<TLSContext> Create(const TLSSettings& settings, bool server, std::string& error);
  ~TLSContext();
  TLSContext(const TLSContext&) = delete;
  TLSContext& operator=(const TLSContext&) = delete;

  SSL_CTX* Native() const { return ctx_; }
  bool IsServer() const { return server_; }

 private:
  TLSContext(SSL_CTX* ctx, bool server) : ctx_(ctx), server_(server) {}
  SSL_CTX* ctx_;
  bool server_;
};

}  // namespace ZQSecurity

#endif
