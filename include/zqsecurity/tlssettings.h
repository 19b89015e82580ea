// Settings of a certificate-authenticated TLS endpoint, loadable from a section.
#ifndef ZQSECURITY_TLSSETTINGS_H
#define ZQSECURITY_TLSSETTINGS_H

#include <string>

#include "zqcommon/ew.h"
#include "zqcommon/export.h"

namespace ZQSecurity {

// What a TLSContext is built from. Load it from a section of a Config_File
// like any settings structure (keys as the member names). File names are
// taken as given (relative to the working directory).
//
//   CertificateFile  PEM chain of this end (a server needs one; a client only
//                    for mutual TLS)
//   KeyFile          its PEM private key; refused when group or others may read it
//   CAFile           PEM certificates trusted for the peer (a client without
//                    one uses the system's store)
//   VerifyPeer       server side: none | optional | require (a client
//                    certificate from CAFile); a client always verifies
//   MinVersion       1.2 | 1.3; the highest both ends allow is negotiated
//   Ciphers          TLS 1.2 suites (OpenSSL cipher list)
//   Ciphersuites     TLS 1.3 suites
//
// The defaults allow only forward-secret AEAD suites: no anonymous, NULL,
// export, RC4 or CBC suites, and the security level is never lowered
// (at least 2: RSA and DH of 2048 bits or more). Not locked.
struct ZQ_EXPORT TLSSettings : zqcommon::Config_Data {
  TLSSettings();
  std::string CertificateFile;
  std::string KeyFile;
  std::string CAFile;
  std::string VerifyPeer = "none";
  std::string MinVersion = "1.2";
  std::string Ciphers =
      "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!aNULL:!eNULL:!EXPORT:!RC4:!MD5:!DSS:!PSK:!SRP";
  std::string Ciphersuites = "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";
};

}  // namespace ZQSecurity

#endif
