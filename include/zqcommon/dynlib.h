// Shared libraries opened by short name, with their symbols found by name.
#ifndef ZQCOMMON_DYNLIB_H
#define ZQCOMMON_DYNLIB_H

#include <dlfcn.h>

#include <map>
#include <string>

#include "zqcommon/export.h"

// A table of shared libraries keyed by the name the caller gave.
//
// A name N is opened by trying "libN.so", "libN.la", "N.so" and "N.la" in that
// order; a complete failure leaves the first three loader texts joined by
// "\r\n" in the caller's error string. The empty name opens the running
// program. The loader owns every handle it entered and closes them, in
// ascending name order, when it is destroyed: symbols taken from it are valid
// only as long as it lives. Failures are results (null, false) with texts in
// the caller's error string; nothing is printed and nothing throws.
//
// Not locked: one loader serves one thread at a time.
class ZQ_EXPORT DynLibLoader {
 public:
  // Starts with an empty table and loads `name`; see error and the look-ups.
  DynLibLoader(const std::string& name, std::string& error, int flag = RTLD_LAZY);
  ~DynLibLoader();
  DynLibLoader(const DynLibLoader&) = delete;
  DynLibLoader& operator=(const DynLibLoader&) = delete;

  // Opens `name` and enters it into the table; true when a handle was obtained.
  // A name already in the table keeps its first handle (the new one is not
  // entered, and not closed either).
  bool Load(const std::string& name, std::string& error, int flag = RTLD_LAZY);

  // The file-name search; the handle or null. `flag` goes to dlopen unchanged.
  void* dl_init(const std::string& name, int flag, std::string& error);
  // dlsym; on a null result `error` receives the loader's text.
  void* dl_get(void* handle, const std::string& symbol, std::string& error);
  void dl_close(void* handle);

  // The symbol from the first library, in ascending order of names, that
  // defines it; null when none does.
  void* operator[](const std::string& symbol);

  // Finds `symbol` in the library entered exactly as `library` (no case
  // folding), or in all libraries when `library` is empty. `*address`, when
  // given, is set to null first and receives the result. `error` is set only
  // when the library is in the table and dlsym fails.
  bool GetSymbol(const std::string& library, const std::string& symbol, void** address,
                 std::string& error);

 private:
  std::map<std::string, void*> hMap;
  // Sink for error texts nobody asked for (the all-libraries search).
  static thread_local std::string dmyerror;
};

#endif
