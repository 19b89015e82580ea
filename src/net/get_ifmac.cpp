// Hardware addresses of the network interfaces.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/chartype.h"
#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"
#include "zqcommon/mysocket.h"

int get_ifmac(const std::string& ifname, std::string& mac) {
  mac.clear();
  const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return -1;
  ifreq req;
  std::memset(&req, 0, sizeof req);
  std::strncpy(req.ifr_name, ifname.c_str(), IFNAMSIZ - 1);
  const int rc = ioctl(s, SIOCGIFHWADDR, &req);
  if (rc == 0) {
    zqdetail::append_hex(mac, reinterpret_cast<const unsigned char*>(req.ifr_hwaddr.sa_data), 6,
                         ':');
  }
  ::close(s);
  return rc;
}

int get_allmac(std::string& list) {
  list.clear();
  FILE* f = std::fopen("/proc/net/dev", "r");
  if (f == nullptr) {
    if (DEBUG_LEVEL >= 0) {
      zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "zqcommon: ERROR getting net config from /proc/net/dev, error: %i\n",
                   errno);
    }
    return 1;
  }
  char line[512];
  for (int header = 0; header < 2 && std::fgets(line, sizeof line, f) != nullptr; ++header) {
  }
  while (std::fgets(line, sizeof line, f) != nullptr) {
    const char* colon = std::strchr(line, ':');
    if (colon == nullptr) continue;
    const char* start = colon;
    while (start > line && start[-1] != ' ') --start;
    const std::string name(start, colon);
    std::string mac;
    if (get_ifmac(name, mac) == 0) list += name + ";" + mac + ";";
  }
  std::fclose(f);
  return list.empty() ? 1 : 0;
}
