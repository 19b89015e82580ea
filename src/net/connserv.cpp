// Connection server: configuration, the accept thread and the peer list.
#include "zqcommon/connserv.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "zqcommon/bug.h"
#include "zqcommon/lib_config.h"

namespace {
constexpr int kBacklog = 5;
}

Connection_Server::Connection_Server(const std::string& cfgfile, const std::string& section)
    : MySocketServer(nullptr) {
  if (cfgfile.empty()) return;
  cfg = new Config_File(cfgfile, "", true);
  const int port = std::atoi(cfg->get_entry(section, "ListenPort", "0").c_str());
  maxconn = static_cast<unsigned int>(std::atoi(cfg->get_entry(section, "MaxConnections", "0").c_str()));
  const std::string interface = cfg->get_entry(section, "Interface", "");
  const std::string acl_file = cfg->get_entry(section, "ACL", "");
  // Optional: the listen queue's length (a burst of clients connecting at
  // once waits there until the accept thread takes them).
  const int queue = std::atoi(cfg->get_entry(section, "ListenBacklog", std::to_string(kBacklog)).c_str());
  acl = new AccessList();
  LoadACL(acl_file);
  delete cfg;
  cfg = nullptr;
  MySocketServer::Start(interface, port, queue > 0 ? queue : kBacklog);
}

Connection_Server::Connection_Server(int port, int max, const std::string& interface)
    : MySocketServer(nullptr), maxconn(static_cast<unsigned int>(max)) {
  MySocketServer::Start(interface, port, kBacklog);
}

Connection_Server::~Connection_Server() {
  ZQ_DEBUG(49, "Connection_Server::~Connection_Server()\n");
  stop();
  // Wait for the accept thread to leave its loop before the members go.
  WaitFinished(1000, true);
  delete acl;
}

void Connection_Server::LoadACL(const std::string& file) {
  if (acl != nullptr) acl->load_ACL(file);
}

bool Connection_Server::SetListenBacklog(int n) {
  if (n <= 0 || sock == -1) return false;
  backlog = n;
  return listen(sock, n) == 0;  // on a listening socket: only the queue's length changes
}

void Connection_Server::SetMaxConn(unsigned int n) {
  lockable_hold hold(*this);
  conns.shrink(n);
  maxconn = n;
}

MySocket* Connection_Server::operator[](unsigned int i) {
  lockable_hold hold(*this);
  return conns[i];
}

bool Connection_Server::IsPending() {
  lockable_hold hold(*this);
  return !conns.empty();
}

void Connection_Server::Remove(MySocket* p, bool del) {
  lockable_hold hold(*this);
  conns.Remove(p, del);
}

bool Connection_Server::has_room() {
  lockable_hold hold(*this);
  return conns.size() < maxconn;
}

void* Connection_Server::run(void*) {
  while (!issetup && !IsCancelled()) usleep(50000);
  // Accepting without blocking: after refusing a peer, WaitConnection then
  // comes back when nobody else waits, and the loop sees a stop request in
  // time instead of sitting in accept() until stop() has to kill it.
  const int listening = sock;
  if (listening != -1) fcntl(listening, F_SETFL, fcntl(listening, F_GETFL) | O_NONBLOCK);
  while (!IsCancelled()) {
    ZQ_DEBUG(99, "Connection_Server::run()...\n");
    if (!has_room()) {
      usleep(20000);
      continue;
    }
    // Wait on the listening socket itself, 20 ms at most so that a stop
    // request is seen in time; then take every peer waiting, while there is
    // room. The list's lock is not held in WaitConnection: after refusing a
    // peer it accepts the next one, and the application must still be able
    // to take the peers held.
    pollfd p{__atomic_load_n(&sock, __ATOMIC_SEQ_CST), POLLIN, 0};
    if (p.fd == -1) {
      usleep(20000);
      continue;
    }
    if (poll(&p, 1, 20) <= 0 || (p.revents & POLLIN) == 0) continue;
    for (int taken = 0; taken < 1024 && !IsCancelled() && has_room(); ++taken) {
      MySocket* peer = WaitConnection();
      if (peer == nullptr) break;
      lockable_hold hold(*this);
      conns.Add(peer);
    }
  }
  ZQ_DEBUG(49, "Connection_Server::run()... ENDED\n");
  return nullptr;
}

void Connection_Server::stop() {
  ZQ_DEBUG(49, "Connection_Server::stop()\n");
  SetCancel();
  usleep(100000);
  if (thread::IsRunning()) Kill();
}
