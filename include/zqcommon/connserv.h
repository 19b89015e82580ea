// A listening TCP server with an accept thread and a list of accepted peers.
#ifndef ZQCOMMON_CONNSERV_H
#define ZQCOMMON_CONNSERV_H

#include <string>

#include "zqcommon/mysocket.h"
#include "zqcommon/mystorage.h"
#include "zqthreads/oothread.h"
#include "zqcommon/export.h"

class Config_File;

// Accepts TCP peers on its own thread (started with Start(nullptr)) and keeps
// them, up to MaxConn(), until the application takes them: it reads a peer
// with operator[] and takes it with Remove(peer, false), or drops it with
// Remove(peer, true). Further peers wait in the listen queue (backlog 5, or
// the optional "ListenBacklog" key, or SetListenBacklog). The thread waits on
// the listening socket (20 ms at most, so a stop is seen) and takes every
// waiting peer at once.
// The thread makes the listening socket non-blocking, so that a refused peer
// never leaves it waiting in accept() where only stop()'s kill would end it.
//
// The list is guarded by the server's own lock, which the accept thread holds
// while it appends: operator[], Remove, IsPending and SetMaxConn take it too,
// so the application can take peers while the thread accepts. The access list
// loaded from the "ACL" key is kept but does not screen peers unless the
// application hands a list to the listening socket with SetAcl().
class ZQ_EXPORT Connection_Server : public thread, public MySocketServer {
 public:
  // Reads "ListenPort", "MaxConnections", "Interface", "ACL" and the optional
  // "ListenBacklog" (absent: 5) from
  // `section` of `cfgfile` and listens; an empty file name does nothing more.
  // A missing "MaxConnections" gives a server that accepts nobody.
  Connection_Server(const std::string& cfgfile, const std::string& section);
  Connection_Server(int port, int maxconn, const std::string& interface);
  ~Connection_Server() override;

  using thread::Start;
  using MySocketServer::Start;

  void LoadACL(const std::string& file);
  unsigned int MaxConn() const { return maxconn; }
  // Keeps at most n held peers (dropped ones are not closed).
  void SetMaxConn(unsigned int n);
  // Lengthens (or shortens) the listen queue of the listening socket; false
  // when not listening or n is not positive.
  bool SetListenBacklog(int n);
  MySocket* operator[](unsigned int i);
  // True when accepted peers wait for the application.
  bool IsPending();
  void Remove(MySocket* p, bool del);
  // Stops the accept thread; the listening socket stays open.
  virtual void stop();

 protected:
  void* run(void* arg) override;
  bool has_room();  // fewer than maxconn peers held

  Storage_List<MySocket*> conns;
  unsigned int maxconn = 1;
  AccessList* acl = nullptr;
  Config_File* cfg = nullptr;
};

#endif
