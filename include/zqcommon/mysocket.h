// IPv4 TCP sockets, host look-ups, the listening socket and its access list.
#ifndef ZQCOMMON_MYSOCKET_H
#define ZQCOMMON_MYSOCKET_H

#include <netdb.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zqcommon/export.h"

// The result of a host look-up: the official name, the aliases and the
// addresses as dotted quads. A name that does not resolve leaves the text of
// its inet_addr() value in the address list (255.255.255.255 for a host name).
// Look-ups use the reentrant resolver calls, so threads may resolve at the
// same time; hinfo points into storage this object (and its copies) share.
class ZQ_EXPORT InetAddress {
 public:
  // Resolves `name` (with a reverse look-up for a dotted quad).
  explicit InetAddress(const std::string& name);
  // The same; `noreverse` leaves a numeric address without its name.
  InetAddress(const std::string& name, bool noreverse);

  // Looks `name` up: "" or 0.0.0.0 the local host, a dotted quad by reverse
  // look-up (none with `noreverse`: the list then holds the quad alone), any
  // other text by name. An IPv6 literal ("::1", "::ffff:10.0.0.1") is kept
  // in its usual text form (no brackets) as the only address, with its name
  // from a reverse look-up unless `noreverse`.
  void Resolve(const std::string& name, bool noreverse);
  std::vector<std::string>& IPList() { return ips; }
  std::vector<std::string>& AliasList() { return alist; }
  std::string Name() const { return h_name; }
  // Refills the name and the lists from hinfo.
  void update_lists();

  hostent* hinfo = nullptr;
  std::vector<std::string> alist;
  std::vector<std::string> ips;
  std::string h_name;

 private:
  struct Entry;  // a host entry with the buffer it points into
  std::shared_ptr<Entry> entry_;
};

// A TCP descriptor with its peer. Owns the descriptor: Disconnect() and the
// destructor shut it down and close it. Blocking calls; failures are the raw
// results of send/recv or -1. One thread at a time.
class ZQ_EXPORT MySocket : public InetAddress {
 public:
  MySocket(const std::string& name, int sock, int port);
  // The same without a reverse look-up when `noreverse`.
  MySocket(const std::string& name, int sock, int port, bool noreverse);
  virtual ~MySocket();
  MySocket(const MySocket&) = delete;
  MySocket& operator=(const MySocket&) = delete;

  int Socket() { return sock; }
  int Port() { return port; }
  bool IsValid() { return isvalid; }
  void Disconnect();
  // One send(); the caller handles partial writes.
  int write(const std::string& s, int flags);
  int write(const void* buf, unsigned int len, int flags);
  // One recv() of up to `len` bytes; "" at end of stream or on an error.
  std::string read(unsigned int len, int flags);

  int sock;
  int port;
  bool issetup;
  bool isactive;
  bool isvalid;
};

// A socket that connects out.
class ZQ_EXPORT MySocketClient : public MySocket {
 public:
  MySocketClient() : MySocket("", -1, 0) {}
  // Connects to the first address of `host`; the descriptor or -1.
  int Connect(const std::string& host, int port, bool noreverse);
  // Connects to `host` (a name, an IPv4 or an IPv6 address) over either
  // family, trying each address getaddrinfo gives in turn; the descriptor or
  // -1. The address list then holds the address connected to.
  int ConnectAny(const std::string& host, int port);
};

enum ACL_Mode { ACL_ALLOW = 1, ACL_DENY = 2 };

// Hosts with their masks (host order); the list owns the InetAddress objects.
typedef std::vector<std::pair<InetAddress*, unsigned int>> Access_Addr;

// Allowed and denied networks. Deny rules beat allow rules and the default is
// to deny: an AccessList() without entries refuses everybody. A rule is
// "host/mask" with a prefix length ("10.0.0.0/8") or a dotted mask
// ("10.0.0.0/255.0.0.0"); a rule without a mask is ignored. A mask of 0
// matches every address. Owns its entries; not locked.
// IPv6: a rule whose host is an IPv6 literal takes a prefix length of 0 to
// 128 ("fe80::/10", "::1/128"); IPv4-mapped peers ("::ffff:127.0.0.1") are
// matched as the IPv4 address they carry, and IPv4 peers match IPv6 rules
// through their mapped form. IPv4 rules and peers give the results they
// always gave.
class ZQ_EXPORT AccessList : public std::map<ACL_Mode, Access_Addr*> {
 public:
  AccessList();
  AccessList(ACL_Mode m, InetAddress* a, unsigned int mask);
  AccessList(ACL_Mode m, const std::string& spec);
  AccessList(ACL_Mode m, const std::string& host, const std::string& mask);
  ~AccessList();
  AccessList(const AccessList&) = delete;
  AccessList& operator=(const AccessList&) = delete;

  // Takes ownership of `a` (ignored when null).
  void Add(ACL_Mode m, InetAddress* a, unsigned int mask);
  void Add(ACL_Mode m, const std::string& spec);
  // Resolves `host` (a blocking look-up). A mask below 33 is a prefix length,
  // anything else a dotted quad, decided by the number before the first dot.
  void Add(ACL_Mode m, const std::string& host, const std::string& mask);
  // Adds the rules of a file's section "hosts", keys "allow" and "deny"
  // (blank-separated rules), to those held.
  void load_ACL(const std::string& file);
  // As load_ACL, but strict and without name look-ups: every "allow" and
  // "deny" line of [hosts] is read, and a rule that is not a numeric address
  // with a fitting mask (IPv4: prefix 0-32 or a dotted mask; IPv6: prefix
  // 0-128) or a key other than those two is kept out of the list and
  // described in `problems` as "FILE:LINE: ..." naming the rule. False when
  // the file cannot be read or any rule was refused.
  bool load_checked(const std::string& file, std::vector<std::string>* problems);
  ACL_Mode match(InetAddress& peer);
  // A dotted quad as a host-order number: 192.168.1.10 is 0xC0A8010A.
  static unsigned int str2ip(const std::string& dotted);
};

// A listening socket that accepts one peer at a time and refuses peers that
// its access list (owned, may be null) denies: they receive the 36 bytes
// "Your IP is not allowed to connect\r\n" and a zero byte, and are closed.
// WaitConnection() blocks in accept() (on a non-blocking listening socket it
// answers null when nobody waits, and after a failed accept, such as one for
// want of descriptors, null after a 10 ms pause); IsPending() polls. A returned peer
// belongs to the caller at once (From() still shows it until the next call);
// the server deletes only a refused peer it still holds. Not locked.
class ZQ_EXPORT MySocketServer : public MySocket {
 public:
  explicit MySocketServer(AccessList* acl = nullptr);
  ~MySocketServer() override;

  // Listens on `address` ("" for every interface) and `port`; false with a
  // message on standard error (DEBUG_LEVEL > 0) when that fails. An IPv6
  // literal listens on IPv6 (with "::" on both families: IPV6_V6ONLY off).
  bool Start(const std::string& address, int port, int backlog);
  // Listens on exactly the numeric address `address` (IPv4 or IPv6, no name
  // look-up, never a fall-back to every interface) and `port`. False with
  // the reason in `error` (naming the value) when the text is not a numeric
  // address or the address cannot be bound.
  bool ListenNumeric(const std::string& address, int port, int backlog, std::string* error);
  // The address and port the socket is bound to, as "127.0.0.1:7600" or
  // "[::1]:7600"; "" when not listening.
  std::string LocalAddress() const;
  // Whether an accepted peer's name is looked up before it is screened (on
  // by default); off, the peer is known by its address alone.
  void SetPeerLookup(bool on) { peer_lookup_ = on; }
  // Closes the listening socket; Resume() opens it again on the same
  // interface (and, as the port is not stored, on a port the system picks).
  bool Stop();
  bool Resume();
  // The next allowed peer; null when the server does not listen (also when
  // it is stopped while waiting).
  MySocket* WaitConnection();
  // True when a peer waits in the listen queue.
  bool IsPending() const;
  void SetAcl(AccessList* acl);
  AccessList* Acl() const { return acl; }
  MySocket* From() { return from; }
  // The port the socket is bound to (useful after listening on port 0).
  int LocalPort() const;

  int backlog = 0;
  AccessList* acl;
  MySocket* from = nullptr;

 private:
  // `report`: failures also go to standard error (DEBUG_LEVEL > 0).
  bool bind_and_listen(const void* address, unsigned int length, int port, bool report = true);
  bool bind_resolved(int port);  // the first address of the host entry, or every one
  bool bind_bound(int port, bool report = true);  // exactly bound_
  bool from_returned_ = false;
  bool peer_lookup_ = true;
  int family_ = 0;  // AF_INET or AF_INET6 when bound_ is the address to bind
  unsigned char bound_[16] = {};  // IPv6, or IPv4 in its mapped form
};

// The hardware address of interface `ifname` as "00:1a:2b:3c:4d:5e"; 0 on
// success, otherwise the failing ioctl's result (and `mac` empty).
ZQ_EXPORT int get_ifmac(const std::string& ifname, std::string& mac);
// "name;mac;" for every interface of /proc/net/dev that has a hardware
// address; 0 when at least one was listed, 1 otherwise.
ZQ_EXPORT int get_allmac(std::string& list);

#endif
