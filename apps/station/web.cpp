// The station's web page: civetweb's threads take requests apart and check
// sessions and CSRF tokens; everything that reads or changes the station
// runs on the main loop (Poll), which answers them.
#include "web.h"

#include <civetweb.h>
#include <link.h>
#include <openssl/ssl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zqcommon/functions.h>
#include <zqpoints/Point.h>
#include <zqsecurity/tlscontext.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <vector>

#include "access.h"
#include "remote_command.h"
#include "station.h"
#include "web_input.h"
#include "web_session.h"

#ifndef ZQ_STATION_VERSION
#define ZQ_STATION_VERSION "unknown"
#endif
#ifndef ZQ_STATION_WEB_SOURCE
#define ZQ_STATION_WEB_SOURCE ""
#endif

namespace station {

using nlohmann::json;

WebSettings::WebSettings() {
  Register("Listen", Listen, zqcommon::Config_Data_INIT.FULL, "", "host:port of the HTTPS page; empty: off");
  Register("Root", Root, zqcommon::Config_Data_INIT.FULL, "", "folder of the page files; empty: the installed one");
  Register("MaxSessions", MaxSessions, zqcommon::Config_Data_INIT.FULL, "", "logged-in browser sessions");
  Register("MaxConnections", MaxConnections, zqcommon::Config_Data_INIT.FULL, "", "connections served at once");
  Register("MaxWebSockets", MaxWebSockets, zqcommon::Config_Data_INIT.FULL, "", "live-data connections");
}

WebSettings& web_settings() {
  static WebSettings settings;
  return settings;
}

std::string web_root(const WebSettings& settings) {
  if (!settings.Root.empty()) return settings.Root;
  struct stat st {};
  const char* installed = "/usr/share/zqcommon-station/web";
  if (stat(installed, &st) == 0 && S_ISDIR(st.st_mode)) return installed;
  return ZQ_STATION_WEB_SOURCE;
}

namespace {

constexpr size_t kMaxJobs = 64;            // requests waiting for the main loop
constexpr size_t kMaxBody = 16 * 1024;     // request bodies read
constexpr size_t kMaxQueued = 64;          // live-data messages waiting per WebSocket
constexpr uint64_t kMaxDropped = 256;      // dropped messages before a WebSocket is closed
constexpr int kAnswerMs = 10000;           // a handler waits this long for the main loop
constexpr long long kBatchMs = 50;         // live data goes out at most this often
const char kDygraphs[] = "/usr/share/javascript/dygraphs/";
const char kSecurityHeaders[] =
    "Content-Security-Policy: default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'\r\n"
    "X-Content-Type-Options: nosniff\r\nReferrer-Policy: same-origin\r\n";

long long now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string dump(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

const char* level_name(int level) {
  return ZQSecurity::UserFile::LevelName(static_cast<ZQSecurity::AccessLevel>(level));
}

// Debian's civetweb 1.15 looks the OpenSSL 1.1 name SSL_get_peer_certificate
// up in libssl at run time; OpenSSL 3 calls it SSL_get1_peer_certificate (the
// old name is a macro), so the entry stays null and the first TLS connection
// would call it. The table of looked-up functions is civetweb's writable
// data: {name, required, function} per entry. The missing entry gets the new
// name's function, which has the same signature and reference count.
int fill_peer_certificate(dl_phdr_info* info, size_t, void* data) {
  if (std::strstr(info->dlpi_name, "libcivetweb.so") == nullptr) return 0;
  static const char kName[] = "SSL_get_peer_certificate";
  auto inside = [info](uintptr_t p) {
    for (int j = 0; j < info->dlpi_phnum; ++j) {
      const ElfW(Phdr)& q = info->dlpi_phdr[j];
      const uintptr_t lo = info->dlpi_addr + q.p_vaddr;
      if (q.p_type == PT_LOAD && p >= lo && p + sizeof kName <= lo + q.p_memsz) return true;
    }
    return false;
  };
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD || (ph.p_flags & PF_W) == 0) continue;
    uintptr_t* w = reinterpret_cast<uintptr_t*>(info->dlpi_addr + ph.p_vaddr);
    const size_t n = ph.p_memsz / sizeof(uintptr_t);
    for (size_t k = 0; k + 2 < n; ++k) {
      if (w[k + 2] != 0 || !inside(w[k]) || std::strcmp(reinterpret_cast<const char*>(w[k]), kName) != 0) continue;
      w[k + 2] = reinterpret_cast<uintptr_t>(&SSL_get1_peer_certificate);
      *static_cast<int*>(data) = 1;
    }
  }
  return 1;
}

}  // namespace

// One request handed to the main loop, and its answer.
struct WebJob {
  enum Kind { kLogin, kCommand, kPoints, kAlarms, kHistory, kStatus, kIo, kSettings, kTraceCsv, kHistoryCsv, kAudit,
              kLog };
  Kind kind = kStatus;
  web::WebSession session;  // the caller (a login: only its peer)
  std::string a, b;         // login: user, password; command: line; history: since, until; audit: text
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  int status = 200;
  std::string type = "application/json", body, headers;
  int level = ZQSecurity::kNoAccess;  // a login's outcome
  bool locked = false;
  long long wait_ms = 0;
};

// One live-data client: its queue, drained by a thread of its own so that a
// client that does not read holds up nobody else.
struct WebSocketClient {
  mg_connection* conn = nullptr;
  web::WebSession session;
  std::mutex m;
  std::condition_variable cv;
  std::deque<std::string> queue;
  bool closing = false;
  uint64_t dropped = 0;
  std::vector<int> points;  // indices subscribed (main thread)
  bool io = false;          // the I/O bits subscribed (main thread)
  std::vector<std::string> wanted;  // names asked for, resolved by the main thread
  bool wanted_io = false;
  bool fresh = false;               // a new subscription waits
  unsigned int last_io = ~0u;       // the I/O byte last sent (main thread)
  std::thread writer;
};

struct WebSample {
  int point;
  int64_t t_us;
  double value;
};

struct WebServer::Impl {
  Impl(Station& s, Gate& g, const WebSettings& w)
      : st(s), gate(g), cfg(w),
        sessions(static_cast<size_t>(std::max(1, w.MaxSessions)),
                 s.server.access_cfg.access.IdleTimeout * 1000LL) {}
  Station& st;
  Gate& gate;
  const WebSettings& cfg;
  web::WebSessions sessions;
  std::string root;
  mg_context* ctx = nullptr;
  int wake = -1;
  std::mutex jobs_m;
  std::deque<std::shared_ptr<WebJob>> jobs;
  uint64_t jobs_refused = 0;
  bool stopping = false;  // under jobs_m: no more jobs taken
  std::function<void(const Record&)> chained;  // the station's record observer before ours
  std::vector<std::pair<std::shared_ptr<WebJob>, std::shared_ptr<PendingLogin>>> logins;  // main thread
  std::mutex ws_m;
  std::vector<std::shared_ptr<WebSocketClient>> clients;
  // Main thread: the points' last acquisition times, the samples since the
  // last batch, and which points anyone watches.
  std::vector<int64_t> seen_t;
  std::vector<char> watched;
  std::vector<WebSample> samples;
  long long last_batch_ms = 0;

  // --- server threads
  bool post(const std::shared_ptr<WebJob>& job);
  bool ask(const std::shared_ptr<WebJob>& job);
  void send(mg_connection* c, int status, const std::string& type, const std::string& body,
            const std::string& headers = "");
  void redirect(mg_connection* c, const std::string& to, const std::string& headers = "");
  // An audit line from a server thread (written by the main loop).
  void audit(const web::WebSession& s, const std::string& text, int result);
  bool session_of(mg_connection* c, web::WebSession& s);
  bool same_origin(mg_connection* c);
  std::string body_of(mg_connection* c);
  int handle(mg_connection* c);
  void login(mg_connection* c, const std::string& peer);
  void file(mg_connection* c, const std::string& path);
  int ws_connect(const mg_connection* c);
  void ws_ready(mg_connection* c);
  int ws_data(mg_connection* c, int bits, char* data, size_t size);
  void ws_close(const mg_connection* c);
  static void write_loop(std::shared_ptr<WebSocketClient> client);

  // --- main thread
  void run(WebJob& job);
  void audited(const web::WebSession& s, const std::string& line, int result);
  void finish(WebJob& job);
  void batch();
  void push(WebSocketClient& c, std::string message);
};

bool WebServer::Impl::post(const std::shared_ptr<WebJob>& job) {
  {
    std::lock_guard<std::mutex> lock(jobs_m);
    if (stopping || jobs.size() >= kMaxJobs) {
      ++jobs_refused;
      return false;
    }
    jobs.push_back(job);
  }
  const uint64_t one = 1;
  const ssize_t ignored = ::write(wake, &one, sizeof one);
  (void)ignored;
  return true;
}

bool WebServer::Impl::ask(const std::shared_ptr<WebJob>& job) {
  if (!post(job)) return false;
  std::unique_lock<std::mutex> lock(job->m);
  return job->cv.wait_for(lock, std::chrono::milliseconds(kAnswerMs), [&job] { return job->done; });
}

void WebServer::Impl::send(mg_connection* c, int status, const std::string& type, const std::string& body,
                           const std::string& headers) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + mg_get_response_code_text(c, status) +
                     "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
                     kSecurityHeaders + headers + "\r\n";
  mg_write(c, head.data(), head.size());
  const char* method = mg_get_request_info(c)->request_method;
  if (!body.empty() && (method == nullptr || std::strcmp(method, "HEAD") != 0)) mg_write(c, body.data(), body.size());
}

void WebServer::Impl::redirect(mg_connection* c, const std::string& to, const std::string& headers) {
  send(c, 303, "text/plain", "", "Location: " + to + "\r\nCache-Control: no-store\r\n" + headers);
}

void WebServer::Impl::audit(const web::WebSession& s, const std::string& text, int result) {
  auto job = std::make_shared<WebJob>();
  job->kind = WebJob::kAudit;
  job->session = s;
  job->a = text;
  job->status = result;
  post(job);
}

bool WebServer::Impl::session_of(mg_connection* c, web::WebSession& s) {
  const char* cookie = mg_get_header(c, "Cookie");
  if (cookie == nullptr) return false;
  const std::string id = web::cookie_value(cookie, "zqsid");
  return id.size() == 64 && sessions.Find(id, now_ms(), s);
}

bool WebServer::Impl::same_origin(mg_connection* c) {
  const char* origin = mg_get_header(c, "Origin");
  if (origin == nullptr) return true;
  const char* host = mg_get_header(c, "Host");
  return host != nullptr && std::string(origin) == std::string("https://") + host;
}

std::string WebServer::Impl::body_of(mg_connection* c) {
  std::string body;
  char buf[4096];
  int n;
  while (body.size() < kMaxBody && (n = mg_read(c, buf, sizeof buf)) > 0) body.append(buf, static_cast<size_t>(n));
  if (body.size() > kMaxBody) body.resize(kMaxBody);
  return body;
}

void WebServer::Impl::file(mg_connection* c, const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return send(c, 404, "text/plain", "not found\n");
  std::ostringstream data;
  data << in.rdbuf();
  static const std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"}, {".css", "text/css"}, {".js", "text/javascript"},
      {".png", "image/png"}, {".svg", "image/svg+xml"}};
  std::string type = "application/octet-stream";
  for (const auto& t : kTypes) {
    const size_t n = std::strlen(t.first);
    if (path.size() > n && path.compare(path.size() - n, n, t.first) == 0) type = t.second;
  }
  send(c, 200, type, data.str());
}

void WebServer::Impl::login(mg_connection* c, const std::string& peer) {
  const auto form = web::parse_form(body_of(c));
  auto job = std::make_shared<WebJob>();
  job->kind = WebJob::kLogin;
  job->session.peer = peer;
  const auto u = form.find("user"), p = form.find("password");
  job->a = u == form.end() ? "" : u->second;
  job->b = p == form.end() ? "" : p->second;
  if (!ask(job)) return send(c, 503, "text/plain", "busy, try again\n");
  if (job->level != ZQSecurity::kNoAccess) {
    web::WebSession s;
    if (!sessions.Open(job->a, job->level, peer, now_ms(), s)) return send(c, 503, "text/plain", "no session\n");
    return redirect(c, "/", "Set-Cookie: " + web::session_cookie(s.id) + "\r\n");
  }
  // The same answer, after the same wait, as a TCP login that failed.
  std::this_thread::sleep_for(std::chrono::milliseconds(job->wait_ms));
  redirect(c, job->locked ? "/login.html?locked=1" : "/login.html?failed=1");
}

int WebServer::Impl::handle(mg_connection* c) {
  const mg_request_info* ri = mg_get_request_info(c);
  const std::string uri = ri->local_uri != nullptr ? ri->local_uri : "/";
  const std::string method = ri->request_method != nullptr ? ri->request_method : "";
  const std::string peer = ri->remote_addr;
  const std::string query = ri->query_string != nullptr ? ri->query_string : "";
  const bool post = method == "POST";
  if (!post && method != "GET" && method != "HEAD") {
    send(c, 405, "text/plain", "method not allowed\n");
    return 405;
  }
  if (uri == "/api/login") {
    if (!post) return send(c, 405, "text/plain", "method not allowed\n"), 405;
    if (!same_origin(c)) return send(c, 403, "text/plain", "cross-site request refused\n"), 403;
    login(c, peer);
    return 303;
  }
  // Pages and files anyone may fetch: the login page and what it uses.
  if (uri.compare(0, 5, "/lib/") == 0) {
    const std::string name = uri.substr(5);
    if (name != "dygraph.min.js" && name != "dygraph.min.css") return send(c, 404, "text/plain", "not found\n"), 404;
    file(c, kDygraphs + name);
    return 200;
  }
  const std::string page = uri == "/" ? "index.html" : uri.substr(1);
  const bool plain_name = page.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_.") == std::string::npos &&
                          page.find("..") == std::string::npos && !page.empty() && page[0] != '.';
  if (plain_name && (page == "login.html" || page == "login.js" || page == "station.css")) {
    file(c, root + "/" + page);
    return 200;
  }
  web::WebSession s;
  const bool api = uri.compare(0, 5, "/api/") == 0 || uri.compare(0, 10, "/download/") == 0 || uri == "/ws";
  if (!session_of(c, s)) {
    if (api) return send(c, 401, "application/json", "{\"error\":\"log in first\"}", "Cache-Control: no-store\r\n"), 401;
    redirect(c, "/login.html");
    return 303;
  }
  if (!api) {
    if (!plain_name) return send(c, 404, "text/plain", "not found\n"), 404;
    file(c, root + "/" + page);
    return 200;
  }
  const std::string nostore = "Cache-Control: no-store\r\n";
  if (post) {
    const char* token = mg_get_header(c, "X-CSRF-Token");
    if (token == nullptr || !web::same_token(token, s.csrf) || !same_origin(c)) {
      audit(s, method + " " + uri + " refused: no valid CSRF token or a foreign origin", 403);
      send(c, 403, "application/json", "{\"error\":\"CSRF token or origin refused\"}", nostore);
      return 403;
    }
  }
  auto job = std::make_shared<WebJob>();
  job->session = s;
  if (uri == "/api/session" && !post) {
    json j = {{"user", s.user}, {"level", level_name(s.level)}, {"csrf", s.csrf}};
    send(c, 200, "application/json", dump(j), nostore);
    return 200;
  } else if (uri == "/api/logout" && post) {
    sessions.Close(s.id);
    audit(s, "logout", 0);
    redirect(c, "/login.html", "Set-Cookie: zqsid=; Path=/; Max-Age=0; HttpOnly; Secure; SameSite=Strict\r\n");
    return 303;
  } else if (uri == "/api/command" && post) {
    std::string error;
    if (!web::parse_command(body_of(c), job->a, error)) {
      send(c, 400, "application/json", dump(json{{"result", 400}, {"error", error}}), nostore);
      return 400;
    }
    job->kind = WebJob::kCommand;
  } else if (post) {
    send(c, 404, "application/json", "{\"error\":\"no such action\"}", nostore);
    return 404;
  } else if (uri == "/api/points") {
    job->kind = WebJob::kPoints;
  } else if (uri == "/api/alarms") {
    job->kind = WebJob::kAlarms;
  } else if (uri == "/api/alarm-history" || uri == "/download/alarm-history.csv") {
    const auto q = web::parse_form(query);
    job->kind = uri[1] == 'a' ? WebJob::kHistory : WebJob::kHistoryCsv;
    job->a = q.count("since") ? q.at("since") : "";
    job->b = q.count("until") ? q.at("until") : "";
  } else if (uri == "/api/status") {
    job->kind = WebJob::kStatus;
  } else if (uri == "/api/log") {
    job->kind = WebJob::kLog;
  } else if (uri == "/api/io") {
    job->kind = WebJob::kIo;
  } else if (uri == "/api/settings") {
    job->kind = WebJob::kSettings;
  } else if (uri == "/download/trace.csv") {
    job->kind = WebJob::kTraceCsv;
  } else {
    send(c, 404, "application/json", "{\"error\":\"not found\"}", nostore);
    return 404;
  }
  if (!ask(job)) {
    send(c, 503, "application/json", "{\"error\":\"the station is busy, try again\"}", nostore);
    return 503;
  }
  send(c, job->status, job->type, job->body, nostore + job->headers);
  return job->status;
}

// ---------------------------------------------------------------- WebSocket

int WebServer::Impl::ws_connect(const mg_connection* cc) {
  mg_connection* c = const_cast<mg_connection*>(cc);
  web::WebSession s;
  if (!session_of(c, s)) {
    send(c, 401, "application/json", "{\"error\":\"log in first\"}");
    return 1;
  }
  if (!same_origin(c)) {
    send(c, 403, "text/plain", "cross-site WebSocket refused\n");
    return 1;
  }
  auto client = std::make_shared<WebSocketClient>();
  client->conn = c;
  client->session = s;
  {
    std::lock_guard<std::mutex> lock(ws_m);
    if (clients.size() >= static_cast<size_t>(std::max(0, cfg.MaxWebSockets))) {
      send(c, 503, "text/plain", "too many live-data connections\n");
      return 1;
    }
    clients.push_back(client);
  }
  return 0;
}

void WebServer::Impl::ws_ready(mg_connection* c) {
  std::lock_guard<std::mutex> lock(ws_m);
  for (auto& client : clients) {
    if (client->conn == c && !client->writer.joinable()) client->writer = std::thread(write_loop, client);
  }
}

int WebServer::Impl::ws_data(mg_connection* c, int bits, char* data, size_t size) {
  const int op = bits & 0x0f;
  if (op == MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE) return 0;
  if (op != MG_WEBSOCKET_OPCODE_TEXT) return 1;
  std::vector<std::string> names;
  bool io = false;
  if (!web::parse_subscribe(std::string(data, size), names, io)) return 1;  // not one: ignored
  std::lock_guard<std::mutex> lock(ws_m);
  for (auto& client : clients) {
    if (client->conn != c) continue;
    std::lock_guard<std::mutex> own(client->m);
    if (client->closing) return 0;
    client->wanted = names;
    client->wanted_io = io;
    client->fresh = true;
  }
  return 1;
}

void WebServer::Impl::ws_close(const mg_connection* c) {
  std::shared_ptr<WebSocketClient> gone;
  {
    std::lock_guard<std::mutex> lock(ws_m);
    for (size_t i = 0; i < clients.size(); ++i) {
      if (clients[i]->conn != c) continue;
      gone = clients[i];
      clients.erase(clients.begin() + static_cast<long>(i));
      break;
    }
  }
  if (gone == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(gone->m);
    gone->closing = true;
  }
  gone->cv.notify_all();
  if (gone->writer.joinable()) gone->writer.join();  // it writes to this connection
}

void WebServer::Impl::write_loop(std::shared_ptr<WebSocketClient> client) {
  std::unique_lock<std::mutex> lock(client->m);
  while (true) {
    client->cv.wait(lock, [&client] { return client->closing || !client->queue.empty(); });
    if (client->closing) break;
    const std::string message = std::move(client->queue.front());
    client->queue.pop_front();
    lock.unlock();
    // Bounded by the server's request time-out when the peer takes nothing.
    const int n = mg_websocket_write(client->conn, MG_WEBSOCKET_OPCODE_TEXT, message.data(), message.size());
    lock.lock();
    if (n <= 0) client->closing = true;
  }
  lock.unlock();
  mg_websocket_write(client->conn, MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE, "", 0);
}

// ---------------------------------------------------------------- main loop

void WebServer::Impl::push(WebSocketClient& c, std::string message) {
  std::lock_guard<std::mutex> lock(c.m);
  if (c.closing) return;
  if (c.queue.size() >= kMaxQueued) {
    c.queue.pop_front();
    if (++c.dropped >= kMaxDropped) c.closing = true;  // it has not read for seconds: closed
  }
  c.queue.push_back(std::move(message));
  c.cv.notify_all();
}

void WebServer::Impl::batch() {
  const zqpoints::PointTable& table = st.points->table;
  std::vector<std::shared_ptr<WebSocketClient>> now;
  {
    std::lock_guard<std::mutex> lock(ws_m);
    now = clients;
  }
  std::fill(watched.begin(), watched.end(), 0);
  const unsigned int io = st.last.io;
  for (auto& c : now) {
    {
      std::lock_guard<std::mutex> lock(c->m);
      if (c->fresh) {
        c->fresh = false;
        c->last_io = ~0u;  // a new subscription gets the bits at once
        c->io = c->wanted_io;
        c->points.clear();
        for (const auto& name : c->wanted) {
          const int i = table.Find(name);
          if (i >= 0) c->points.push_back(i);
        }
      }
    }
    for (int i : c->points) watched[static_cast<size_t>(i)] = 1;
    json out = json::array();
    for (const WebSample& s : samples) {
      if (std::find(c->points.begin(), c->points.end(), s.point) == c->points.end()) continue;
      out.push_back(json::array({table[static_cast<size_t>(s.point)].name(), s.t_us, s.value}));
    }
    if (!out.empty()) push(*c, dump(json{{"type", "samples"}, {"samples", out}}));
    if (c->io && io != c->last_io) {
      c->last_io = io;
      json bits = json::object();
      for (const auto& b : bit_names()) bits[b.first] = (io >> b.second) & 1u;
      push(*c, dump(json{{"type", "io"}, {"t_us", st.last.time_us}, {"bits", bits}}));
    }
  }
  samples.clear();
}

void WebServer::Impl::finish(WebJob& job) {
  {
    std::lock_guard<std::mutex> lock(job.m);
    job.done = true;
  }
  job.cv.notify_all();
}

void WebServer::Impl::audited(const web::WebSession& s, const std::string& line, int result) {
  Session session;
  session.peer = s.peer;
  session.level = s.level;
  session.access.user = s.user;
  audit_line(st.log, session, line, result);
}

void WebServer::Impl::run(WebJob& job) {
  const web::WebSession& s = job.session;
  RemoteCaller who;
  who.user = s.user;
  who.peer = s.peer;
  who.level = s.level;
  StationPoints& sp = *st.points;
  const zqpoints::PointTable& table = sp.table;
  const int64_t now_us = sp.clock.NowUtcUs();
  if (job.kind == WebJob::kCommand || job.kind == WebJob::kTraceCsv) {
    // The level the users file gives now: a lowered or removed user acts at
    // once at the new level (as MQTT requests do), not at the login's.
    who.level = std::min(who.level, static_cast<int>(ZQSecurity::UserLevel(st.settings.UsersFile, s.user)));
  }
  switch (job.kind) {
    case WebJob::kLogin:
      break;  // started by Poll
    case WebJob::kAudit:
      audited(s, job.a, job.status);
      job.status = 200;
      break;
    case WebJob::kCommand: {
      const RemoteAnswer a = run_remote_command(st, who, job.a);
      job.body = dump(json{{"result", a.result}, {"output", a.output}});
      break;
    }
    case WebJob::kPoints: {
      st.Drain();
      json list = json::array();
      for (size_t i = 0; i < table.size(); ++i) {
        const zqpoints::Point& p = table[i];
        const zqpoints::PointConfig& pc = p.config();
        list.push_back({{"name", p.name()}, {"unit", pc.unit}, {"description", pc.description},
                        {"value", p.value()}, {"quality", zqpoints::to_string(p.quality())},
                        {"age_s", p.time_us() == 0 ? -1.0 : (now_us - p.time_us()) / 1e6}, {"t_us", p.time_us()},
                        {"alarm", zqpoints::to_string(p.state())},
                        {"severity", zqpoints::to_string(p.alarm_severity())}, {"lo", pc.lo}, {"hi", pc.hi},
                        {"lolo", pc.lolo}, {"hihi", pc.hihi}, {"range_lo", pc.display_low},
                        {"range_hi", pc.display_high}});
      }
      job.body = dump(json{{"points", list}});
      break;
    }
    case WebJob::kAlarms: {
      json list = json::array();
      for (size_t i = 0; i < table.size(); ++i) {
        const zqpoints::Point& p = table[i];
        if (p.state() == zqpoints::AlarmState::Normal && !p.shelved()) continue;
        list.push_back({{"name", p.name()}, {"state", zqpoints::to_string(p.state())},
                        {"severity", zqpoints::to_string(p.alarm_severity())}, {"value", p.value()},
                        {"t_us", p.time_us()}, {"guidance", p.config().guidance},
                        {"shelved_until", p.shelved_until_us()}});
      }
      job.body = dump(json{{"alarms", list}, {"can_ack", remote_may_run(st, s.level, "ack x")}});
      break;
    }
    case WebJob::kHistory:
    case WebJob::kHistoryCsv: {
      int64_t since = now_us - 86400LL * 1000000, until = INT64_MAX;
      if ((!job.a.empty() && !web::parse_time_us(job.a, since)) ||
          (!job.b.empty() && !web::parse_time_us(job.b, until))) {
        job.status = 400;
        job.body = "{\"error\":\"since and until: epoch seconds or 2026-11-25T19:00:00Z\"}";
        break;
      }
      if (!remote_may_run(st, s.level, "alarm-history")) {
        job.status = 403;
        job.body = "{\"error\":\"not permitted\"}";
        break;
      }
      sp.Poll();
      const auto rows = sp.journal.is_open() ? sp.journal.Query(since, until, 5000)
                                              : std::vector<zqpoints::JournalEntry>();
      if (job.kind == WebJob::kHistoryCsv) {
        audited(s, "download alarm-history.csv", 0);
        auto field = [](const std::string& t) {
          std::string q = "\"";
          for (char ch : t) q += ch == '"' ? std::string("\"\"") : std::string(1, ch);
          return q + "\"";
        };
        std::string csv = "time_utc,point,action,from,to,condition,severity,value,user,comment\n";
        for (const auto& r : rows) {
          csv += Format("%lld,", static_cast<long long>(r.time_us)) + field(r.point) + "," + field(r.action) + "," +
                 field(r.from) + "," + field(r.to) + "," + field(r.condition) + "," + field(r.severity) + "," +
                 Format("%.17g", r.value) + "," + field(r.user) + "," + field(r.comment) + "\n";
        }
        job.type = "text/csv; charset=utf-8";
        job.headers = "Content-Disposition: attachment; filename=\"alarm-history.csv\"\r\n";
        job.body = csv;
        break;
      }
      json list = json::array();
      for (const auto& r : rows) {
        list.push_back({{"t_us", r.time_us}, {"point", r.point}, {"action", r.action}, {"from", r.from},
                        {"to", r.to}, {"condition", r.condition}, {"severity", r.severity}, {"value", r.value},
                        {"user", r.user}, {"comment", r.comment}});
      }
      job.body = dump(json{{"entries", list}, {"journal", sp.journal.is_open()}});
      break;
    }
    case WebJob::kStatus: {
      const SensorTask& t = st.task;
      const CycleStats::Snapshot cs = t.cycle_stats.Read();
      const double up = std::chrono::duration<double>(std::chrono::steady_clock::now() - st.started).count();
      job.body = dump(json{{"version", ZQ_STATION_VERSION}, {"uptime_s", up}, {"cycles", t.CycleCount()},
                           {"period_us", t.CyclePeriod() / 1000}, {"cycle_min_us", t.MinCycleLength() / 1000.0},
                           {"cycle_avg_us", t.AvgCycleLength() / 1000.0},
                           {"cycle_max_us", t.MaxCycleLength() / 1000.0},
                           {"overruns", static_cast<long long>(cs.overruns)}});
      break;
    }
    case WebJob::kLog: {  // the newest entries of the in-memory log, newest first
      // Audit lines name users and addresses: for those who may change the settings.
      if (!remote_may_run(st, s.level, "config save")) {
        job.status = 403;
        job.body = "{\"error\":\"not permitted\"}";
        break;
      }
      json list = json::array();
      for (const Log_Entry& e : st.log) {
        if (list.size() >= 50) break;
        const int t = static_cast<int>(e.type);
        list.push_back({{"time", e.time}, {"type", std::string(1, Log_Entry::eLogTypeS[t >= 0 && t < 17 ? t : 0])},
                        {"text", e.text}});
      }
      job.body = dump(json{{"entries", list}});
      break;
    }
    case WebJob::kIo: {
      st.Drain();
      json bits = json::array();
      for (const auto& b : bit_names()) {
        bits.push_back({{"name", b.first}, {"bit", b.second}, {"value", (st.last.io >> b.second) & 1u}});
      }
      job.body = dump(json{{"bits", bits}, {"can_set", remote_may_run(st, s.level, "io set inject")}});
      break;
    }
    case WebJob::kSettings: {
      json list = json::array();
      for (auto& section : sections(st)) {
        for (auto& entry : *section.second) {
          const std::string path = section.first + "." + entry.first;
          list.push_back({{"name", path}, {"value", entry.second.Value()}, {"unit", entry.second.Unit()},
                          {"range", setting_rules().Allowed(path)},
                          {"description", entry.second.Description()}});
        }
      }
      job.body = dump(json{{"settings", list}, {"can_change", remote_may_run(st, s.level, "config set x y")}});
      break;
    }
    case WebJob::kTraceCsv: {
      const RemoteAnswer a = run_remote_command(st, who, "trace-csv");
      std::ifstream in(st.settings.DumpPath + "/sensor-samples.csv", std::ios::binary);
      if (a.result != 0 || !in) {
        job.status = a.result == 403 ? 403 : 500;
        job.type = "text/plain; charset=utf-8";
        job.body = a.result == 403 ? "not permitted at your level\n" : a.output;
        break;
      }
      std::ostringstream data;
      data << in.rdbuf();
      job.type = "text/csv; charset=utf-8";
      job.headers = "Content-Disposition: attachment; filename=\"trace.csv\"\r\n";
      job.body = data.str();
      break;
    }
  }
}

// ---------------------------------------------------------------- WebServer

WebServer::WebServer(Station& st, Gate& gate, const WebSettings& settings)
    : impl_(std::make_unique<Impl>(st, gate, settings)) {}

WebServer::~WebServer() { Stop(); }

bool WebServer::Running() const { return impl_->ctx != nullptr; }

int WebServer::WakeFd() const { return impl_->ctx != nullptr ? impl_->wake : -1; }

bool WebServer::Start(std::string& error) {
  Impl& m = *impl_;
  const WebSettings& w = m.cfg;
  if (w.Listen.empty()) return true;
  const auto tls = m.gate.ServerTLS();
  if (tls == nullptr) {
    error = "Web.Listen = " + w.Listen + " needs the station's certificate (TLS.CertificateFile is none)";
    return false;
  }
  const size_t colon = w.Listen.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 >= w.Listen.size() ||
      w.Listen.find_first_not_of("0123456789", colon + 1) != std::string::npos) {
    error = "Web.Listen = '" + w.Listen + "': not host:port";
    return false;
  }
  if (w.MaxConnections < 2 || w.MaxWebSockets < 0 || w.MaxWebSockets >= w.MaxConnections || w.MaxSessions < 1) {
    error = "Web.MaxConnections (at least 2), Web.MaxWebSockets (below it) or Web.MaxSessions (at least 1) out of range";
    return false;
  }
  m.root = web_root(w);
  struct stat sb {};
  if (stat((m.root + "/index.html").c_str(), &sb) != 0) {
    error = "Web.Root: no index.html in '" + m.root + "'";
    return false;
  }
  m.wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m.wake < 0) {
    error = std::string("web: eventfd: ") + std::strerror(errno);
    return false;
  }
  mg_init_library(MG_FEATURES_TLS | MG_FEATURES_WEBSOCKET);
  int filled = 0;
  dl_iterate_phdr(fill_peer_certificate, &filled);
  const std::string ports = w.Listen + "s";
  const std::string threads = std::to_string(w.MaxConnections);
  const char* options[] = {"listening_ports", ports.c_str(), "num_threads", threads.c_str(),
                           "request_timeout_ms", "10000", "keep_alive_timeout_ms", "5000",
                           "enable_keep_alive", "yes", "websocket_timeout_ms", "30000",
                           "enable_websocket_ping_pong", "yes", "max_request_size", "16384",
                           "ssl_protocol_version", "4", "listen_backlog", "1024", "connection_queue", "128",
                           nullptr};
  mg_callbacks callbacks{};
  callbacks.init_ssl = [](void* ssl_ctx, void* user) -> int {
    const ZQSecurity::TLSSettings& t = static_cast<Impl*>(user)->st.server.access_cfg.tls;
    SSL_CTX* c = static_cast<SSL_CTX*>(ssl_ctx);
    SSL_CTX_set_min_proto_version(c, t.MinVersion == "1.3" ? TLS1_3_VERSION : TLS1_2_VERSION);
    if (SSL_CTX_use_certificate_chain_file(c, t.CertificateFile.c_str()) != 1) return -1;
    if (SSL_CTX_use_PrivateKey_file(c, t.KeyFile.c_str(), SSL_FILETYPE_PEM) != 1) return -1;
    if (SSL_CTX_check_private_key(c) != 1) return -1;
    if (!t.Ciphers.empty()) SSL_CTX_set_cipher_list(c, t.Ciphers.c_str());
    if (!t.Ciphersuites.empty()) SSL_CTX_set_ciphersuites(c, t.Ciphersuites.c_str());
    return 1;
  };
  callbacks.log_message = [](const mg_connection*, const char*) { return 1; };  // no stderr noise
  m.ctx = mg_start(&callbacks, &m, options);
  if (m.ctx == nullptr) {
    error = "Web.Listen = " + w.Listen + ": the HTTPS server did not start (address in use or not numeric)";
    close(m.wake);
    m.wake = -1;
    return false;
  }
  mg_set_websocket_handler(
      m.ctx, "/ws", [](const mg_connection* c, void* d) { return static_cast<Impl*>(d)->ws_connect(c); },
      [](mg_connection* c, void* d) { static_cast<Impl*>(d)->ws_ready(c); },
      [](mg_connection* c, int bits, char* data, size_t size, void* d) {
        return static_cast<Impl*>(d)->ws_data(c, bits, data, size);
      },
      [](const mg_connection* c, void* d) { static_cast<Impl*>(d)->ws_close(c); }, &m);
  mg_set_request_handler(m.ctx, "/", [](mg_connection* c, void* d) { return static_cast<Impl*>(d)->handle(c); },
                         &m);
  m.seen_t.assign(m.st.points->table.size(), 0);
  m.watched.assign(m.st.points->table.size(), 0);
  m.samples.reserve(4096);
  m.chained = m.st.on_record;
  m.st.on_record = [this](const Record& r) {
    if (impl_->chained) impl_->chained(r);
    OnRecord(r);
  };
  // The port bound (Web.Listen may ask for any free one with port 0).
  mg_server_port bound{};
  const int port = mg_get_server_ports(m.ctx, 1, &bound) == 1 ? bound.port : 0;
  const std::string host = w.Listen.substr(0, colon);
  m.st.log.Add(elog_INFO, 0, "web page on https://%s:%d/ from %s%s", host.c_str(), port, m.root.c_str(),
               filled != 0 ? "" : " (civetweb's peer certificate look-up was not found to fill)");
  std::printf("web port %d\r\n", port);
  std::fflush(stdout);
  return true;
}

void WebServer::OnRecord(const Record&) {
  Impl& m = *impl_;
  if (m.ctx == nullptr) return;
  const zqpoints::PointTable& table = m.st.points->table;
  const size_t n = std::min(table.size(), m.seen_t.size());
  for (size_t i = 0; i < n; ++i) {
    if (m.watched[i] == 0 || table[i].time_us() == m.seen_t[i]) continue;
    m.seen_t[i] = table[i].time_us();
    if (m.samples.size() < 100000) m.samples.push_back({static_cast<int>(i), table[i].time_us(), table[i].value()});
  }
}

void WebServer::Poll() {
  Impl& m = *impl_;
  if (m.ctx == nullptr) return;
  uint64_t count = 0;
  const ssize_t ignored = ::read(m.wake, &count, sizeof count);
  (void)ignored;
  for (int i = 0; i < 64; ++i) {
    std::shared_ptr<WebJob> job;
    {
      std::lock_guard<std::mutex> lock(m.jobs_m);
      if (m.jobs.empty()) break;
      job = m.jobs.front();
      m.jobs.pop_front();
    }
    if (job->kind == WebJob::kLogin) {
      auto check = m.gate.BeginLogin(job->session.peer, job->a, job->b, job->locked);
      if (check != nullptr) {
        m.logins.emplace_back(job, check);
        continue;
      }
      job->wait_ms = m.gate.FinishLogin(job->session.peer, job->a, ZQSecurity::kNoAccess, job->locked, "web");
      m.finish(*job);
      continue;
    }
    m.run(*job);
    m.finish(*job);
  }
  for (size_t i = m.logins.size(); i-- > 0;) {
    auto& l = m.logins[i];
    if (!l.second->done.load(std::memory_order_acquire)) continue;
    WebJob& job = *l.first;
    job.level = l.second->level;
    job.locked = false;
    job.wait_ms = m.gate.FinishLogin(job.session.peer, job.a, l.second->level, job.locked, "web password");
    m.finish(job);
    m.logins.erase(m.logins.begin() + static_cast<long>(i));
  }
  const long long now = now_ms();
  if (now - m.last_batch_ms >= kBatchMs) {
    m.last_batch_ms = now;
    OnRecord(m.st.last);  // the newest record's samples
    m.batch();
  }
}

void WebServer::Stop() {
  Impl& m = *impl_;
  if (m.ctx == nullptr) return;
  m.st.on_record = m.chained;
  {
    std::lock_guard<std::mutex> lock(m.jobs_m);
    m.stopping = true;
    for (auto& job : m.jobs) m.finish(*job);  // answered 503 by their handlers
    m.jobs.clear();
  }
  for (auto& l : m.logins) m.finish(*l.first);
  m.logins.clear();
  mg_stop(m.ctx);  // closes the WebSockets (their writers end in ws_close)
  m.ctx = nullptr;
  close(m.wake);
  m.wake = -1;
}

}  // namespace station
