// Fuzz target: arbitrary bytes as an access-list file, then a match of a few
// peers. Name look-ups are answered "unknown" at once (no resolver traffic).
#include <netdb.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    char name[] = "/tmp/zqaclfuzzXXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) std::abort();
    close(fd);
    std::atexit([] { std::remove(path.c_str()); });
    return std::string(name);
  }();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size != 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
  AccessList acl;
  acl.load_ACL(path);
  for (const char* peer : {"127.0.0.1", "10.1.2.3", "255.255.255.255"}) {
    InetAddress a(peer);
    const ACL_Mode m = acl.match(a);
    if (m != ACL_ALLOW && m != ACL_DENY) std::abort();
  }
  return 0;
}
