// Dynamic library loader over dlopen/dlsym.
#include "zqcommon/dynlib.h"

#include "zqcommon/functions.h"

thread_local std::string DynLibLoader::dmyerror;

namespace {

std::string last_dl_error() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown dynamic loader error";
}

}  // namespace

DynLibLoader::DynLibLoader(const std::string& name, std::string& error, int flag) {
  Load(name, error, flag);
}

DynLibLoader::~DynLibLoader() {
  for (auto& entry : hMap) dl_close(entry.second);
  hMap.clear();
}

bool DynLibLoader::Load(const std::string& name, std::string& error, int flag) {
  void* handle = dl_init(name, flag, error);
  if (handle == nullptr) return false;
  hMap.emplace(name, handle);  // an existing entry is kept as it is
  return true;
}

void* DynLibLoader::dl_init(const std::string& name, int flag, std::string& error) {
  if (name.empty()) {
    void* self = dlopen(nullptr, flag);
    if (self == nullptr) error = last_dl_error();
    return self;
  }
  error.clear();
  const std::string candidates[4] = {"lib" + name + ".so", "lib" + name + ".la", name + ".so",
                                     name + ".la"};
  for (int i = 0; i < 4; ++i) {
    void* handle = dlopen(candidates[i].c_str(), flag);
    if (handle != nullptr) return handle;
    const std::string text = last_dl_error();
    if (i == 0) {
      error = text;
    } else if (i < 3) {  // the fourth attempt's text is not kept
      error += "\r\n";
      error += text;
    }
  }
  return nullptr;
}

void* DynLibLoader::dl_get(void* handle, const std::string& symbol, std::string& error) {
  dlerror();  // clear a stale text
  void* address = dlsym(handle, symbol.c_str());
  if (address == nullptr) error = last_dl_error();
  return address;
}

void DynLibLoader::dl_close(void* handle) { dlclose(handle); }

void* DynLibLoader::operator[](const std::string& symbol) {
  for (auto& entry : hMap) {
    void* address = dl_get(entry.second, symbol, dmyerror);
    if (address != nullptr) return address;
  }
  return nullptr;
}

bool DynLibLoader::GetSymbol(const std::string& library, const std::string& symbol,
                             void** address, std::string& error) {
  if (address != nullptr) *address = nullptr;
  if (hMap.empty()) return false;
  void* found = nullptr;
  if (library.empty()) {
    found = (*this)[symbol];
  } else {
    auto it = hMap.find(library);
    if (it == hMap.end()) {
      // An upper-case retry is made, but only the exact name may be found.
      std::string upper = library;
      ++upper;
      (void)hMap.find(upper);
      return false;
    }
    found = dl_get(it->second, symbol, error);
  }
  if (address != nullptr) *address = found;
  return found != nullptr;
}
