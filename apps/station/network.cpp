// The station's TCP side: listening, admission and session time limits.
#include "network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <cerrno>
#include <unistd.h>
#include <zqcommon/functions.h>

#include <vector>

namespace station {

NetworkSettings::NetworkSettings() {
  Register("ListenBacklog", ListenBacklog, zqcommon::Config_Data_INIT.FULL, "", "listen queue");
  Register("MaxPerAddress", MaxPerAddress, zqcommon::Config_Data_INIT.FULL, "", "sessions per address");
  Register("LineTimeoutS", LineTimeoutS, zqcommon::Config_Data_INIT.FULL, "s", "partial line limit");
  Register("Interface6", Interface6, zqcommon::Config_Data_INIT.FULL, "", "IPv6 address to listen on");
}

NetworkSettings& network_settings() {
  static NetworkSettings settings;
  return settings;
}

NetClock::~NetClock() {
  if (owner != nullptr) owner->Release(address);
}

Network::Network(Config_File& cfg, ServerSettings& server, Log& log)
    : cfg_(cfg), server_(server), log_(log) {
  // As loaded at start (file, local file, command line), not the file alone.
  for (auto& entry : network_settings()) settings.GetEntry(entry.first) = entry.second.Value();
  limits_.SetLimits(static_cast<unsigned int>(std::max(0, server.MaxConnections)),
                    static_cast<unsigned int>(std::max(0, settings.MaxPerAddress)));
}

Network::~Network() { Stop(); }

namespace {

// Whether a listener on `first` already takes the connections to `second`:
// the IPv6 wildcard "::" listens on every address of both families (IPv4
// peers arrive as ::ffff:a.b.c.d), and one address cannot be bound twice.
bool covers(const std::string& first, const std::string& second) {
  in6_addr a{}, b{};
  if (inet_pton(AF_INET6, first.c_str(), &a) != 1) return false;
  return IN6_IS_ADDR_UNSPECIFIED(&a) || (inet_pton(AF_INET6, second.c_str(), &b) == 1 && IN6_ARE_ADDR_EQUAL(&a, &b));
}

}  // namespace

bool Network::listen_on(std::unique_ptr<Connection_Server>& srv, const char* key, const std::string& address,
                        int port, std::string* error) {
  srv = std::make_unique<Connection_Server>("", "");  // configured here, not from a file
  std::string why;
  if (!srv->ListenNumeric(address, port, std::max(1, settings.ListenBacklog), &why)) {
    no_family_ = errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL;
    *error = std::string(key) + ": " + why;
    return false;
  }
  return serve(*srv, error);
}

bool Network::serve(Connection_Server& srv_ref, std::string* error, const char* origin) {
  Connection_Server* srv = &srv_ref;
  // The accept thread's list only hands peers over; the caps are ours.
  srv->SetMaxConn(1024);
  srv->SetPeerLookup(false);
  if (!server_.ACL.empty()) {
    auto* acl = new AccessList;
    std::vector<std::string> problems;
    const bool ok = acl->load_checked(server_.ACL, &problems);
    srv->SetAcl(acl);  // owned by the listening socket
    if (!ok) {
      *error = "Server.ACL: ";
      for (const std::string& p : problems) *error += (p == problems.front() ? "" : "; ") + p;
      return false;
    }
  }
  srv->Start(nullptr);
  log_.Add(elog_INFO, 0, "listening on %s%s, access list %s", srv->LocalAddress().c_str(), origin,
           server_.ACL.empty() ? "none" : server_.ACL.c_str());
  return true;
}

bool Network::Open(std::string* error, const std::function<bool(Connection_Server&)>& adopt) {
  if (adopt) {
    servers_[0] = std::make_unique<Connection_Server>("", "");
    if (adopt(*servers_[0])) return serve(*servers_[0], error, " (socket passed by the service manager)");
    servers_[0].reset();
  }
  if (!listen_on(servers_[0], "Server.Interface", server_.Interface, server_.ListenPort, error)) return false;
  if (!settings.Interface6.empty() && covers(server_.Interface, settings.Interface6)) {
    log_.Add(elog_INFO, 0, "Network.Interface6 = %s: no second listener, Server.Interface = %s takes it",
             settings.Interface6.c_str(), server_.Interface.c_str());
    return true;
  }
  if (!settings.Interface6.empty() &&
      !listen_on(servers_[1], "Network.Interface6", settings.Interface6, servers_[0]->LocalPort(), error)) {
    // A host without IPv6 still serves IPv4; any other failure stops the start.
    if (!no_family_) return false;
    log_.Add(elog_WARN, 0, "%s; serving IPv4 only", error->c_str());
    servers_[1].reset();
    error->clear();
  }
  return true;
}

int Network::Port() const { return servers_[0] != nullptr ? servers_[0]->LocalPort() : -1; }

namespace {

// Whether `n` more descriptors can be opened now: a session needs a few
// besides its socket, and a peer that cannot get them is refused instead.
bool descriptors_left(int n) {
  int fds[4] = {-1, -1, -1, -1};
  bool ok = true;
  for (int i = 0; i < n && i < 4 && ok; ++i) ok = (fds[i] = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
  return ok;
}

}  // namespace

void Network::Own(NetClock& clock, const std::string& address) {
  clock.owner = this;
  clock.address = address;
}

MySocket* Network::Take(std::string* admitted) {
  // Both listeners in turn, so a burst on one does not starve the other.
  for (int tries = 0; tries < 2; ++tries) {
    Connection_Server* srv = servers_[next_ % 2].get();
    ++next_;
    if (srv == nullptr) continue;
    MySocket* peer;
    while ((peer = (*srv)[0]) != nullptr) {
      srv->Remove(peer, false);
      const std::string address = peer->IPList().empty() ? "" : peer->IPList().front();
      std::string why = "out of descriptors";
      if (descriptors_left(4) && limits_.Admit(address, &why)) {
        *admitted = address;
        return peer;
      }
      log_.Add(elog_WARN, 0, "%s refused: %s", address.c_str(), why.c_str());
      SessionLimits::Refuse(peer->sock, why);
      peer->sock = -1;
      delete peer;
    }
  }
  return nullptr;
}

std::string Network::Check(NetClock& clock, const Connection& conn) {
  const long long now = GetLLTicks();
  if (conn.ReadPending() == 0) {
    clock.partial_since_us = 0;
  } else if (clock.partial_since_us == 0) {
    clock.partial_since_us = now;
  }
  if (settings.LineTimeoutS > 0 && clock.partial_since_us != 0 &&
      now - clock.partial_since_us > settings.LineTimeoutS * 1000000LL) {
    return "line not finished in " + std::to_string(settings.LineTimeoutS) + " s";
  }
  return "";
}

void Network::Stop() {
  for (auto& srv : servers_) {
    if (srv != nullptr) srv->stop();
  }
}

}  // namespace station
