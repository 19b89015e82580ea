// gmtime() and localtime() with one result buffer per thread.
//
// civetweb formats the Date and Last-Modified headers of its answers with
// gmtime() on its worker threads. glibc's gmtime() fills one buffer for the
// whole process, so two answers made at once can swap or mix their dates
// (ThreadSanitizer reports the race). The station defines both functions
// here; a program's own definitions come first in the dynamic linker's
// lookup, so civetweb's calls land here. Each thread gets its own buffer,
// which is what the C library promises a single-threaded caller.
#include <time.h>

extern "C" {

__attribute__((visibility("default"))) struct tm* gmtime(const time_t* t) {
  static thread_local struct tm result;
  return gmtime_r(t, &result);
}

__attribute__((visibility("default"))) struct tm* localtime(const time_t* t) {
  static thread_local struct tm result;
  return localtime_r(t, &result);
}

}  // extern "C"
