// Replaces the global operator new and delete of the core test program so
// that tests can count allocations (all forms go through malloc and free).
#include <cstdlib>
#include <new>

#include "support/allocation_counter.h"

namespace {
std::atomic<long> g_allocations{0};
}

long allocations() { return g_allocations.load(); }

void* operator new(std::size_t size) {
  ++g_allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
