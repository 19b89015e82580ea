// Certificate-mode TLS contexts: settings, load-time checks, identities.
#include "zqsecurity/tlscontext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "security/tls_identity.h"

namespace ZQSecurity {

TLSSettings::TLSSettings() {
  using zqcommon::Config_Data_INIT;
  Register("CertificateFile", CertificateFile, Config_Data_INIT.FULL, "", "PEM certificate chain of this end");
  Register("KeyFile", KeyFile, Config_Data_INIT.FULL, "", "PEM private key (mode 0600)");
  Register("CAFile", CAFile, Config_Data_INIT.FULL, "", "PEM certificates trusted for the peer");
  Register("VerifyPeer", VerifyPeer, Config_Data_INIT.FULL, "", "none | optional | require");
  Register("MinVersion", MinVersion, Config_Data_INIT.FULL, "", "1.2 | 1.3");
  Register("Ciphers", Ciphers, Config_Data_INIT.FULL, "", "TLS 1.2 cipher list");
  Register("Ciphersuites", Ciphersuites, Config_Data_INIT.FULL, "", "TLS 1.3 cipher suites");
}

namespace {

// OpenSSL's reason for the last failure, and the queue emptied.
std::string openssl_reason() {
  std::string text;
  while (const unsigned long e = ERR_get_error()) {
    const char* reason = ERR_reason_error_string(e);
    if (!text.empty()) text += "; ";
    text += reason != nullptr ? reason : "unknown reason";
  }
  return text.empty() ? "unknown reason" : text;
}

// Exists, is a regular file and can be read; a key must not be readable by
// group or others.
bool check_file(const std::string& what, const std::string& path, bool secret, std::string& error) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    error = what + " " + path + ": no such file";
    return false;
  }
  if (access(path.c_str(), R_OK) != 0) {
    error = what + " " + path + ": not readable";
    return false;
  }
  if (secret && (st.st_mode & 077) != 0) {
    error = what + " " + path + ": readable by group or others (chmod 600 it)";
    return false;
  }
  return true;
}

bool fail(std::string& error, const std::string& text) {
  error = text + ": " + openssl_reason();
  return false;
}

bool configure(SSL_CTX* ctx, const TLSSettings& s, bool server, std::string& error) {
  ERR_clear_error();
  int min_version = 0;
  if (s.MinVersion == "1.2") min_version = TLS1_2_VERSION;
  if (s.MinVersion == "1.3") min_version = TLS1_3_VERSION;
  if (min_version == 0) {
    error = "MinVersion '" + s.MinVersion + "': expected 1.2 or 1.3";
    return false;
  }
  int verify = -1;
  if (s.VerifyPeer == "none") verify = SSL_VERIFY_NONE;
  if (s.VerifyPeer == "optional") verify = SSL_VERIFY_PEER;
  if (s.VerifyPeer == "require") verify = SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
  if (verify < 0) {
    error = "VerifyPeer '" + s.VerifyPeer + "': expected none, optional or require";
    return false;
  }
  SSL_CTX_set_min_proto_version(ctx, min_version);
  SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
  if (SSL_CTX_get_security_level(ctx) < 2) SSL_CTX_set_security_level(ctx, 2);
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_dh_auto(ctx, 1);
  if (SSL_CTX_set_cipher_list(ctx, s.Ciphers.c_str()) != 1) return fail(error, "Ciphers '" + s.Ciphers + "'");
  if (SSL_CTX_set_ciphersuites(ctx, s.Ciphersuites.c_str()) != 1) {
    return fail(error, "Ciphersuites '" + s.Ciphersuites + "'");
  }
  if (server && s.CertificateFile.empty()) {
    error = "CertificateFile: a server needs a certificate";
    return false;
  }
  if (!s.CertificateFile.empty()) {
    if (!check_file("CertificateFile", s.CertificateFile, false, error)) return false;
    if (!check_file("KeyFile", s.KeyFile, true, error)) return false;
    if (SSL_CTX_use_certificate_chain_file(ctx, s.CertificateFile.c_str()) != 1) {
      return fail(error, "CertificateFile " + s.CertificateFile);
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, s.KeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
      return fail(error, "KeyFile " + s.KeyFile);
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
      return fail(error, "KeyFile " + s.KeyFile + " does not match CertificateFile " + s.CertificateFile);
    }
  }
  if (!s.CAFile.empty()) {
    if (!check_file("CAFile", s.CAFile, false, error)) return false;
    if (SSL_CTX_load_verify_locations(ctx, s.CAFile.c_str(), nullptr) != 1) {
      return fail(error, "CAFile " + s.CAFile);
    }
    if (server) {
      STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(s.CAFile.c_str());
      if (names != nullptr) SSL_CTX_set_client_CA_list(ctx, names);
    }
  } else if (!server) {
    SSL_CTX_set_default_verify_paths(ctx);
  } else if (verify != SSL_VERIFY_NONE) {
    error = "VerifyPeer " + s.VerifyPeer + " needs a CAFile";
    return false;
  }
  SSL_CTX_set_verify(ctx, server ? verify : SSL_VERIFY_PEER, nullptr);
  return true;
}

}  // namespace

std::shared_ptr<TLSContext> TLSContext::Create(const TLSSettings& settings, bool server, std::string& error) {
  SSL_CTX* ctx = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
  if (ctx == nullptr) {
    fail(error, "TLS context");
    return nullptr;
  }
  if (!configure(ctx, settings, server, error)) {
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return std::shared_ptr<TLSContext>(new TLSContext(ctx, server));
}

TLSContext::~TLSContext() { SSL_CTX_free(ctx_); }

}  // namespace ZQSecurity

namespace zqdetail {

std::string tls_peer_identity(SSL* ssl) {
  if (ssl == nullptr || SSL_get_verify_result(ssl) != X509_V_OK) return "";
  X509* cert = SSL_get0_peer_certificate(ssl);
  if (cert == nullptr) return "";
  char cn[256] = {};
  if (X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn) > 0) return cn;
  std::string found;
  auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
  for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names) && found.empty(); ++i) {
    const GENERAL_NAME* n = sk_GENERAL_NAME_value(names, i);
    if (n->type == GEN_DNS || n->type == GEN_EMAIL) {
      const ASN1_IA5STRING* v = n->type == GEN_DNS ? n->d.dNSName : n->d.rfc822Name;
      found.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(v)),
                   static_cast<size_t>(ASN1_STRING_length(v)));
    }
  }
  GENERAL_NAMES_free(names);
  return found;
}

bool tls_expect_host(SSL* ssl, const std::string& host) {
  if (host.empty()) return true;
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1) return true;
  ERR_clear_error();
  SSL_set_tlsext_host_name(ssl, host.c_str());
  return SSL_set1_host(ssl, host.c_str()) == 1;
}

}  // namespace zqdetail
