#include "zqcommon/stringize.h"

namespace zqcommon {

bool stringize::operator+=(const std::string&) { return false; }
bool stringize::operator-=(const std::string&) { return false; }

}  // namespace zqcommon
