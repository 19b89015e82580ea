// Connection server: configuration, the accept thread and the peer list.
#include "zqcommon/connserv.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

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
  acl = new AccessList();
  LoadACL(acl_file);
  delete cfg;
  cfg = nullptr;
  MySocketServer::Start(interface, port, kBacklog);
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

void* Connection_Server::run(void*) {
  while (!issetup && !IsCancelled()) usleep(50000);
  // Accepting without blocking: after refusing a peer, WaitConnection then
  // comes back when nobody else waits, and the loop sees a stop request in
  // time instead of sitting in accept() until stop() has to kill it.
  const int listening = sock;
  if (listening != -1) fcntl(listening, F_SETFL, fcntl(listening, F_GETFL) | O_NONBLOCK);
  while (!IsCancelled()) {
    ZQ_DEBUG(99, "Connection_Server::run()...\n");
    bool room;
    {
      lockable_hold hold(*this);
      room = conns.size() < maxconn;
    }
    // The list's lock is not held in WaitConnection: after refusing a peer
    // it waits in accept() for the next one, and the application must still
    // be able to take the peers held.
    if (room && MySocketServer::IsPending()) {
      if (MySocket* peer = WaitConnection()) {
        lockable_hold hold(*this);
        conns.Add(peer);
      }
    } else {
      usleep(20000);
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
