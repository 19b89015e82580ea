// The station's private certificate authority and its certificates.
#ifndef STATION_CERTIFICATES_H
#define STATION_CERTIFICATES_H

#include <string>

namespace station {

// Creates `folder` (0700) with ca.pem, ca.key, server.pem and server.key
// (keys 0600; the server's certificate names localhost, 127.0.0.1 and ::1)
// unless ca.pem exists: 1 when created, 0 when present, -1 with `error`.
int ensure_certificates(const std::string& folder, std::string& error);
// The SHA-256 fingerprint of folder/ca.pem ("AB:CD:..."), empty without one.
std::string ca_fingerprint(const std::string& folder);
// folder/NAME.pem and folder/NAME.key (0600), signed by the station's CA.
bool issue_client_certificate(const std::string& folder, const std::string& name, std::string& error);

}  // namespace station

#endif
