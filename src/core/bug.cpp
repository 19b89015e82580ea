// The debug level and library information tables.
#include "zqcommon/bug.h"

#include "zqcommon/dynlib.h"

int _DEBUG_LEVEL = 0;

bool GetLibraryInfo(const std::string& library, std::vector<std::string>& info) {
  info.clear();
  std::string error;
  DynLibLoader loader(library, error);
  if (!error.empty()) {
    info.push_back(error);
    return false;
  }
  void* address = nullptr;
  if (!loader.GetSymbol(library, library + "_LIBRARYINFO", &address, error)) {
    info.push_back(error);
    return false;
  }
  for (const char* const* entry = static_cast<const char* const*>(address);
       *entry != nullptr && **entry != '\0'; ++entry) {
    info.emplace_back(*entry);
  }
  return true;
}
