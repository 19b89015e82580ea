// The timing loop of the benchmarks: a public function called the way a
// program calls it, so that a figure is what a caller sees.
//
// `call` is written at the call site as a lambda, for example
//   [&](size_t i) { return mk_crc32(buffer + i % 64, 16); }
// Its type is a template parameter, so the lambda is inlined into the loop
// and adds nothing; the library function inside it is reached from this
// separate binary through the shared library's PLT, exactly as from a user's
// program, and cannot be inlined. A peer is called the same way, so neither
// side pays for a wrapper the other does not. Every result is consumed: the
// compiler must produce it and cannot drop, merge or hoist a call, while the
// calls do not wait for each other (as independent messages do not).
#ifndef ZQ_BENCH_DIRECT_CALL_H
#define ZQ_BENCH_DIRECT_CALL_H

#include <chrono>
#include <cstddef>
#include <type_traits>

namespace bench {

// Makes the compiler treat `v` as read, and any memory as read and written.
template <class T>
inline void consume(const T& v) {
  if constexpr (std::is_scalar_v<T>) {
    asm volatile("" : : "r,m"(v) : "memory");
  } else {
    asm volatile("" : : "r"(&v) : "memory");
  }
}

// Seconds for call(0), call(1), ..., call(calls - 1), each result consumed.
template <class Call>
double time_calls(Call&& call, size_t calls) {
  using Result = decltype(call(size_t{}));
  const auto t0 = std::chrono::steady_clock::now();
  for (size_t i = 0; i < calls; ++i) {
    if constexpr (std::is_void_v<Result>) {
      call(i);
      consume(i);
    } else {
      consume(call(i));
    }
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace bench

#endif
