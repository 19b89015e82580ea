#include "security/tool_listing.h"

#include <cstdio>

#include "zqcommon/functions.h"

namespace zqdetail {

std::string tool_listing(const char* command, const std::string& extra) {
  std::string output;
  if (FILE* pipe = popen(command, "r")) {
    char block[1024];
    size_t n;
    while ((n = std::fread(block, 1, sizeof block, pipe)) > 0) output.append(block, n);
    pclose(pipe);
  }
  std::string result;
  for (;;) {
    std::string name = GetToken(&output);
    trim(name);
    if (name.empty()) break;
    result += name;
    result += ',';
  }
  result += extra;
  while (!result.empty() && result.back() == ',') result.pop_back();
  return result;
}

}  // namespace zqdetail
