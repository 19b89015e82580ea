// The station's private certificate authority and its certificates.
#ifndef STATION_CERTIFICATES_H
#define STATION_CERTIFICATES_H

#include <string>
#include <vector>

namespace station {

// Creates `folder` (0700) with ca.pem, ca.key, server.pem and server.key
// (keys 0600; the server's certificate names localhost, 127.0.0.1 and ::1)
// unless ca.pem exists: 1 when created, 0 when present, -1 with `error`.
int ensure_certificates(const std::string& folder, std::string& error);
// The SHA-256 fingerprint of folder/ca.pem ("AB:CD:..."), empty without one.
std::string ca_fingerprint(const std::string& folder);
// folder/NAME.pem and folder/NAME.key (0600), signed by the station's CA.
bool issue_client_certificate(const std::string& folder, const std::string& name, std::string& error);
// Replaces folder/server.pem and server.key (0600) with a certificate for
// `names` (host names or numeric addresses; the first is its common name),
// which keeps localhost, 127.0.0.1 and ::1, signed by the station's CA.
// 0 when written; with `error`, 2 for a bad name, 1 for a file that cannot be
// read or written (the station's exit statuses).
int issue_server_certificate(const std::string& folder, const std::vector<std::string>& names,
                              std::string& error);

}  // namespace station

#endif
