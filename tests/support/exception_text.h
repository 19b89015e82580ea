// Test helper: the what() text of the exception a callable throws.
#ifndef ZQ_TESTS_EXCEPTION_TEXT_H
#define ZQ_TESTS_EXCEPTION_TEXT_H

#include <exception>
#include <string>

template <typename F>
std::string exception_text(F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "no exception";
}

#endif
