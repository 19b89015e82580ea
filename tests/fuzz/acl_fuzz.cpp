// Fuzz target: arbitrary bytes as an access-list file through the checked
// loader, then a few peers of both families matched against what was kept.
// Every refusal must name the file and a line; nothing may crash.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "zqcommon/mysocket.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char path[] = "/tmp/zqaclfuzzXXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return 0;
  const bool written = write(fd, data, size) == static_cast<ssize_t>(size);
  close(fd);
  if (written) {
    AccessList acl;
    std::vector<std::string> problems;
    acl.load_checked(path, &problems);
    for (const std::string& p : problems) {
      if (p.compare(0, sizeof path - 1, path) != 0 || p[sizeof path - 1] != ':') abort();
    }
    for (const char* peer : {"127.0.0.1", "::1", "::ffff:10.1.2.3", "fe80::1"}) {
      InetAddress a(peer, true);
      acl.match(a);
    }
  }
  unlink(path);
  return 0;
}
