// Test helper: waits for a condition that another thread or process brings about.
#ifndef ZQ_TESTS_EVENTUALLY_H
#define ZQ_TESTS_EVENTUALLY_H

#include <unistd.h>

#include <functional>

// Whether `done` became true within `ms` milliseconds (checked every 1 ms).
inline bool eventually(const std::function<bool()>& done, int ms = 5000) {
  for (int waited = 0; waited < ms; ++waited) {
    if (done()) return true;
    usleep(1000);
  }
  return done();
}

#endif
