#include "probes.h"

#include <pthread.h>

#include <cstddef>
#include <cstdlib>
#include <new>

// The replaced operator new is malloc underneath and delete is free; GCC sees
// the free but not the pairing.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
thread_local uint64_t t_allocations = 0;
thread_local uint64_t t_mutexLocks = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++t_allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

// glibc's own entry of the lock, reached under its versioned name so that the
// replacement below can hand each call on.
extern "C" int __pthread_mutex_lock(pthread_mutex_t* mutex);
__asm__(".symver __pthread_mutex_lock,__pthread_mutex_lock@GLIBC_2.2.5");
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  ++t_mutexLocks;
  return __pthread_mutex_lock(mutex);
}

namespace zel {
namespace bench {

uint64_t ThreadAllocations() { return t_allocations; }
uint64_t ThreadMutexLocks() { return t_mutexLocks; }

}  // namespace bench
}  // namespace zel
