// station: a measurement-and-control program built on libzqcommon.
//
//   station [-h] [-v] [-d LEVEL] [-f FILE] [Section.Key=VALUE ...]
//   station --passwd NAME LEVEL | --issue-client-cert NAME | --issue-server-cert HOSTNAME...
//
// Reads FILE (default station.cfg) into its settings, lets Section.Key=VALUE
// arguments override them (Server.ListenPort=0 picks a free port), starts the
// sensor task and the TCP server, and serves the command set on this
// terminal and to every TCP client the access list lets in. Prints
// "tcp port N" once it listens. Without a terminal on standard input (as
// under a service manager) it serves TCP clients only. "exit" at the
// terminal, SIGINT and SIGTERM stop it cleanly; SIGHUP reopens the log and
// reloads the settings (service.h).
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/bug.h>
#include <zqcommon/cli.h>
#include <zqcommon/cli_editor.h>
#include <zqcommon/connserv.h>
#include <zqcommon/functions.h>
#include <zqsecurity/sslconnection.h>
#include <zqsecurity/userfile.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <vector>

#include "devices.h"
#include "fleet.h"
#include "web.h"
#include "machine.h"
#include "network.h"
#include "service.h"
#include "settings.h"
#include "station.h"
#include "workers.h"

namespace {

using station::Session;
using station::Station;

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_reload = 0;
void on_signal(int sig) { (sig == SIGHUP ? g_reload : g_stop) = 1; }

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
  station::NetClock net;  // its place in the session caps and its time limits
  std::string keys;       // editing mode: keys read and not yet handed to the editor
  bool more = false;      // work left for the next turn (lines or keys already read)
  ~Client() {
    // Accepted sockets linger up to a second on close while the peer does not
    // take what is left to send; a session that ends must not hold up the
    // others, so the kernel finishes its close in the background.
    if (socket != nullptr && socket->sock >= 0) {
      const linger off{0, 0};
      setsockopt(socket->sock, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    }
    cli.reset();
    if (in != nullptr) std::fclose(in);
    if (out != nullptr) std::fclose(out);
  }
};

const char kPrompt[] = "station> ";
// Unsent answers beyond which a session is not read from until its peer
// takes them (the connection's write buffer, 128,000 bytes, ends it).
const unsigned int kUntakenBytes = 32768;

// Sends what the interpreter wrote, then the prompt; in machine mode every
// answer is framed instead.
void answer(Client& c, bool prompt) {
  std::fflush(c.out);
  if (c.session.machine && (prompt || !c.reply.empty())) {
    station::frame_answer(c.session, c.reply);
  } else if (prompt && !c.session.machine) {
    c.reply += kPrompt;
  }
  if (!c.reply.empty()) c.conn->writeln(c.reply, false, 0);
  c.reply.clear();
}

// A session in editing mode: every key goes to its interpreter, which
// echoes and draws its own prompt; each counts as activity for the idle
// time-out. Keys are read through the TLS layer once it is on (the socket
// may not show what TLS holds). A turn hands the editor small runs of keys
// until a few milliseconds pass or the answer grows past a bound; what is
// left waits for the next turn, and nothing more is read while the peer
// has not taken what it was sent. False once the client is gone.
bool serve_keys(Client& c) {
  const size_t kRead = 16384, kRun = 16, kTurnAnswer = 32768;
  const long long kTurnUs = 5000;
  if (c.keys.size() < kRead && c.conn->WritePending() < kTurnAnswer) {
    std::string fresh;
    if (c.conn->read_available(fresh, kRead - c.keys.size(), 0) > 0) {
      c.keys += fresh;
      c.session.access.active_ms = station::Gate::NowMs();
    }
  }
  const long long start = GetLLTicks();
  size_t taken = 0;
  bool ended = false;
  while (taken < c.keys.size() && !ended && c.reply.size() < kTurnAnswer && GetLLTicks() - start < kTurnUs) {
    const size_t n = std::min(kRun, c.keys.size() - taken);
    c.cli->Editor()->Feed(c.keys.data() + taken, n);
    taken += n;
    ended = c.cli->update_all() == 4;
    std::fflush(c.out);
  }
  if (taken == 0) ended = c.cli->update_all() == 4;
  c.keys.erase(0, taken);
  c.more = !c.keys.empty() || c.conn->ReadPending() != 0;
  if (c.session.want_tls) {
    c.session.want_tls = false;
    c.reply += "starttls: not in editing mode (connect again and use it first)\r\n";
  }
  answer(c, false);
  if (ended) {
    c.conn->writeln("bye");
    c.conn->close();
  }
  return c.conn->IsConnected();
}

// Runs every complete line the client sent. False once the client is gone.
bool serve(Client& c, Log& log, station::Gate& gate) {
  if (c.cli->Editor() != nullptr) {
    if (gate.Held(c.session, station::Gate::NowMs())) return c.conn->IsConnected();
    return serve_keys(c);
  }
  std::string line;
  c.more = false;
  for (int lines = 0;; ++lines) {
    if (gate.Held(c.session, station::Gate::NowMs()) || c.session.access.handshake_until_ms != 0) break;
    if (lines == 32) {  // a bounded share of the turn; the rest waits for the next one
      c.more = true;
      break;
    }
    // A password is taken as typed ('#' is no comment in it).
    c.conn->Set_Modify(c.session.access.step == station::AccessState::kCommand);
    const int r = c.conn->readln(line, false, 0);
    if (r == -3) {  // a line beyond the limit: refused, the session kept
      gate.LineTooLong(c.session, *c.conn, c.out);
      c.session.code = station::kAnswerFailed;
      answer(c, false);
      continue;
    }
    if (r < 0 || (r == 0 && !c.conn->IsConnected())) break;
    if (gate.Dropped(c.session, r)) continue;  // the end of that line
    if (r == 0) continue;
    const std::string text = Trim(line);
    const std::string word = text.substr(0, text.find(' '));
    if ((word == "exit" || word == "quit") && c.session.access.step == station::AccessState::kCommand) {
      c.conn->writeln("bye");
      c.conn->close();
      break;
    }
    const bool password = c.session.access.step == station::AccessState::kPassword;
    if (gate.Screen(*c.cli, c.session, *c.conn, line, c.out)) {
      // A login step or a refusal: neither history nor the log sees it.
      c.session.code = password ? station::kAnswerLogin : station::kAnswerRefused;
    } else if (!word.empty() && c.cli->find_command(word) == nullptr) {
      std::fprintf(c.out, "%s: command not found\r\n", word.c_str());
      gate.Audit(c.session, text, -1);
      c.session.code = station::kAnswerFailed;
    } else {
      std::string copy = text;
      c.cli->parse(copy);
      gate.Audit(c.session, text, c.cli->retcode);
      c.session.code = station::command_code(*c.cli, text);
    }
    if (c.session.want_editing) {
      station::setup_console(*c.cli, c.session, "");
      Session* session = &c.session;
      c.cli->Editor()->SetOutputBounds(true, 200);
      c.cli->Editor()->SetLineFilter(
          [&gate, session](const std::string& text) { return gate.EditedLine(*session, text); });
      c.cli->Editor()->SetLineHook([&log, &gate, session](const std::string& text) {
        if (!gate.Logged(*session, text)) return;
        log.Add(elog_INFO, 0, "%s: %s", session->peer.c_str(), station::escape_controls(text).c_str());
      });
      answer(c, false);
      c.cli->update_all();  // its prompt
      answer(c, false);
      return serve_keys(c);
    }
    const bool asking = c.session.access.step != station::AccessState::kCommand;
    if (asking) c.session.code = station::kAnswerAsking;
    if (gate.Held(c.session, station::Gate::NowMs())) break;  // answered when the wait is over
    answer(c, !c.session.want_tls && !asking);
    if (c.session.want_tls) {
      c.session.want_tls = false;
      if (c.conn->ReadPending() != 0) {
        // Bytes sent after starttls in clear text would run as if they came
        // through TLS: a relay could put commands before a client's login.
        log.Add(elog_WARN, 0, "%s: %u bytes after starttls before the handshake, closed", c.session.peer.c_str(),
                c.conn->ReadPending());
        c.conn->writeln("starttls: nothing may follow starttls before the handshake, closing", true, 0);
        c.conn->close();
        break;
      }
      c.conn->flush(Connection::wait_1s);
      if (!gate.StartTLS(c.session, *c.conn)) {
        log.Add(elog_WARN, 0, "%s: TLS is not configured", c.session.peer.c_str());
        c.conn->close();
      }
      break;  // the handshake goes on from the server loop
    }
  }
  return c.conn->IsConnected();
}


// SIGHUP after the settings: the users file and the access list are read
// again; sessions of removed users end, changed levels apply from the next
// command, and the station's observers hear of it.
void reload_access(Station& st, station::Gate& gate, station::Network& net,
                   std::vector<std::unique_ptr<Client>>& clients, Log& log) {
  gate.ReloadUsers();
  net.ReloadAcl();
  for (size_t i = clients.size(); i-- > 0;) {
    Client& c = *clients[i];
    if (gate.Recheck(*c.cli, c.session, *c.conn)) continue;
    log.Add(elog_INFO, 0, "%s disconnected", c.session.peer.c_str());
    clients.erase(clients.begin() + static_cast<long>(i));
  }
  st.access_read = "users " + gate.UsersRead() + "; access list " + net.AclRead();
  if (st.on_access_reload) st.on_access_reload();
}

// Sessions not logged in beyond `cap`: the oldest go, so silent peers
// cannot hold every place for the login time-out.
void close_oldest_not_logged_in(std::vector<std::unique_ptr<Client>>& clients, int cap, Log& log) {
  if (cap <= 0) return;
  int waiting = 0;
  for (const auto& c : clients) waiting += c->session.level == ZQSecurity::kNoAccess;
  for (size_t i = 0; i < clients.size() && waiting > cap; ++i) {
    Client& c = *clients[i];
    if (c.session.level != ZQSecurity::kNoAccess || c.session.access.login != nullptr) continue;
    log.Add(elog_INFO, 0, "%s: closed, more than %d sessions not logged in", c.session.peer.c_str(), cap);
    if (c.session.access.handshake_until_ms == 0) c.conn->writeln("busy: too many sessions not logged in", true, 0);
    c.conn->close();
    clients.erase(clients.begin() + static_cast<long>(i--));
    --waiting;
  }
}

int run(Config_File& cfg, Log_Config_Data& logcfg, Log& log, station::StationSettings& settings,
        station::ServerSettings& server, station::Service& service) {
  station::FieldDevices field(cfg, log);  // outlives the task that uses its handlers
  Station st(cfg, settings, server, logcfg, log);
  st.workers = std::make_shared<station::WorkQueue>(2);  // file digests of network sessions
  const bool required = settings.RealTime ^= "required";
  if (required && mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
    std::fprintf(stderr,
                 "station: cannot initialize the sensor task: memory cannot be locked (%s).\n"
                 "Station.RealTime = required needs root, CAP_IPC_LOCK or ulimit -l unlimited;\n"
                 "Station.RealTime = preferred runs without.\n", std::strerror(errno));
    log.Add(elog_PANIC, 1, "the sensor task cannot lock memory (Station.RealTime = required)");
    return 1;
  }
  st.task.SetMemoryLockOptional(!required);
  std::string field_why;
  if (!field.Attach(st.task, server.ACL, field_why)) {
    std::fprintf(stderr, "station: %s\n", field_why.c_str());
    return 2;
  }
  field.BindPoints(*st.points);
  st.task.Start(nullptr);
  for (int i = 0; i < 2000 && st.task.CycleCount() == 0 && st.task.thread::IsRunning(); ++i) usleep(1000);
  if (st.task.CycleCount() == 0) {
    std::fprintf(stderr, "station: the sensor task did not start\n");
    log.Add(elog_PANIC, 1, "the sensor task did not start");
    return 1;
  }
  if (!st.task.MemoryLocked() || !st.task.RealTimeScheduled()) {
    const bool locked = st.task.MemoryLocked(), fifo = st.task.RealTimeScheduled();
    const std::string what = Format(
        "no real-time rights (%s%s%s): the sensor task runs with ordinary scheduling, lateness counted as before",
        locked ? "" : "memory not locked", !locked && !fifo ? ", " : "", fifo ? "" : "no SCHED_FIFO");
    if (required) {
      std::fprintf(stderr, "station: Station.RealTime = required, but %s\n", what.c_str());
      log.Add(elog_PANIC, 1, "Station.RealTime = required, but %s", what.c_str());
      return 1;
    }
    station::settings_state().realtime_warning = what;
    std::fprintf(stderr, "station: warning: %s\n", what.c_str());
    log.Add(elog_WARN, 0, "%s", what.c_str());
  }

  if (!field.Start(field_why)) {
    std::fprintf(stderr, "station: %s\n", field_why.c_str());
    log.Add(elog_PANIC, 2, "%s", field_why.c_str());
    return 1;
  }

  station::Gate gate(settings, server, log);
  if (!gate.Prepare()) return 1;

  station::Network net(cfg, server, log);
  std::string why;
  if (!net.Open(&why, station::adopt_activated_socket)) {
    std::fprintf(stderr, "station: %s\n", why.c_str());
    log.Add(elog_PANIC, 2, "%s", why.c_str());
    return 1;
  }
  st.access_read = "users " + gate.UsersRead() + "; access list " + net.AclRead();
  std::printf("tcp port %d\r\n", net.Port());
  std::fflush(stdout);

  station::Fleet fleet(st);
  fleet.level_of = [&settings](const std::string& who) { return ZQSecurity::UserLevel(settings.UsersFile, who); };
  fleet.users_file = settings.UsersFile;
  if (!fleet.Start()) return 1;
  station::WebServer web(st, gate, station::web_settings());
  if (!web.Start(why)) {
    std::fprintf(stderr, "station: %s\n", why.c_str());
    log.Add(elog_PANIC, 2, "%s", why.c_str());
    return 1;
  }
  service.Ready(st);

  std::unique_ptr<CLI> terminal;
  Session console;
  console.station = &st;
  console.out = stdout;
  console.peer = "terminal";
  console.level = ZQSecurity::kAdmin;
  if (isatty(STDIN_FILENO)) {
    terminal = std::make_unique<CLI>(stdin, stdout, stderr);
    station::register_commands(*terminal, console);
    station::apply_command_levels(*terminal);  // admin reaches all; help shows what the levels may do
    terminal->SetSessionLevel(console.level);
    station::setup_console(*terminal, console, "station.history");
    CLI_Editor* editor = terminal->Editor();
    st.announce = [editor](const std::string& text) { editor->Message(text); };
  } else {
    log.Add(elog_INFO, 0, "no terminal: serving TCP clients only");
  }

  std::vector<std::unique_ptr<Client>> clients;
  std::vector<pollfd> fds;
  bool terminal_ready = terminal != nullptr;  // shows the first prompt
  while (!g_stop) {
    st.Drain();
    service.Tick(st);
    if (g_reload != 0) {
      g_reload = 0;
      service.Reload(st);
      reload_access(st, gate, net, clients, log);
    }
    station::report_log_losses(st, GetUTC());
    fleet.Poll();
    web.Poll();
    field.Poll();
    std::string address;
    while (MySocket* peer = net.Take(&address)) {
      auto c = std::make_unique<Client>();
      net.Own(c->net, address);
      c->socket.reset(peer);
      // Every close of a session (time-outs, refusals, removed users) goes on
      // in the background: a lingering close would wait for a peer that does
      // not take its last line, and every other session with it.
      const linger off{0, 0};
      setsockopt(peer->sock, SOL_SOCKET, SO_LINGER, &off, sizeof off);
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
      station::register_machine_commands(*c->cli, c->session);
      gate.Admit(*c->cli, c->session, c->out);
      station::setup_console(*c->cli, c->session, "");
      log.Add(elog_INFO, 0, "%s connected", c->session.peer.c_str());
      if (st.announce) st.announce(c->session.peer + " connected");
      c->reply = "station ready, type help\r\n";
      answer(*c, true);
      clients.push_back(std::move(c));
      close_oldest_not_logged_in(clients, server.access_cfg.access.MaxNotLoggedIn, log);
    }
    st.clients = static_cast<unsigned int>(clients.size());
    if (terminal_ready && terminal->update_all() == 4) break;

    fds.clear();
    if (terminal) fds.push_back(pollfd{STDIN_FILENO, POLLIN, 0});
    int wait_ms = 20;
    for (const auto& c : clients) {
      // A peer that does not take its answers is not read from meanwhile.
      const bool backlog = c->conn->WritePending() >= kUntakenBytes;
      const bool waits = gate.Held(c->session, station::Gate::NowMs());
      const short held = waits || backlog ? 0 : POLLIN;
      if (c->more && !backlog && !waits) wait_ms = 0;
      const short hs = gate.Events(c->session, *c->conn);
      const short events = hs != 0 ? hs : static_cast<short>(held | (c->conn->WritePending() != 0 ? POLLOUT : 0));
      fds.push_back(pollfd{c->conn->Descriptor(), events, 0});
    }
    if (web.WakeFd() >= 0) fds.push_back(pollfd{web.WakeFd(), POLLIN, 0});  // after the clients' entries
    if (poll(fds.data(), fds.size(), wait_ms) < 0) continue;  // EINTR: a signal
    const size_t first = terminal ? 1 : 0;
    if (terminal) {
      terminal_ready = (fds[0].revents & POLLIN) != 0;
      if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
        log.Add(elog_INFO, 0, "the terminal went away: serving TCP clients only");
        st.announce = nullptr;
        terminal.reset();
        terminal_ready = false;
      }
    }
    for (size_t i = clients.size(); i-- > 0;) {
      Client& c = *clients[i];
      const short ev = fds[first + i].revents;
      const long long now = station::Gate::NowMs();
      bool alive = gate.Tick(*c.cli, c.session, *c.conn, now);
      if (alive && c.session.access.handshake_until_ms != 0) {
        // The handshake is stepped here, never waited for: others go on meanwhile.
        alive = gate.StepTLS(*c.cli, c.session, *c.conn, c.out) >= 0;
        if (alive && c.session.access.handshake_until_ms == 0) answer(c, true);
        if (!alive) log.Add(elog_INFO, 0, "%s disconnected", c.session.peer.c_str());
        if (!alive) clients.erase(clients.begin() + static_cast<long>(i));
        continue;
      }
      if (alive && !gate.Held(c.session, now) && (std::fflush(c.out), !c.reply.empty())) {
        answer(c, true);  // the answer that waited after a failed login
        alive = serve(c, log, gate);
      }
      // A client that hangs up while its answer waits is gone (else poll would spin on it).
      if (alive && gate.Held(c.session, now) && (ev & (POLLHUP | POLLERR))) alive = false;
      if (alive && (ev & POLLOUT)) c.conn->flush(0);
      const bool more = c.more && c.conn->WritePending() < kUntakenBytes;
      if (alive && (more || (ev & (POLLIN | POLLHUP | POLLERR)))) alive = serve(c, log, gate);
      const std::string over = alive ? net.Check(c.net, *c.conn) : "";
      if (!over.empty()) {
        c.conn->writeln("closing: " + over);
        c.conn->close();
      }
      if (!alive || !over.empty()) {
        log.Add(elog_INFO, 0, "%s disconnected", c.session.peer.c_str());
        clients.erase(clients.begin() + static_cast<long>(i));
      }
    }
  }

  service.Stopping();
  log.Add(elog_INFO, 0, "stopping: %zu clients, %lld cycles", clients.size(), st.task.CycleCount());
  for (auto& c : clients) c->conn->writeln("station stopping");
  clients.clear();
  net.Stop();
  st.task.Stop();
  field.Stop();  // safe states written
  field.Poll();
  if (terminal) std::fputs("\r\n", stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // (Each count of descriptors includes the one listing them.)
  const int fds_at_start = count_entries("/proc/self/fd") - 1;
  const int threads_at_start = count_entries("/proc/self/task");
  station::AccessOption option;
  const bool access_option = option.Take(argc, argv);
  const bool modbus_map = station::take_modbus_map_option(argc, argv);
  station::CommandKeyOption key_option;
  key_option.Take(argc, argv);
  // Section.Key=VALUE arguments are the settings' business, the rest options.
  zqcommon::Checked_Settings overrides;
  overrides.TakeOverrides(argc, argv);
  station::settings_state().overrides = overrides.Overrides();
  Config_File cfg(argc, argv);
  DEBUG_LEVEL = cfg.get_debug(0);
  if (cfg.get_entry("@@Argline", "show_help", "") == "1") {
    station::print_usage();
    return 0;
  }
  const std::string unknown = station::unknown_option(cfg);
  if (!unknown.empty()) {
    std::fprintf(stderr, "station: unknown option %s\n", unknown.c_str());
    station::print_usage();
    return 2;
  }
  const int early = station::service_command_line(cfg, "station.cfg");
  if (early >= 0) return early;

  station::StationSettings settings;
  station::ServerSettings server;
  Log_Config_Data logcfg;
  LogRetention_Config_Data retention;
  station::SettingsList all = station::sections(settings, server, logcfg);
  all.emplace_back("LogRetention", &retention);
  all.emplace_back("Network", &station::network_settings());
  all.emplace_back("Web", &station::web_settings());
  zqcommon::Checked_Settings checked = station::settings_checker(all);
  const std::vector<std::string> problems = station::load_checked(checked, cfg);
  for (const std::string& p : problems) std::fprintf(stderr, "station: %s\n", p.c_str());
  if (!problems.empty()) {
    std::fprintf(stderr, "station: %zu problem(s) in the settings, not started\n", problems.size());
    return 2;
  }
  std::string why;
  if (!station::prepare_save(cfg, &why)) {
    std::fprintf(stderr, "station: %s\n", why.c_str());
    return 2;
  }
  if (access_option) return option.Handle(settings, server);
  if (key_option.given) return key_option.Handle(settings.UsersFile);
  if (modbus_map) return station::print_modbus_map(cfg);
  if (settings.PeriodUs <= 0) {
    std::fprintf(stderr, "station: Station.PeriodUs must be positive\n");
    return 2;
  }
  install_signals();

  Log log(logcfg);
  log.journal_prefix = std::getenv("JOURNAL_STREAM") != nullptr;  // journald reads "<N>"
  log.Start();
  station::Service service(cfg, all, retention, log);
  station::RouteDiagnosticsToLog(log);
  log.Add(elog_INFO, 0, "station starting, configuration %s, debug level %d",
          cfg.getfilename().c_str(), DEBUG_LEVEL);
  const int rc = run(cfg, logcfg, log, settings, server, service);
  // Everything but the log is gone now: the threads of the start, and its
  // descriptors plus the log file.
  const int threads = count_entries("/proc/self/task");
  const int fds = count_entries("/proc/self/fd") - 1;
  log.Add(elog_INFO, 0, "stopped: %d thread(s) (%d at start), %d descriptors (%d at start, %d for the log)",
          threads, threads_at_start, fds, fds_at_start, log.f != nullptr ? 1 : 0);
  station::StopRoutingDiagnostics();
  log.Flush();
  return rc;
}
