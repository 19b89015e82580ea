// cliserver: one command set on this terminal and for every TCP client.
//
//   cliserver [-e] [PORT]  (default 0: any free port; prints "tcp port N")
//
// -e switches on the line editor for the terminal and every client: keys
// anywhere in the line, history search, argument completion ("add" offers
// a few numbers), help with usage.
//
// Each TCP client gets its own CLI over its socket; the terminal has one too.
// One poll() loop calls update() of whichever interpreter has input, so
// nothing spins. Commands: "add A B", "clients", "net" with the sub-command
// "show", plus the built-ins (help, set, unset, echo, history, quit, exit).
// "exit" on the terminal ends the program; a client's "exit" ends its session.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zqcommon/cli.h>
#include <zqcommon/cli_editor.h>
#include <zqcommon/connserv.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

struct Client {
  std::unique_ptr<MySocket> socket;
  FILE* in = nullptr;
  FILE* out = nullptr;
  std::unique_ptr<CLI> cli;
  ~Client() {
    cli.reset();
    if (in != nullptr) std::fclose(in);
    if (out != nullptr) std::fclose(out);
  }
};

size_t g_clients = 0;

// Commands write to the interpreter's output stream, which they get as `arg`.
int cmd_add(void* out, int argc, const char** argv) {
  if (argc != 3) {
    std::fputs("usage: add A B\r\n", static_cast<FILE*>(out));
    return 1;
  }
  std::fprintf(static_cast<FILE*>(out), "%ld\r\n", std::atol(argv[1]) + std::atol(argv[2]));
  std::fflush(static_cast<FILE*>(out));
  return 0;
}

int cmd_clients(void* out, int, const char**) {
  std::fprintf(static_cast<FILE*>(out), "%zu client(s)\r\n", g_clients);
  std::fflush(static_cast<FILE*>(out));
  return 0;
}

int cmd_net(void* out, int, const char**) {
  std::fputs("net level: try show, quit\r\n", static_cast<FILE*>(out));
  std::fflush(static_cast<FILE*>(out));
  return 0;
}

int cmd_show(void* out, int, const char**) {
  std::string mac;
  get_allmac(mac);
  std::fprintf(static_cast<FILE*>(out), "interfaces: %s\r\n", mac.c_str());
  std::fflush(static_cast<FILE*>(out));
  return 0;
}


void register_commands(CLI& cli, FILE* out) {
  cli.Register(cmd_add, out, "add", nullptr, "add A B: the sum of two numbers");
  cli.Register(cmd_clients, out, "clients", nullptr, "the number of TCP clients");
  cli.Register(cmd_net, out, "net", nullptr, "the network level");
  cli.Register(cmd_show, out, "show", cmd_net, "interfaces and their hardware addresses");
}

// The line editor with a completer for add's arguments; Ctrl-D on an empty
// line ends a client's session.
void enable_editing(CLI& cli, bool client) {
  CLI_Editor* ed = cli.EnableEditing();
  ed->SetEndOnEof(client);
  ed->SetCompleter("add", [](const std::vector<std::string>& before, const std::string&) {
    return before.size() < 3 ? std::vector<std::string>{"1", "2", "10", "100", "1000"} : std::vector<std::string>();
  });
}

}  // namespace

int main(int argc, char** argv) {
  const bool editing = argc > 1 && std::string(argv[1]) == "-e";
  if (editing) --argc, ++argv;
  const int port = argc > 1 ? std::atoi(argv[1]) : 0;
  Connection_Server server(port, 64, "127.0.0.1");
  if (!server.isactive) {
    std::fprintf(stderr, "cliserver: cannot listen on port %d\n", port);
    return 1;
  }
  server.Start(nullptr);
  std::printf("tcp port %d\r\n", server.LocalPort());
  std::fflush(stdout);

  CLI terminal(stdin, stdout, stderr);
  terminal.SetAppName("station");
  register_commands(terminal, stdout);
  if (editing) enable_editing(terminal, false);

  std::vector<std::unique_ptr<Client>> clients;
  std::vector<pollfd> fds;
  bool terminal_ready = true;  // show the first prompt
  while (true) {
    while (MySocket* peer = server[0]) {
      server.Remove(peer, false);
      auto c = std::make_unique<Client>();
      c->socket.reset(peer);
      c->in = fdopen(dup(peer->sock), "r");
      c->out = fdopen(dup(peer->sock), "w");
      c->cli = std::make_unique<CLI>(c->in, c->out, c->out);
      c->cli->SetAppName("remote");
      register_commands(*c->cli, c->out);
      if (editing) enable_editing(*c->cli, true);
      clients.push_back(std::move(c));
      g_clients = clients.size();
      clients.back()->cli->update_all();  // its prompt, and what it typed already
    }
    g_clients = clients.size();
    if (terminal_ready && terminal.update_all() == 4) break;
    fds.assign(1, pollfd{STDIN_FILENO, POLLIN, 0});
    for (const auto& c : clients) fds.push_back(pollfd{c->socket->sock, POLLIN, 0});
    if (poll(fds.data(), fds.size(), 100) < 0) continue;
    terminal_ready = (fds[0].revents & POLLIN) != 0;
    for (size_t i = clients.size(); i-- > 0;) {
      if (!(fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char probe;
      const bool gone = recv(clients[i]->socket->sock, &probe, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
      if (gone || clients[i]->cli->update_all() == 4) clients.erase(clients.begin() + static_cast<long>(i));
    }
  }
  server.stop();
  return 0;
}
