// lineserver: a line protocol for many TCP clients on one thread.
//
//   lineserver [PORT [MAXCONN [INTERFACE]]]     (defaults: 0 = any free port, 256, 127.0.0.1)
//
// Prints "listening on PORT" once it listens. Every line a client sends comes
// back as it was; "quit" ends that client's session with "bye". The accept
// thread of Connection_Server collects peers; this loop takes each one into a
// Connection and serves all of them from one poll(), so it never spins.
// MAXCONN caps the sessions: a peer beyond it gets "busy: ..." and is
// closed. INTERFACE may be an IPv6 address ("::1", or "::" for both
// families). The listen queue holds 512 so a connect burst is not dropped.
// SIGINT or SIGTERM stops the server.
#include <poll.h>
#include <signal.h>
#include <zqcommon/connection.h>
#include <zqcommon/connserv.h>
#include <zqcommon/sessionlimits.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

volatile sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

// One client: its socket object (which owns the descriptor until the
// connection closes it) and the connection over it.
struct Client {
  std::unique_ptr<MySocket> socket;
  Connection conn;
};

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? std::atoi(argv[1]) : 0;
  const int maxconn = argc > 2 ? std::atoi(argv[2]) : 256;
  const std::string interface = argc > 3 ? argv[3] : "127.0.0.1";
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  Connection_Server server(port, maxconn, interface);
  if (!server.isactive) {
    std::fprintf(stderr, "lineserver: cannot listen on %s:%d\n", interface.c_str(), port);
    return 1;
  }
  server.SetListenBacklog(512);
  server.SetPeerLookup(false);  // no name look-up on the accept path
  SessionLimits limits(static_cast<unsigned int>(maxconn), 0);
  server.Start(nullptr);  // the accept thread
  std::printf("listening on %d\n", server.LocalPort());
  std::fflush(stdout);

  std::vector<std::unique_ptr<Client>> clients;
  std::vector<pollfd> fds;
  std::string line;
  while (!g_stop) {
    // Take the peers the accept thread collected.
    while (MySocket* peer = server[0]) {
      server.Remove(peer, false);
      std::string why;
      if (!limits.Admit("", &why)) {
        SessionLimits::Refuse(peer->sock, why);
        peer->sock = -1;
        delete peer;
        continue;
      }
      auto client = std::make_unique<Client>();
      client->socket.reset(peer);
      client->conn.SetSocket(&client->socket->sock);
      clients.push_back(std::move(client));
    }
    fds.clear();
    for (const auto& c : clients) {
      const short events = POLLIN | (c->conn.WritePending() != 0 ? POLLOUT : 0);
      fds.push_back(pollfd{c->conn.Descriptor(), events, 0});
    }
    // Wake at least every 5 ms to pick up new peers (they are few and far
    // between next to lines, and an accept burst is then served at once).
    if (poll(fds.data(), fds.size(), 5) < 0) continue;
    for (size_t i = 0; i < clients.size(); ++i) {
      Connection& conn = clients[i]->conn;
      if (fds[i].revents & POLLOUT) conn.flush(0);
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      // Every complete line that has arrived; a partial one waits (-2).
      for (;;) {
        const int r = conn.readln(line, false, 0);
        if (r == -3) conn.close();  // a line beyond the limit: drop the client
        if (r == 0 && !conn.IsConnected()) conn.close();  // gone: free the descriptor
        if (r < 0 || (r == 0 && conn.Descriptor() < 0)) break;
        if (line == "quit") {
          conn.writeln("bye");
          conn.close();
          break;
        }
        if (r > 0) conn.writeln(line);
        // Nothing more read ahead: poll() tells when more arrives, which
        // saves a receive that would only say "nothing yet".
        if (conn.ReadPending() == 0) break;
      }
    }
    // Forget the clients whose connection has ended (and closed its
    // descriptor): no system call per client.
    for (size_t i = clients.size(); i-- > 0;) {
      if (clients[i]->conn.Descriptor() < 0) {
        clients.erase(clients.begin() + static_cast<long>(i));
        limits.Release("");
      }
    }
  }
  server.stop();
  return 0;
}
