// The station's web page (opt-in, [Web] Listen): HTTPS and WebSocket from
// civetweb on threads of its own, pages from Web.Root, logins through the
// access gate, every action through the one remote command layer. The
// server's threads never touch the station: they hand requests to the main
// loop through a bounded queue and wait for the answer.
#ifndef STATION_WEB_H
#define STATION_WEB_H

#include <zqcommon/ew.h>

#include <memory>
#include <string>

namespace station {

class Station;
class Gate;
struct Record;

// [Web]: absent by default (nothing served).
struct WebSettings : zqcommon::Config_Data {
  WebSettings();
  std::string Listen;       // host:port of the HTTPS server; empty: off
  std::string Root;         // the page files; empty: installed or source folder
  int MaxSessions = 32;     // logged-in browser sessions
  int MaxConnections = 64;  // connections served at once (one thread each)
  int MaxWebSockets = 32;   // live-data connections (within MaxConnections)
};

// The [Web] settings as main() loaded and checked them.
WebSettings& web_settings();

// The folder the pages are served from: Web.Root when set; else the
// installed /usr/share/zqcommon-station/web when it exists; else the source
// folder the station was built from.
std::string web_root(const WebSettings& settings);

// Owned by run(); Start, Poll, OnRecord and Stop on the main thread only.
class WebServer {
 public:
  WebServer(Station& st, Gate& gate, const WebSettings& settings);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;
  // Starts serving when Web.Listen is set (true and nothing else when not);
  // false with the reason naming the setting.
  bool Start(std::string& error);
  // A descriptor that becomes readable when requests wait (for poll), or -1.
  int WakeFd() const;
  // Answers the waiting requests, finishes logins, sends live data.
  void Poll();
  // After every record: the points' new samples for the live data.
  void OnRecord(const Record& r);
  // Stops the server (waits for its threads).
  void Stop();
  bool Running() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace station

#endif
