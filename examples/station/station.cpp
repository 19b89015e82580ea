// station: a measurement-and-control program built on libzqcommon.
//
//   station [-h] [-d LEVEL] [-f FILE] [Section.Key=VALUE ...]
//
// Reads FILE (default station.cfg) into its settings, lets Section.Key=VALUE
// arguments override them (Server.ListenPort=0 picks a free port), starts the
// sensor task and the TCP server, and serves the command set on this
// terminal and to every TCP client the access list lets in. Prints
// "tcp port N" once it listens. Without a terminal on standard input (as
// under a service manager) it serves TCP clients only. "exit" at the
// terminal, SIGINT, SIGTERM or SIGHUP stop it cleanly.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <zqcommon/bug.h>
#include <zqcommon/cli.h>
#include <zqcommon/connserv.h>
#include <zqcommon/functions.h>
#include <zqsecurity/sslconnection.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "fleet.h"
#include "station.h"

namespace {

using station::Session;
using station::Station;

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

void install_signals() {
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

// Entries of a /proc folder (threads, descriptors), "." and ".." left out.
int count_entries(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return -1;
  int n = 0;
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
  closedir(dir);
  return n;
}

// A FILE whose writes append to a string: a network session's answer.
FILE* string_stream(std::string* sink) {
  cookie_io_functions_t io{};
  io.write = [](void* cookie, const char* buf, size_t n) -> ssize_t {
    static_cast<std::string*>(cookie)->append(buf, n);
    return static_cast<ssize_t>(n);
  };
  return fopencookie(sink, "w", io);
}

// One TCP client: its socket (the connection closes the descriptor and
// marks it -1), the connection, which can switch to TLS, and an interpreter
// whose answers collect in `reply`.
struct Client {
  std::unique_ptr<MySocket> socket;
  std::unique_ptr<Connection> conn{ZQSecurity::create_connection()};
  std::string reply;
  FILE* in = std::fopen("/dev/null", "r");
  FILE* out = string_stream(&reply);
  Session session;
  std::unique_ptr<CLI> cli;
  ~Client() {
    cli.reset();
    if (in != nullptr) std::fclose(in);
    if (out != nullptr) std::fclose(out);
  }
};

const char kPrompt[] = "station> ";

// Sends what the interpreter wrote, then the prompt.
void answer(Client& c, bool prompt) {
  std::fflush(c.out);
  if (prompt) c.reply += kPrompt;
  if (!c.reply.empty()) c.conn->writeln(c.reply, false, 0);
  c.reply.clear();
}

// Runs every complete line the client sent. False once the client is gone.
bool serve(Client& c, Log& log) {
  std::string line;
  for (;;) {
    const int r = c.conn->readln(line, false, 0);
    if (r == -3) c.conn->close();  // a line beyond the limit: drop the client
    if (r < 0 || (r == 0 && !c.conn->IsConnected())) break;
    if (r == 0) continue;
    const std::string text = Trim(line);
    const std::string word = text.substr(0, text.find(' '));
    if (word == "exit" || word == "quit") {
      c.conn->writeln("bye");
      c.conn->close();
      break;
    }
    log.Add(elog_INFO, 0, "%s: %s", c.session.peer.c_str(), station::escape_controls(text).c_str());
    if (!word.empty() && c.cli->find_command(word) == nullptr) {
      std::fprintf(c.out, "%s: command not found\r\n", word.c_str());
    } else {
      std::string copy = text;
      c.cli->parse(copy);
    }
    answer(c, !c.session.want_tls);
    if (c.session.want_tls) {
      c.session.want_tls = false;
      c.conn->flush(Connection::wait_1s);
      const bool ok = c.conn->SSL_setup(true, "", "", "") && c.conn->SSL_start_TLS(true);
      log.Add(ok ? elog_INFO : elog_WARN, 0, "%s: TLS %s", c.session.peer.c_str(),
              ok ? "started" : "handshake failed");
      if (!ok) c.conn->close();
      else answer(c, true);
    }
  }
  return c.conn->IsConnected();
}


// Section.Key=VALUE arguments override the file's settings; false when one
// names no setting or its value does not fit.
bool apply_overrides(Config_File& cfg, const station::SettingsList& all) {
  bool ok = true;
  for (const std::string& name : cfg.get_section_entries("@@Argline")) {
    if (name.find('.') == std::string::npos) continue;
    const std::string value = cfg.get_entry("@@Argline", name, "");
    zqcommon::Config_Data_Entry* e = station::find_setting(all, name);
    std::string why;
    if (e == nullptr) {
      std::fprintf(stderr, "station: cannot set %s to '%s'\n", name.c_str(), value.c_str());
      ok = false;
    } else if (!station::setting_rules().Assign(*e, name, value, &why)) {
      std::fprintf(stderr, "station: cannot set %s\n", why.c_str());
      ok = false;
    }
  }
  return ok;
}

int run(Config_File& cfg, Log_Config_Data& logcfg, Log& log, station::StationSettings& settings,
        station::ServerSettings& server) {
  Station st(cfg, settings, server, logcfg, log);
  st.task.Start(nullptr);
  for (int i = 0; i < 2000 && st.task.CycleCount() == 0 && st.task.thread::IsRunning(); ++i) usleep(1000);
  if (st.task.CycleCount() == 0) {
    std::fprintf(stderr,
                 "station: the sensor task did not start. It locks the process's memory, which\n"
                 "needs root or an unlimited locked-memory limit (ulimit -l unlimited).\n");
    log.Add(elog_PANIC, 1, "the sensor task did not start");
    return 1;
  }

  Connection_Server srv(server.ListenPort, server.MaxConnections, server.Interface);
  if (!srv.isactive) {
    std::fprintf(stderr, "station: cannot listen on %s:%d\n", server.Interface.c_str(), server.ListenPort);
    log.Add(elog_PANIC, 2, "cannot listen on %s:%d", server.Interface.c_str(), server.ListenPort);
    return 1;
  }
  if (!server.ACL.empty()) {
    auto* acl = new AccessList;
    acl->load_ACL(server.ACL);
    srv.SetAcl(acl);  // owned by the listening socket
  }
  srv.Start(nullptr);
  std::printf("tcp port %d\r\n", srv.LocalPort());
  std::fflush(stdout);
  log.Add(elog_INFO, 0, "listening on %s:%d, access list %s", server.Interface.c_str(), srv.LocalPort(),
          server.ACL.empty() ? "none" : server.ACL.c_str());

  station::Fleet fleet(st);
  if (!fleet.Start()) return 1;

  std::unique_ptr<CLI> terminal;
  Session console;
  console.station = &st;
  console.out = stdout;
  console.peer = "terminal";
  if (isatty(STDIN_FILENO)) {
    terminal = std::make_unique<CLI>(stdin, stdout, stderr);
    station::register_commands(*terminal, console);
  } else {
    log.Add(elog_INFO, 0, "no terminal: serving TCP clients only");
  }

  std::vector<std::unique_ptr<Client>> clients;
  std::vector<pollfd> fds;
  bool terminal_ready = terminal != nullptr;  // shows the first prompt
  while (!g_stop) {
    st.Drain();
    station::report_log_losses(st, GetUTC());
    fleet.Poll();
    while (MySocket* peer = srv[0]) {
      srv.Remove(peer, false);
      auto c = std::make_unique<Client>();
      c->socket.reset(peer);
      if (c->in == nullptr || c->out == nullptr) {  // out of descriptors or memory
        const std::string refusal = "station: out of resources, try again later\r\n";
        const ssize_t ignored = ::write(peer->sock, refusal.data(), refusal.size());
        (void)ignored;
        log.Add(elog_WARN, 0, "%s refused: out of resources", peer->Name().c_str());
        continue;
      }
      c->conn->SetSocket(&c->socket->sock);
      c->session.station = &st;
      c->session.out = c->out;
      c->session.network = true;
      c->session.peer = peer->IPList().empty() ? peer->Name() : peer->IPList().front();
      c->cli = std::make_unique<CLI>(c->in, c->out, c->out);
      c->cli->SetLimits(128 * 1024, 1024 * 1024);
      station::register_commands(*c->cli, c->session);
      log.Add(elog_INFO, 0, "%s connected", c->session.peer.c_str());
      c->reply = "station ready, type help\r\n";
      answer(*c, true);
      clients.push_back(std::move(c));
    }
    st.clients = static_cast<unsigned int>(clients.size());
    if (terminal_ready && terminal->update_all() == 4) break;

    fds.clear();
    if (terminal) fds.push_back(pollfd{STDIN_FILENO, POLLIN, 0});
    for (const auto& c : clients) {
      const short events = POLLIN | (c->conn->WritePending() != 0 ? POLLOUT : 0);
      fds.push_back(pollfd{c->conn->Descriptor(), events, 0});
    }
    if (poll(fds.data(), fds.size(), 20) < 0) continue;  // EINTR: a signal
    const size_t first = terminal ? 1 : 0;
    if (terminal) {
      terminal_ready = (fds[0].revents & POLLIN) != 0;
      if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
        log.Add(elog_INFO, 0, "the terminal went away: serving TCP clients only");
        terminal.reset();
        terminal_ready = false;
      }
    }
    for (size_t i = clients.size(); i-- > 0;) {
      Client& c = *clients[i];
      const short ev = fds[first + i].revents;
      if (ev & POLLOUT) c.conn->flush(0);
      if ((ev & (POLLIN | POLLHUP | POLLERR)) && !serve(c, log)) {
        log.Add(elog_INFO, 0, "%s disconnected", c.session.peer.c_str());
        clients.erase(clients.begin() + static_cast<long>(i));
      }
    }
  }

  log.Add(elog_INFO, 0, "stopping: %zu clients, %lld cycles", clients.size(), st.task.CycleCount());
  for (auto& c : clients) c->conn->writeln("station stopping");
  clients.clear();
  srv.stop();
  st.task.Stop();
  if (terminal) std::fputs("\r\n", stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // (Each count of descriptors includes the one listing them.)
  const int fds_at_start = count_entries("/proc/self/fd") - 1;
  const int threads_at_start = count_entries("/proc/self/task");
  Config_File cfg(argc, argv);
  DEBUG_LEVEL = cfg.get_debug(0);
  if (cfg.parse_argline_default(
          "Section.Key=VALUE: override a setting of station.cfg (e.g. Server.ListenPort=0)")) {
    return 0;
  }
  cfg.open_argfile("station.cfg");

  station::StationSettings settings;
  station::ServerSettings server;
  Log_Config_Data logcfg;
  std::string why;
  if (!station::setting_rules().CheckFile(cfg, &why)) {
    std::fprintf(stderr, "station: %s\n", why.c_str());
    return 2;
  }
  settings.Load(cfg, "Station");
  server.Load(cfg, "Server");
  logcfg.Load(cfg, "Log");
  station::fleet_settings().mqtt.Load(cfg, "MQTT");
  station::fleet_settings().metrics.Load(cfg, "Metrics");
  if (!apply_overrides(cfg, station::sections(settings, server, logcfg))) return 2;
  if (settings.PeriodUs <= 0) {
    std::fprintf(stderr, "station: Station.PeriodUs must be positive\n");
    return 2;
  }
  install_signals();

  Log log(logcfg);
  log.Start();
  log.Add(elog_INFO, 0, "station starting, configuration %s, debug level %d",
          cfg.getfilename().c_str(), DEBUG_LEVEL);
  const int rc = run(cfg, logcfg, log, settings, server);
  // Everything but the log is gone now: the threads of the start, and its
  // descriptors plus the log file.
  const int threads = count_entries("/proc/self/task");
  const int fds = count_entries("/proc/self/fd") - 1;
  log.Add(elog_INFO, 0, "stopped: %d thread(s) (%d at start), %d descriptors (%d at start, %d for the log)",
          threads, threads_at_start, fds, fds_at_start, log.f != nullptr ? 1 : 0);
  log.Flush();
  return rc;
}
