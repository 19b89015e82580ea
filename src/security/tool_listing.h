// Name lists read from the `openssl` command-line tool (private).
#ifndef ZQSECURITY_SRC_TOOL_LISTING_H
#define ZQSECURITY_SRC_TOOL_LISTING_H

#include <string>

namespace zqdetail {

// Runs `command` through a pipe and joins the names it prints (split on any
// white space, as the tool prints them in columns) with commas, followed by
// `extra` (itself comma-terminated or empty); trailing commas are removed.
// When the tool is missing or prints nothing, the result is `extra` alone.
std::string tool_listing(const char* command, const std::string& extra);

}  // namespace zqdetail

#endif
