// The station's own certificate authority: made on the first start, it signs
// the server's certificate and, on request, clients' certificates.
#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "certificates.h"

namespace station {

namespace {

struct Free {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(BIO* p) const { BIO_free(p); }
};
typedef std::unique_ptr<EVP_PKEY, Free> Key;
typedef std::unique_ptr<X509, Free> Cert;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Writes a new file of `mode` (never over an existing one).
bool write_new(const std::string& path, const std::string& data, mode_t mode, std::string& error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) {
    error = path + ": cannot create";
    return false;
  }
  const bool ok = fchmod(fd, mode) == 0 && write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size()) &&
                  fsync(fd) == 0;
  close(fd);
  if (!ok) error = path + ": cannot write";
  return ok;
}

template <typename F>
std::string pem(F write) {
  std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
  if (!write(bio.get())) return "";
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(n));
}

bool save(const std::string& base, EVP_PKEY* key, X509* cert, std::string& error) {
  const std::string k = pem([key](BIO* b) { return PEM_write_bio_PrivateKey(b, key, nullptr, nullptr, 0, nullptr, nullptr) == 1; });
  const std::string c = pem([cert](BIO* b) { return PEM_write_bio_X509(b, cert) == 1; });
  return !k.empty() && !c.empty() && write_new(base + ".key", k, 0600, error) && write_new(base + ".pem", c, 0644, error);
}

bool add_ext(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) return false;
  const bool ok = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return ok;
}

// A certificate for `key` named `cn`, signed by issuer_key (self-signed when
// issuer is null), valid for `days`, with the given extensions.
Cert make_cert(EVP_PKEY* key, const std::string& cn, X509* issuer, EVP_PKEY* issuer_key, long days,
               std::initializer_list<std::pair<int, const char*>> exts) {
  Cert cert(X509_new());
  unsigned char serial[16];
  BIGNUM* bn = nullptr;
  if (RAND_bytes(serial, sizeof serial) != 1 || (serial[0] &= 0x7F, (bn = BN_bin2bn(serial, sizeof serial, nullptr)) == nullptr)) {
    return nullptr;
  }
  BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
  BN_free(bn);
  X509_set_version(cert.get(), 2);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * 86400L);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("station"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
  X509* signer = issuer != nullptr ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  for (const auto& e : exts) {
    if (!add_ext(cert.get(), signer, e.first, e.second)) return nullptr;
  }
  if (X509_sign(cert.get(), issuer_key != nullptr ? issuer_key : key, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

Key load_key(const std::string& path) {
  std::unique_ptr<BIO, Free> bio(BIO_new_file(path.c_str(), "r"));
  return Key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

Cert load_cert(const std::string& path) {
  std::unique_ptr<BIO, Free> bio(BIO_new_file(path.c_str(), "r"));
  return Cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

// The names every server certificate of the station carries.
const char kLocalNames[] = "DNS:localhost,IP:127.0.0.1,IP:::1";

// A server certificate named `cn`, for the subject alternative names `san`.
Cert server_cert(EVP_PKEY* key, const std::string& cn, const std::string& san, X509* ca, EVP_PKEY* ca_key) {
  return make_cert(key, cn, ca, ca_key, 825,
                   {{NID_basic_constraints, "critical,CA:FALSE"},
                    {NID_key_usage, "critical,digitalSignature"},
                    {NID_ext_key_usage, "serverAuth"},
                    {NID_subject_alt_name, san.c_str()}});
}

// The station's CA from `folder`; false with `error` when it is not there.
bool load_ca(const std::string& folder, Key& key, Cert& cert, std::string& error) {
  key = load_key(folder + "/ca.key");
  cert = load_cert(folder + "/ca.pem");
  if (key && cert) return true;
  error = folder + "/ca.pem or ca.key: cannot read (start the station once to create them)";
  return false;
}

// "DNS:name" or "IP:address" for a host name or a numeric address; "" when
// `name` is neither (empty, too long, or other characters than a host name's).
std::string alt_name(const std::string& name) {
  unsigned char address[16];
  if (inet_pton(AF_INET, name.c_str(), address) == 1 || inet_pton(AF_INET6, name.c_str(), address) == 1) {
    return "IP:" + name;
  }
  const bool ok = !name.empty() && name.size() <= 253 && name.front() != '-' && name.front() != '.' &&
                  name.find("..") == std::string::npos &&
                  name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-") ==
                      std::string::npos;
  return ok ? "DNS:" + name : "";
}

}  // namespace

std::string ca_fingerprint(const std::string& folder) {
  Cert ca = load_cert(folder + "/ca.pem");
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (!ca || X509_digest(ca.get(), EVP_sha256(), md, &n) != 1) return "";
  std::string text;
  char hex[4];
  for (unsigned int i = 0; i < n; ++i) {
    std::snprintf(hex, sizeof hex, i + 1 < n ? "%02X:" : "%02X", md[i]);
    text += hex;
  }
  return text;
}

int ensure_certificates(const std::string& folder, std::string& error) {
  if (exists(folder + "/ca.pem")) return 0;
  if (mkdir(folder.c_str(), 0700) != 0 && !exists(folder)) {
    error = folder + ": cannot create the folder";
    return -1;
  }
  Key ca_key(EVP_EC_gen("P-256")), server_key(EVP_EC_gen("P-256"));
  if (!ca_key || !server_key) {
    error = "cannot make keys";
    return -1;
  }
  Cert ca = make_cert(ca_key.get(), "station CA", nullptr, nullptr, 3650,
                      {{NID_basic_constraints, "critical,CA:TRUE"},
                       {NID_key_usage, "critical,keyCertSign,cRLSign"},
                       {NID_subject_key_identifier, "hash"}});
  Cert server = server_cert(server_key.get(), "localhost", kLocalNames, ca.get(), ca_key.get());
  if (!ca || !server) {
    error = "cannot make the certificates";
    return -1;
  }
  // The server's files first: ca.pem, written last, marks a complete set.
  if (!save(folder + "/server", server_key.get(), server.get(), error) ||
      !save(folder + "/ca", ca_key.get(), ca.get(), error)) {
    return -1;
  }
  return 1;
}

bool issue_client_certificate(const std::string& folder, const std::string& name, std::string& error) {
  Key ca_key;
  Cert ca;
  if (!load_ca(folder, ca_key, ca, error)) return false;
  Key key(EVP_EC_gen("P-256"));
  Cert cert = key ? make_cert(key.get(), name, ca.get(), ca_key.get(), 825,
                              {{NID_basic_constraints, "critical,CA:FALSE"},
                               {NID_key_usage, "critical,digitalSignature"},
                               {NID_ext_key_usage, "clientAuth"}})
                  : nullptr;
  if (!cert) {
    error = "cannot make the certificate";
    return false;
  }
  return save(folder + "/" + name, key.get(), cert.get(), error);
}

int issue_server_certificate(const std::string& folder, const std::vector<std::string>& names,
                              std::string& error) {
  std::string san;
  for (const std::string& name : names) {
    const std::string alt = alt_name(name);
    if (alt.empty()) {
      error = "host name '" + name + "': letters, digits, '-' and '.', or a numeric address";
      return 2;
    }
    san += alt + ",";
  }
  if (names.empty()) {
    error = "no host name";
    return 2;
  }
  Key ca_key;
  Cert ca;
  if (!load_ca(folder, ca_key, ca, error)) return 1;
  Key key(EVP_EC_gen("P-256"));
  Cert cert = key ? server_cert(key.get(), names.front(), san + kLocalNames, ca.get(), ca_key.get()) : nullptr;
  if (!cert) {
    error = "cannot make the certificate";
    return 1;
  }
  // Written beside the old pair, then renamed over it: never a half-written file.
  const std::string base = folder + "/server";
  unlink((base + ".new.key").c_str());
  unlink((base + ".new.pem").c_str());
  if (!save(base + ".new", key.get(), cert.get(), error)) return 1;
  if (rename((base + ".new.key").c_str(), (base + ".key").c_str()) != 0 ||
      rename((base + ".new.pem").c_str(), (base + ".pem").c_str()) != 0) {
    error = base + ".pem: cannot replace";
    return 1;
  }
  return 0;
}

}  // namespace station
