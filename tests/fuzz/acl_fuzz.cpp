// Fuzz target: arbitrary bytes as an access-list file, read by the classic
// loader and by the checked one (every refusal must name the file and a
// line), then a match of a few peers of both families. Name look-ups are
// answered "unknown" at once (no resolver traffic).
#include <netdb.h>

#include <vector>

#include "fuzz_input.h"
#include "zqcommon/mysocket.h"

extern "C" int gethostbyname_r(const char*, hostent*, char*, size_t, hostent** result, int* err) {
  *result = nullptr;
  *err = HOST_NOT_FOUND;
  return 0;
}
extern "C" int gethostbyaddr_r(const void*, socklen_t, int, hostent*, char*, size_t, hostent** result,
                               int* err) {
  *result = nullptr;
  *err = HOST_NOT_FOUND;
  return 0;
}

extern "C" int getnameinfo(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int) {
  return EAI_NONAME;
}
extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** result) {
  *result = nullptr;
  return EAI_NONAME;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz_file(fuzz_text(data, size));
  AccessList acl;
  acl.load_ACL(path);
  AccessList checked;
  std::vector<std::string> problems;
  checked.load_checked(path, &problems);
  unlink(path.c_str());
  for (const std::string& p : problems) {
    if (p.compare(0, path.size() + 1, path + ":") != 0) std::abort();
  }
  for (const char* peer : {"127.0.0.1", "10.1.2.3", "255.255.255.255", "::1", "::ffff:10.1.2.3", "fe80::1"}) {
    InetAddress a(peer);
    for (AccessList* list : {&acl, &checked}) {
      const ACL_Mode m = list->match(a);
      if (m != ACL_ALLOW && m != ACL_DENY) std::abort();
    }
  }
  return 0;
}
