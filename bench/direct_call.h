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
//
// The time is the CPU time of the calling thread: on a machine shared with
// other work, the time the thread spent waiting for a processor is not the
// cost of the call (the caches it shares still are).
#ifndef ZQ_BENCH_DIRECT_CALL_H
#define ZQ_BENCH_DIRECT_CALL_H

#include <time.h>

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

// CPU seconds of this thread so far.
inline double thread_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// CPU seconds for call(0), call(1), ..., call(calls - 1), each result consumed.
template <class Call>
double time_calls(Call&& call, size_t calls) {
  using Result = decltype(call(size_t{}));
  const double t0 = thread_seconds();
  for (size_t i = 0; i < calls; ++i) {
    if constexpr (std::is_void_v<Result>) {
      call(i);
      consume(i);
    } else {
      consume(call(i));
    }
  }
  return thread_seconds() - t0;
}

}  // namespace bench

#endif
