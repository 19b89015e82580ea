// The station's TCP side: fail-closed listening on numeric addresses (IPv4
// and IPv6), session caps with a refusal line, and session time limits.
#ifndef STATION_NETWORK_H
#define STATION_NETWORK_H

#include <zqcommon/connection.h>
#include <zqcommon/connserv.h>
#include <zqcommon/lib_config.h>
#include <zqcommon/log.h>
#include <zqcommon/sessionlimits.h>

#include <functional>
#include <memory>
#include <string>

#include "station.h"

namespace station {

// [Network]: how the TCP side holds up under load.
struct NetworkSettings : zqcommon::Config_Data {
  NetworkSettings();
  int ListenBacklog = 512;      // listen queue for connect bursts
  int MaxPerAddress = 16;       // sessions from one address
  int LineTimeoutS = 30;        // a line begun but not ended this long is dropped
  std::string Interface6 = "";  // a second, IPv6 address to listen on ("" none)
};

// The [Network] settings as main() loaded and checked them.
NetworkSettings& network_settings();

class Network;

// One session's place in the caps and its clock; releases its place when
// it goes.
struct NetClock {
  NetClock() = default;
  NetClock(const NetClock&) = delete;
  NetClock& operator=(const NetClock&) = delete;
  ~NetClock();
  Network* owner = nullptr;
  std::string address;
  long long partial_since_us = 0;
};

// Listens on Server.Interface (and Network.Interface6) at Server.ListenPort,
// screens with the Server.ACL list (checked: a bad rule stops the start),
// looks no peer name up, caps sessions at Server.MaxConnections in total
// and Network.MaxPerAddress per address. Main thread only.
class Network {
 public:
  Network(Config_File& cfg, ServerSettings& server, Log& log);
  ~Network();
  // False with the reason (naming the value) when a listening address is
  // not numeric, cannot be bound, or the access list has a bad rule. When
  // `adopt` hands over a listening socket (one passed by the service
  // manager), that socket is served instead of binding any address.
  bool Open(std::string* error, const std::function<bool(Connection_Server&)>& adopt = nullptr);
  int Port() const;
  // The next admitted peer and its address, or null. Peers beyond a cap get
  // a refusal line and are closed here. The caller hands the admitted
  // session's clock to Own() at once.
  MySocket* Take(std::string* address);
  void Own(NetClock& clock, const std::string& address);
  // Says why a session must end: a line begun and not ended in time ("" when
  // it may go on; idle sessions are the access gate's).
  std::string Check(NetClock& clock, const Connection& conn);
  void Release(const std::string& address) { limits_.Release(address); }
  void Stop();
  NetworkSettings settings;

 private:
  bool listen_on(std::unique_ptr<Connection_Server>& srv, const char* key, const std::string& address,
                 int port, std::string* error);
  bool serve(Connection_Server& srv, std::string* error, const char* origin = "");
  bool no_family_ = false;  // the last failure: the address family or address is not there
  Config_File& cfg_;
  ServerSettings& server_;
  Log& log_;
  SessionLimits limits_{0, 0};
  std::unique_ptr<Connection_Server> servers_[2];
  unsigned int next_ = 0;  // which server Take asks first
};

}  // namespace station

#endif
